#include <re2/re2.h>
#include <re2/set.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <utility>

#include "scanner.h"
#include "text_look.h"

namespace TARVO::SupportForm {
namespace {

/// A match of up to so many bytes is found whole; what is scanned begins as far before what is due.
constexpr std::size_t kStep = 4096;

/// The set takes the memory of all its patterns, of which there may be a thousand.
re2::RE2::Options OfMany() {
  re2::RE2::Options options(re2::RE2::Latin1);
  options.set_log_errors(false);
  options.set_max_mem(std::int64_t{128} << 20);
  return options;
}

/// A part of a line. Matches are looked for that begin before `next`, and end in the part.
struct LinePart {
  std::size_t begin;
  std::size_t next;
  std::size_t end;
};

}  // namespace

/// The patterns: in a set, which tells those that a text matches, and each alone, which tells where.
///
/// RE2 tells where a match begins and where the longest one ends, which in a long line may be far away. So a long line
/// is looked at in windows, which overlap, and both ends of a match are hits: where it begins is never far from what is
/// scanned.
struct PatternScanner::Compiled {
  explicit Compiled(std::vector<std::unique_ptr<re2::RE2>> of)
      : patterns(std::move(of)), set(OfMany(), re2::RE2::UNANCHORED) {}

  bool ScanLine(std::string_view line, std::size_t offset, Memory& memory, const OnHit& on_hit) const;
  void FindInWindow(std::string_view line, const LinePart& window, std::size_t offset, Memory& memory) const;

  std::vector<std::unique_ptr<re2::RE2>> patterns;
  re2::RE2::Set set;
};

PatternScanner::PatternScanner(std::vector<std::unique_ptr<re2::RE2>> patterns) {
  auto compiled = std::make_unique<Compiled>(std::move(patterns));
  for (const auto& pattern : compiled->patterns) {
    std::string error;
    if (compiled->set.Add(pattern->pattern(), &error) < 0) {
      throw ScannerError(pattern->pattern() + ": " + error);
    }
  }
  if (!compiled->set.Compile()) throw ScannerError("all patterns together need too much memory");
  compiled_ = std::move(compiled);
}

PatternScanner::~PatternScanner() = default;

const re2::RE2& PatternScanner::pattern(std::size_t number) const { return *compiled_->patterns[number]; }
std::size_t PatternScanner::count() const { return compiled_->patterns.size(); }

void PatternScanner::Scan(std::string_view text, Memory& memory, const OnHit& on_hit) const {
  memory.hits.clear();
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    if (!compiled_->ScanLine(text.substr(begin, end - begin), begin, memory, on_hit)) return;
    begin = end + 1;
  }
}

/// @param offset  Of the line in the text.
/// @return Whether more hits are wanted.
bool PatternScanner::Compiled::ScanLine(std::string_view line, std::size_t offset, Memory& memory,
                                        const OnHit& on_hit) const {
  for (LinePart window = {0, kStep, 2 * kStep};; window = {window.next, window.end, window.end + kStep}) {
    if (window.end >= line.size()) {
      FindInWindow(line, {window.begin, line.size(), line.size()}, offset, memory);
      return HandOut(memory.hits, npos, on_hit);
    }
    FindInWindow(line, window, offset, memory);
    if (!HandOut(memory.hits, offset + window.next + 1, on_hit)) return false;
  }
}

void PatternScanner::Compiled::FindInWindow(std::string_view line, const LinePart& window, std::size_t offset,
                                            Memory& memory) const {
  const re2::StringPiece whole(line.data(), line.size());
  re2::RE2::Set::ErrorInfo error{};
  // With a byte more on both sides, so that "\\b" and "\\B" know what they stand beside.
  const std::size_t context = window.begin - std::min<std::size_t>(window.begin, 1);
  const std::string_view around = line.substr(context, window.end + 1 - context);
  if (!set.Match({around.data(), around.size()}, &memory.numbers, &error)) {
    if (error.kind == re2::RE2::Set::kNoError) return;
    // All patterns at once need too much memory for this text.
    memory.numbers.resize(patterns.size());
    std::iota(memory.numbers.begin(), memory.numbers.end(), 0);
  }
  for (const int number : memory.numbers) {
    const re2::RE2& pattern = *patterns[static_cast<std::size_t>(number)];
    re2::StringPiece match;
    std::size_t at = window.begin;
    while (at < window.next && pattern.Match(whole, at, window.end, re2::RE2::UNANCHORED, &match, 1)) {
      const auto begin = static_cast<std::size_t>(match.data() - line.data());
      if (begin >= window.next) break;
      const std::size_t end = std::max(begin + match.size(), begin + 1);
      memory.hits.push_back({static_cast<unsigned>(number), offset + begin + 1});
      memory.hits.push_back({static_cast<unsigned>(number), offset + end});
      at = end;
    }
  }
}

}  // namespace TARVO::SupportForm
