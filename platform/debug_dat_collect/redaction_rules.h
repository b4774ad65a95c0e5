#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "scanner.h"
#include "secret_finder.h"

namespace TARVO::SupportForm {

/// Text can't be checked for secrets: the rules could not be read or compiled. The text tells why, and what to do.
class RedactionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The patterns that betray a secret, compiled. Made once for a collection; many Redactors may use it, each in
/// its own thread.
///
/// Text is checked in two steps, so that text without secrets costs little: one scan for all rules finds where a
/// fixed word of the built-in rules or a match of a pattern ends, then the bytes around that place are looked at
/// exactly.
class RedactionRules {
 public:
  /// A file with more is refused as a whole, and nothing is taken.
  static constexpr std::size_t kMaxPatterns = 1000;  ///< In the pattern file.
  static constexpr std::size_t kMaxEndBytes = 8;     ///< Of a fixed word's end that built_in() finds.

  /// Compiles the built-in rules and the patterns of the file; a file that does not exist adds none.
  /// @throws RedactionError when a file that exists can't be read, others could have changed or removed it, a
  ///         pattern is not valid, or the machine can't run the matcher. Nothing may be taken for checked then.
  explicit RedactionRules(const std::string& pattern_file);
  ~RedactionRules();
  RedactionRules(const RedactionRules&) = delete;
  RedactionRules& operator=(const RedactionRules&) = delete;

  /// Finds the ends of FixedWords(), each end under a number of its own.
  [[nodiscard]] const WordScanner& built_in() const { return *built_in_; }
  /// The number of the fixed word that ends `text`, whose own end has the number `end`; nothing where none does.
  [[nodiscard]] std::optional<unsigned> WordAtEnd(unsigned end, std::string_view text) const;
  /// Finds the patterns of the file, each under its number; nothing where there are none.
  [[nodiscard]] const std::optional<PatternScanner>& from_file() const { return from_file_; }
  /// Patterns of the file; their numbers are below this.
  [[nodiscard]] std::size_t pattern_count() const { return from_file_ ? from_file_->count() : 0; }

 private:
  // In the constructor, in this order. Each throws RedactionError.
  void CompileBuiltIn();
  void CompileFile(const std::string& path);

  std::vector<FixedWord> words_;                     ///< By their numbers.
  std::vector<std::vector<unsigned>> words_of_end_;  ///< Those that the scan does not tell apart.
  std::optional<WordScanner> built_in_;              ///< Never nothing once the constructor has returned.
  std::optional<PatternScanner> from_file_;          ///< Nothing where the file has no pattern.
};

}  // namespace TARVO::SupportForm
