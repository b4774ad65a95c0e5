#include <re2/re2.h>
#include <re2/set.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <utility>

#include "byte_class.h"
#include "scanner.h"
#include "text_look.h"

namespace TARVO::SupportForm {

/// Of a scanner for words or for patterns, of which each has its own.
struct Scanner::Compiled {
  Compiled() = default;
  virtual ~Compiled() = default;
  Compiled(const Compiled&) = delete;
  Compiled& operator=(const Compiled&) = delete;
  virtual void Scan(std::string_view text, Memory& memory, const OnHit& on_hit) const = 0;
};

struct Scanner::Memory {
  struct Hit {
    unsigned number;
    std::size_t end;
  };
  std::vector<Hit> hits;     ///< Found, and not handed out yet.
  std::vector<int> numbers;  ///< Of the patterns that a line matches.
};

namespace {

using Hit = Scanner::Memory::Hit;

/// Of bytes: texts need not be valid UTF-8.
re2::RE2::Options OfBytes() {
  re2::RE2::Options options(re2::RE2::Latin1);
  options.set_log_errors(false);
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

/// Unlike a look at a text it costs nothing of the text's allowance: Vectorscan's looks don't, either.
bool BeginsWith(std::string_view text, const ScannedWord& word) {
  const std::string_view head = text.substr(0, word.text.size());
  return std::equal(
      head.begin(), head.end(), word.text.begin(), word.text.end(),
      [&](char there, char wanted) { return (word.any_case ? ToLower(there) : there) == wanted; });
}

/// Hands out the hits that end before `until`, in the order of their ends.
/// @return Whether more are wanted.
bool HandOut(std::vector<Hit>& hits, std::size_t until, const Scanner::OnHit& on_hit) {
  std::sort(hits.begin(), hits.end(), [](const Hit& one, const Hit& other) {
    return std::pair(one.end, one.number) < std::pair(other.end, other.number);
  });
  auto hit = hits.begin();
  for (; hit != hits.end() && hit->end < until; ++hit) {
    if (!on_hit(hit->number, hit->end)) return false;
  }
  hits.erase(hits.begin(), hit);
  return true;
}

/// The words, all in one pattern.
class Words final : public Scanner::Compiled {
 public:
  explicit Words(const std::vector<ScannedWord>& words) : words_(words), any_(AnyOf(words), OfBytes()) {
    if (!any_.ok()) throw ScannerError(any_.error());
    for (unsigned number = 0; number < words_.size(); ++number) {
      for (unsigned byte = 0; byte < by_first_byte_.size(); ++byte) {
        const char there = static_cast<char>(byte);
        const char first = words_[number].any_case ? ToLower(there) : there;
        if (first == words_[number].text.front()) by_first_byte_[byte].push_back(number);
      }
    }
  }

  void Scan(std::string_view text, Scanner::Memory& memory, const Scanner::OnHit& on_hit) const override;

 private:
  std::vector<ScannedWord> words_;
  re2::RE2 any_;
  std::array<std::vector<unsigned>, 256> by_first_byte_;  ///< Numbers of words.
};

/// The patterns: in a set, which tells those that a line matches, and each alone, which tells where.
class Patterns final : public Scanner::Compiled {
 public:
  explicit Patterns(const std::vector<std::string>& patterns) : set_(OfBytes(), re2::RE2::UNANCHORED) {
    for (std::size_t number = 0; number < patterns.size(); ++number) {
      patterns_.push_back(std::make_unique<re2::RE2>(patterns[number], OfBytes()));
      std::string error = patterns_.back()->error();
      if (!error.empty() || set_.Add(patterns[number], &error) < 0) throw ScannerError(error, number);
    }
    if (!set_.Compile()) throw ScannerError("all patterns together are too long");
  }

  void Scan(std::string_view text, Scanner::Memory& memory, const Scanner::OnHit& on_hit) const override;

 private:
  void FindInLine(std::string_view line, std::size_t begin, Scanner::Memory& memory) const;

  re2::RE2::Set set_;
  std::vector<std::unique_ptr<re2::RE2>> patterns_;
};

void Words::Scan(std::string_view text, Scanner::Memory& memory, const Scanner::OnHit& on_hit) const {
  const re2::StringPiece whole(text.data(), text.size());
  re2::StringPiece word;
  std::size_t at = 0;
  while (any_.Match(whole, at, text.size(), re2::RE2::UNANCHORED, &word, 1)) {
    const auto begin = static_cast<std::size_t>(word.data() - text.data());
    at = begin + 1;
    if (!HandOut(memory.hits, at, on_hit)) return;  // what begins later ends later
    // Of the words that begin at the same byte RE2 tells only one.
    for (const unsigned number : by_first_byte_[static_cast<unsigned char>(text[begin])]) {
      if (BeginsWith(text.substr(begin), words_[number])) {
        memory.hits.push_back({number, begin + words_[number].text.size()});
      }
    }
  }
  HandOut(memory.hits, npos, on_hit);
}

void Patterns::Scan(std::string_view text, Scanner::Memory& memory, const Scanner::OnHit& on_hit) const {
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    FindInLine(text.substr(begin, end - begin), begin, memory);
    if (!HandOut(memory.hits, npos, on_hit)) return;
    begin = end + 1;
  }
}

/// @param begin  Of the line in the text.
void Patterns::FindInLine(std::string_view line, std::size_t begin, Scanner::Memory& memory) const {
  const re2::StringPiece text(line.data(), line.size());
  re2::RE2::Set::ErrorInfo error{};
  if (!set_.Match(text, &memory.numbers, &error)) {
    if (error.kind == re2::RE2::Set::kNoError) return;
    // All patterns at once need too much memory for this line.
    memory.numbers.resize(patterns_.size());
    std::iota(memory.numbers.begin(), memory.numbers.end(), 0);
  }
  for (const int number : memory.numbers) {
    const re2::RE2& pattern = *patterns_[static_cast<std::size_t>(number)];
    re2::StringPiece match;
    std::size_t at = 0;
    while (at <= text.size() && pattern.Match(text, at, text.size(), re2::RE2::UNANCHORED, &match, 1)) {
      const auto end = static_cast<std::size_t>(match.data() - text.data()) + match.size();
      memory.hits.push_back({static_cast<unsigned>(number), begin + end});
      at = std::max(end, at + 1);
    }
  }
}

}  // namespace

void Scanner::MemoryDeleter::operator()(Memory* memory) const { delete memory; }

Scanner::Scanner(std::unique_ptr<const Compiled> compiled) : compiled_(std::move(compiled)) {}
Scanner::Scanner(Scanner&& other) noexcept = default;
Scanner& Scanner::operator=(Scanner&& other) noexcept = default;
Scanner::~Scanner() = default;

Scanner Scanner::ForWords(const std::vector<ScannedWord>& words) {
  return Scanner(std::make_unique<Words>(words));
}

Scanner Scanner::ForPatterns(const std::vector<std::string>& patterns) {
  return Scanner(std::make_unique<Patterns>(patterns));
}

ScannerMemory Scanner::NewMemory() const { return ScannerMemory(new Memory); }

void Scanner::Scan(std::string_view text, Memory& memory, const OnHit& on_hit) const {
  memory.hits.clear();
  compiled_->Scan(text, memory, on_hit);
}

}  // namespace TARVO::SupportForm
