#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace TARVO::SupportForm {

/// Masks the value of every member "token" in a stream of JSON-like text, in place: each byte of the value
/// becomes '*', so the length stays. A token is an upload credential, and the logs of a device quote whole
/// tickets.
///
/// Works on any blocks of the text; what it remembers between them is a few counters. It knows
/// - blanks around the colon, and "\n", "\r" and "\t" written out in their place;
/// - quotes inside the value that are escaped by backslashes;
/// - JSON text inside JSON strings, up to twelve levels deep: \"token\":\"...\", \\\"token\\\":\\\"...\\\";
/// - values that are no strings: numbers and words up to the next separator, arrays and objects up to their end;
/// - values that are cut off: a string is masked up to the end of its line, or of the string around it.
class TokenMask {
 public:
  /// More backslashes in a row than that are no quoting.
  static constexpr std::size_t kMaxBackslashes = 4096;

  /// Masks the next block of the text.
  /// @param at_end  Whether the text ends with the block. The object starts afresh then, but for its count.
  /// @return How many of the leading bytes are decided; all of them at the end. The others, fewer than
  ///         kMaxBackslashes, are backslashes of which it is not known yet whether they belong to a value; they
  ///         are to be given again, with more text behind them.
  [[nodiscard]] std::size_t Mask(char* text, std::size_t size, bool at_end);

  /// Whether a block in which "token" does not stand, not even the beginning of it, would stay as it is. Such a
  /// block need not be given.
  [[nodiscard]] bool IsOutside() const { return state_ == State::kText; }

  /// Values masked so far.
  [[nodiscard]] std::uint64_t count() const { return count_; }

 private:
  enum class State {
    kText,        ///< Outside.
    kKey,         ///< Behind a quote; `matched_` letters of the member's name read.
    kKeyEnd,      ///< Behind the name; its closing quote is missing.
    kColon,       ///< Behind the closing quote.
    kValueStart,  ///< Behind the colon.
    kString,      ///< Inside a string value.
    kScalar,      ///< Inside a number or a word.
    kContainer,   ///< Inside an array or an object.
  };

  // Each takes the next byte, in the states that it is named for, and masks it where it belongs to a value.
  void Step(char& byte);
  void StepKey(char byte);
  void StepValueStart(char& byte);
  void StepString(char& byte);
  void StepContainer(char& byte);
  bool TakesBlank(char byte);
  void TakeBackslash(char* byte);
  void MaskByte(char& byte);
  void MaskRun(char* end, std::size_t count);
  /// A quote was read behind which the name may stand.
  void EnterKey();
  /// Whether backslashes wait for the byte behind them to tell what they are.
  [[nodiscard]] bool InQuotes() const { return state_ == State::kString || state_ == State::kContainer; }

  State state_ = State::kText;  ///< What was read last.
  std::uint64_t count_ = 0;     ///< See count().
  bool counted_ = false;        ///< The value being read is in `count_`.
  std::size_t matched_ = 0;     ///< Letters of the name read so far.
  std::size_t run_ = 0;  ///< Backslashes just before the next byte. In quoted values they are undecided.
  std::size_t key_level_ = 0;  ///< Backslashes before the quotes of the member's name.
  std::size_t level_ = 0;      ///< Backslashes before the opening quote of the string being read.
  std::size_t depth_ = 0;      ///< Open brackets of an array or object.
  bool in_string_ = false;     ///< Inside a string of an array or object.
};

/// Masks one whole text: of a failure's cause, before it is recorded. The caller keeps its own copy.
[[nodiscard]] std::string Masked(std::string_view text);

}  // namespace TARVO::SupportForm
