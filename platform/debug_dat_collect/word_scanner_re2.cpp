#include <re2/re2.h>

#include <algorithm>
#include <array>

#include "byte_class.h"
#include "scanner.h"
#include "text_look.h"

namespace TARVO::SupportForm {
namespace {

/// Of bytes: texts need not be valid UTF-8.
re2::RE2::Options OfBytes() {
  re2::RE2::Options options(re2::RE2::Latin1);
  options.set_log_errors(false);
  options.set_max_mem(std::int64_t{64} << 20);
  return options;
}

/// One pattern that matches any of the words.
std::string AnyOf(const std::vector<ScannedWord>& words) {
  std::string pattern;
  for (const ScannedWord& word : words) {
    pattern += pattern.empty() ? "" : "|";
    pattern += (word.any_case ? "(?i:" : "(?:") + re2::RE2::QuoteMeta(word.text) + ")";
  }
  return pattern;
}

/// Not charged to the text's allowance, as Vectorscan's own comparisons are not.
bool BeginsWith(std::string_view text, const ScannedWord& word) {
  const std::string_view head = text.substr(0, word.text.size());
  return std::equal(
      head.begin(), head.end(), word.text.begin(), word.text.end(),
      [&](char there, char wanted) { return (word.any_case ? ToLower(there) : there) == wanted; });
}

}  // namespace

struct WordScanner::Memory {
  std::vector<Hit> hits;  ///< Found, and not handed out yet.
};

struct WordScanner::Compiled {
  explicit Compiled(const std::vector<ScannedWord>& of) : words(of), any(AnyOf(of), OfBytes()) {}

  std::vector<ScannedWord> words;
  re2::RE2 any;
  std::array<std::vector<unsigned>, 256> by_first_byte;  ///< Numbers of words.
};

void WordScanner::MemoryDeleter::operator()(Memory* memory) const { delete memory; }

WordScanner::WordScanner(const std::vector<ScannedWord>& words) {
  auto compiled = std::make_unique<Compiled>(words);
  if (!compiled->any.ok()) throw ScannerError(compiled->any.error());
  for (unsigned number = 0; number < words.size(); ++number) {
    for (unsigned byte = 0; byte < compiled->by_first_byte.size(); ++byte) {
      const char there = static_cast<char>(byte);
      const char first = words[number].any_case ? ToLower(there) : there;
      if (first == words[number].text.front()) compiled->by_first_byte[byte].push_back(number);
    }
  }
  compiled_ = std::move(compiled);
}

WordScanner::~WordScanner() = default;

WordMemory WordScanner::NewMemory() const { return WordMemory(new Memory); }

void WordScanner::Scan(std::string_view text, Memory& memory, const OnHit& on_hit) const {
  const re2::StringPiece whole(text.data(), text.size());
  re2::StringPiece word;
  std::size_t at = 0;
  memory.hits.clear();
  while (compiled_->any.Match(whole, at, text.size(), re2::RE2::UNANCHORED, &word, 1)) {
    const auto begin = static_cast<std::size_t>(word.data() - text.data());
    at = begin + 1;
    if (!HandOut(memory.hits, at, on_hit)) return;  // what begins later ends later
    // Of the words that begin at the same byte RE2 tells only one.
    for (const unsigned number : compiled_->by_first_byte[static_cast<unsigned char>(text[begin])]) {
      const ScannedWord& there = compiled_->words[number];
      if (BeginsWith(text.substr(begin), there)) memory.hits.push_back({number, begin + there.text.size()});
    }
  }
  HandOut(memory.hits, npos, on_hit);
}

}  // namespace TARVO::SupportForm
