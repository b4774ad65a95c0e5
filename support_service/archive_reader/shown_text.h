/// How bytes from an archive are shown. Functions of their arguments alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "archive_walk.h"

namespace TarvoOrvane::ArchiveReader {

/// A character at the beginning of a text in UTF-8.
struct Character {
  std::uint32_t code = 0;
  std::size_t bytes = 0;  ///< 0 where there is none: the text is empty, cut, or no UTF-8.
};
[[nodiscard]] Character FirstCharacter(std::string_view text);

/// A name as text in UTF-8 that moves no cursor and no letters: bytes that are no UTF-8, control characters, line
/// separators and marks of writing direction become \xNN for each byte, and a backslash is doubled.
[[nodiscard]] std::string ShownName(std::string_view name);

/// The text with U+FFFD in the place of each byte that is no UTF-8.
[[nodiscard]] std::string Utf8Of(std::string_view bytes);

/// How many bytes of the text stand before a character that is cut at its end; all of them where none is.
[[nodiscard]] std::size_t WholeCharacters(std::string_view text);

/// An entry as a JSON object on one line, without the line's end and the object's closing brace.
[[nodiscard]] std::string OpenLine(const Entry& entry);

}  // namespace TarvoOrvane::ArchiveReader
