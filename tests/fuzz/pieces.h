/// Texts for the redactor, and how they are cut.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "redactor.h"

namespace fuzz {

struct Redacted {
  std::string text;
  std::uint64_t count = 0;
};

/// The text that an input stands for, of some 256 KiB at most: 0x1E, a number and a byte stand for that byte, 64
/// times the number and once more; 0x1D and a number for the 16 bytes before them, 8 times the number. Secrets of
/// tens of kilobytes, text behind the point up to which the redactor waits, and text that costs too much to search
/// need short inputs so.
[[nodiscard]] std::string Unpacked(std::string_view input);

/// @return What the redactor makes of the text when it comes all at once.
[[nodiscard]] Redacted RedactWhole(const TARVO::SupportForm::RedactionRules& rules, const std::string& text);

/// The same when it comes in pieces of random lengths, each of which follows from `seed`.
[[nodiscard]] Redacted RedactInPieces(const TARVO::SupportForm::RedactionRules& rules,
                                      const std::string& text, std::uint32_t seed);

/// Ends the process unless the text has kept its length and its line ends, and what changed was masked, and unless
/// the result is the same in pieces.
void CheckRedaction(const TARVO::SupportForm::RedactionRules& rules, const std::string& text);

}  // namespace fuzz
