#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "secret.h"

namespace TARVO::SupportForm {

/// Finds where a secret ends, over any blocks of the text: what it has to know of earlier blocks it remembers, a few
/// counters. Made for one secret, by the Redactor, which masks up to the end that this finds.
class SecretEnd {
 public:
  /// Forms that go over lines end here at the latest, found or not; only kLines does not.
  static constexpr std::size_t kMaxLinesBytes = std::size_t{32} << 10;

  /// @param secret  Of any form but kFixed, whose end is known.
  explicit SecretEnd(const Secret& secret)
      : secret_(secret), most_(secret.form == SecretForm::kLines ? SIZE_MAX : kMaxLinesBytes) {}

  /// Goes on at text[at]. The first call begins with the secret's first byte.
  /// @param at_end  Whether the text ends here: so does the secret then.
  /// @return Offset of the end; npos if the secret goes on behind the text. The next call goes on there. The end
  ///         may lie up to TokenMask::kMaxBackslashes before `at`.
  [[nodiscard]] std::size_t Find(std::string_view text, std::size_t at, bool at_end);

 private:
  /// What was read behind a closing quote, of what makes a shell or SQL go on with the value: a quote once more, or a
  /// quote in other quoting and a quote that opens again.
  enum class Tail {
    kNone,          ///< The value goes on.
    kClosed,        ///< 'abc'
    kEscapedQuote,  ///< 'abc'\'
    kOtherQuote,    ///< 'abc'"
    kOtherQuoted,   ///< 'abc'"'
    kOtherClosed    ///< 'abc'"'"
  };

  [[nodiscard]] std::size_t SkipInside(std::string_view text, std::size_t at);
  // Each tells whether the secret ends with the byte: how many bytes before it, backslashes and quotes, are no part of
  // the secret any more; nothing where it goes on.
  [[nodiscard]] std::optional<std::size_t> Ends(char byte);
  [[nodiscard]] std::optional<std::size_t> EndsWord(char byte) const;
  [[nodiscard]] std::optional<std::size_t> EndsQuoted(char byte);
  [[nodiscard]] std::optional<std::size_t> EndsTail(char byte);
  [[nodiscard]] std::optional<std::size_t> EndsDoubled(char byte);
  [[nodiscard]] std::optional<std::size_t> EndsList(char byte);
  [[nodiscard]] std::optional<std::size_t> EndsHereDocument(char byte);
  [[nodiscard]] std::optional<std::size_t> EndsBlock(char byte);
  [[nodiscard]] bool EndsDelimiter(char byte);
  [[nodiscard]] bool IsClosingQuote(char byte) const;

  Secret secret_;                ///< With the mark, level and delimiter that its end is known by.
  std::size_t most_;             ///< Bytes of a form that goes over lines.
  std::size_t run_ = 0;          ///< Backslashes just before the next byte.
  std::size_t matched_ = 0;      ///< Bytes of the delimiter, or quotes, just before the next byte.
  std::size_t indent_ = 0;       ///< Blanks read since the line began.
  bool in_indent_ = true;        ///< Only blanks were read since the line began.
  std::size_t lines_bytes_ = 0;  ///< Bytes read of a form that goes over lines.
  Tail tail_ = Tail::kNone;      ///< Of kQuoted only.
  std::size_t tail_size_ = 0;    ///< Bytes read since the closing quote and with it.
  bool in_string_ = false;       ///< In a string of a list.
};

}  // namespace TARVO::SupportForm
