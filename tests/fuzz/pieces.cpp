#include "pieces.h"

#include <algorithm>
#include <functional>
#include <random>

#include "fuzz_support.h"

namespace fuzz {
namespace {

using TARVO::SupportForm::RedactionRules;
using TARVO::SupportForm::Redactor;

constexpr std::size_t kMaxText = std::size_t{256} << 10;
constexpr std::size_t kRepeated = 16;
constexpr std::size_t kMaxUndecided = std::size_t{64} << 10;

/// @param next  How many bytes come next.
Redacted Redact(const RedactionRules& rules, const std::string& text,
                const std::function<std::size_t()>& next) {
  Redactor redactor(&rules);
  Redacted result;
  std::string block;
  for (std::size_t read = 0; read < text.size() || text.empty();) {
    const std::string piece = text.substr(read, next());
    read += piece.size();
    block += piece;
    const std::size_t decided = redactor.Process(block.data(), block.size(), read == text.size());
    Require(decided <= block.size() && block.size() - decided <= kMaxUndecided, "little is left undecided");
    Require(read < text.size() || decided == block.size(), "at the end all is decided");
    result.text.append(block, 0, decided);
    block.erase(0, decided);
    Require(text.compare(read - block.size(), block.size(), block) == 0, "what is undecided is unchanged");
    if (text.empty()) break;
  }
  result.count = redactor.count();
  return result;
}

}  // namespace

std::string Unpacked(std::string_view input) {
  std::string text;
  for (std::size_t at = 0; at < input.size() && text.size() < kMaxText; ++at) {
    if (input[at] == '\x1e' && at + 2 < input.size()) {
      const std::size_t count = static_cast<unsigned char>(input[at + 1]);
      text.append(64 * count + 1, input[at + 2]);
      at += 2;
    } else if (input[at] == '\x1d' && at + 1 < input.size() && text.size() >= kRepeated) {
      const std::string repeated = text.substr(text.size() - kRepeated);
      for (int left = 8 * static_cast<unsigned char>(input[at + 1]); left > 0; --left) text += repeated;
      ++at;
    } else {
      text += input[at];
    }
  }
  return text;
}

Redacted RedactWhole(const RedactionRules& rules, const std::string& text) {
  return Redact(rules, text, [&] { return text.size(); });
}

Redacted RedactInPieces(const RedactionRules& rules, const std::string& text, std::uint32_t seed) {
  std::minstd_rand random(seed);
  // What is undecided is looked at again with each piece: so many small ones as this takes no time.
  unsigned small_pieces = 40;
  return Redact(rules, text, [&]() -> std::size_t {
    const auto choice = random();
    if (small_pieces > 0 && choice % 2 == 0) {
      --small_pieces;
      return random() % 300;
    }
    return 1 + random() % 30'000;
  });
}

void CheckRedaction(const RedactionRules& rules, const std::string& text) {
  const Redacted whole = RedactWhole(rules, text);
  Require(whole.text.size() == text.size(), "the length stays");
  const bool masked = std::equal(text.begin(), text.end(), whole.text.begin(), [](char before, char after) {
    return before == after || (after == '*' && before != '\n');
  });
  Require(masked, "bytes are masked but line ends stay");
  for (std::uint32_t seed = 1; seed <= 2; ++seed) {
    const Redacted pieces = RedactInPieces(rules, text, seed + static_cast<std::uint32_t>(text.size()));
    Require(pieces.text == whole.text, "the text is the same however it is cut");
    Require(pieces.count == whole.count, "the number of secrets is the same however the text is cut");
  }
}

}  // namespace fuzz
