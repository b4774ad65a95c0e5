/// The first of the two steps in which text is checked for secrets: one scan tells where anything is that may betray one.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "pending_hits.h"

namespace re2 {
class RE2;
}

namespace TARVO::SupportForm {

/// A scanner can't be made, or a text not be scanned. The text tells why.
class ScannerError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A word to scan for.
struct ScannedWord {
  std::string text;       ///< In small letters where `any_case` is true. Not empty, without NUL bytes.
  bool any_case = false;  ///< Upper and lower case letters of ASCII are the same.
};

/// Finds where any of many words ends. Made once for a collection; many threads may scan with it. There are two
/// implementations, of which the build takes one: word_scanner_vectorscan.cpp, and word_scanner_re2.cpp for processors
/// that Vectorscan does not run on.
class WordScanner {
 public:
  struct Memory;
  struct Compiled;  ///< What an implementation has made of the words.
  /// Frees what NewMemory() made.
  struct MemoryDeleter {
    void operator()(Memory* memory) const;
  };

  /// @throws ScannerError
  explicit WordScanner(const std::vector<ScannedWord>& words);
  WordScanner(const WordScanner&) = delete;
  WordScanner& operator=(const WordScanner&) = delete;
  ~WordScanner();

  /// What a scan needs beside the scanner, a few KiB. Each thread needs its own. For this scanner's scans only.
  /// @throws std::bad_alloc
  [[nodiscard]] std::unique_ptr<Memory, MemoryDeleter> NewMemory() const;

  /// Calls `on_hit` for every occurrence of a word, in the order of their ends, until it returns false. What it throws
  /// goes through.
  /// @param text  At most 4 GiB.
  /// @throws ScannerError
  void Scan(std::string_view text, Memory& memory, const OnHit& on_hit) const;

 private:
  std::unique_ptr<const Compiled> compiled_;
};

using WordMemory = std::unique_ptr<WordScanner::Memory, WordScanner::MemoryDeleter>;

/// Finds where the matches of any of many patterns are. Made once for a collection; many threads may scan with it.
///
/// It is RE2's for every processor. Vectorscan 5.4.9, which Debian 12 has, overlooks matches of some pairs of patterns:
/// of "customer: (.*)" where "mark=.*end" stands beside it. For words it is given no patterns.
class PatternScanner {
 public:
  /// What a scan needs beside the scanner. Each thread needs its own.
  struct Memory {
    std::vector<Hit> hits;     ///< Found, and not handed out yet: of at most 8 KiB of a line.
    std::vector<int> numbers;  ///< Of the patterns that these match.
  };

  /// @param patterns  Compiled as patterns of bytes, without an error; '^' and '$' stand for a line's ends, too.
  /// @throws ScannerError
  explicit PatternScanner(std::vector<std::unique_ptr<re2::RE2>> patterns);
  PatternScanner(const PatternScanner&) = delete;
  PatternScanner& operator=(const PatternScanner&) = delete;
  ~PatternScanner();

  [[nodiscard]] const re2::RE2& pattern(std::size_t number) const;
  [[nodiscard]] std::size_t count() const;

  /// Calls `on_hit` for places within 4 KiB of each match of up to 4 KiB, in their order, until it returns false: behind
  /// the byte that the match begins with, and behind its end. Of matches that lie across each other only the first may
  /// be found, and a match never goes on behind its line.
  void Scan(std::string_view text, Memory& memory, const OnHit& on_hit) const;

 private:
  struct Compiled;
  std::unique_ptr<const Compiled> compiled_;
};

}  // namespace TARVO::SupportForm
