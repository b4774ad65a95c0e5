#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace TARVO::SupportForm {

/// Masks the value of every member "token" in a stream of JSON-like text: each byte of the value becomes '*',
/// so the length stays. A token is an upload credential, and the logs of a device quote whole tickets.
///
/// Works byte by byte on any chunks of the text; what it remembers between them is a few counters. It knows
/// - blanks around the colon, and "\n", "\r" and "\t" written out in their place;
/// - quotes inside the value that are escaped by backslashes;
/// - JSON text inside JSON strings, to any depth: \"token\":\"...\", \\\"token\\\":\\\"...\\\";
/// - values that are no strings: numbers and words up to the next separator, arrays and objects up to their end;
/// - values that are cut off: a string is masked up to the end of its line, or of the string around it.
class TokenMask {
 public:
  /// Takes the next bytes of the text and appends the masked text to `out`. Up to a run of backslashes may be
  /// held back until it is known whether they belong to the value.
  void Feed(std::string_view in, std::string& out);

  /// Appends what was held back. The text ends here; the object starts afresh.
  void Finish(std::string& out);

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

  void Step(char byte, std::string& out);
  void StepKey(char byte, std::string& out);
  void StepValueStart(char byte, std::string& out);
  void StepString(char byte, std::string& out);
  void StepContainer(char byte, std::string& out);
  bool TakesBlank(char byte);
  void FlushRun(char as, std::size_t count, std::string& out);
  void EnterKey();
  [[nodiscard]] bool EndsString() const;

  State state_ = State::kText;
  std::size_t matched_ = 0;    ///< Letters of the name read so far.
  std::size_t run_ = 0;        ///< Backslashes just before the next byte. In values they are held back.
  std::size_t key_level_ = 0;  ///< Backslashes before the quotes of the member's name.
  std::size_t level_ = 0;      ///< Backslashes before the opening quote of the string being read.
  std::size_t depth_ = 0;      ///< Open brackets of an array or object.
  bool in_string_ = false;     ///< Inside a string of an array or object.
};

/// Masks one whole text.
[[nodiscard]] std::string Masked(std::string_view text);

}  // namespace TARVO::SupportForm
