/// The first of the two steps in which text is checked for secrets: one scan tells where anything ends that may betray
/// one. There are two implementations, of which the build takes one: scanner_vectorscan.cpp, and scanner_re2.cpp for
/// processors that Vectorscan does not run on. Both find the same secrets.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace TARVO::SupportForm {

/// A scanner can't be made, or a text not be scanned. The text tells why.
class ScannerError : public std::runtime_error {
 public:
  /// @param pattern  The number of the pattern that can't be searched for; 0 where it is not one alone.
  explicit ScannerError(const std::string& why, std::size_t pattern = 0)
      : std::runtime_error(why), pattern_(pattern) {}
  [[nodiscard]] std::size_t pattern() const { return pattern_; }

 private:
  std::size_t pattern_;
};

/// A word to scan for.
struct ScannedWord {
  std::string text;       ///< In small letters where `any_case` is true. Not empty, without NUL bytes.
  bool any_case = false;  ///< Upper and lower case letters of ASCII are the same.
};

/// Finds where any of many words, or matches of any of many patterns, end. Made once for a collection; many threads may
/// scan with it.
class Scanner {
 public:
  struct Memory;
  struct Compiled;  ///< What an implementation has made of the words or patterns.
  /// Frees what NewMemory() made.
  struct MemoryDeleter {
    void operator()(Memory* memory) const;
  };
  /// Takes the number of a word or a pattern, and the offset behind it. Returns whether to go on.
  using OnHit = std::function<bool(unsigned number, std::size_t end)>;

  /// Finds every occurrence of a word.
  /// @throws ScannerError
  [[nodiscard]] static Scanner ForWords(const std::vector<ScannedWord>& words);

  /// Finds at least one match in each line of up to 4 KiB where a pattern has any, and in longer ones those that do not
  /// lie in others. A pattern is one of bytes, in RE2's syntax, in which '^' and '$' stand for a line's ends.
  /// @throws ScannerError  with the pattern's number.
  [[nodiscard]] static Scanner ForPatterns(const std::vector<std::string>& patterns);

  Scanner(Scanner&& other) noexcept;
  Scanner& operator=(Scanner&& other) noexcept;
  ~Scanner();

  /// What a scan needs beside the scanner, a few KiB. Each thread needs its own. For this scanner's scans only.
  /// @throws std::bad_alloc
  [[nodiscard]] std::unique_ptr<Memory, MemoryDeleter> NewMemory() const;

  /// Calls `on_hit` for the hits in the order of their ends, until it returns false. What it throws goes through.
  /// @param text  At most 4 GiB.
  /// @throws ScannerError
  void Scan(std::string_view text, Memory& memory, const OnHit& on_hit) const;

 private:
  explicit Scanner(std::unique_ptr<const Compiled> compiled);

  std::unique_ptr<const Compiled> compiled_;  ///< Null only where it was moved from.
};

using ScannerMemory = std::unique_ptr<Scanner::Memory, Scanner::MemoryDeleter>;

}  // namespace TARVO::SupportForm
