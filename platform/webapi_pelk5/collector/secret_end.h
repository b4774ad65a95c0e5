#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "secret_finder.h"

namespace TARVO::SupportForm {

/// Finds where a secret ends, over any blocks of the text.
class SecretEnd {
 public:
  explicit SecretEnd(const Secret& secret) : secret_(secret) {}

  /// Goes on at text[at].
  /// @return Offset of the end; npos if the secret goes on behind the text. The next call goes on there. The end
  ///         may lie up to TokenMask::kMaxBackslashes before `at`.
  [[nodiscard]] std::size_t Find(std::string_view text, std::size_t at);

 private:
  [[nodiscard]] std::optional<std::size_t> Ends(char byte);
  [[nodiscard]] std::optional<std::size_t> EndsWord(char byte) const;
  [[nodiscard]] std::optional<std::size_t> EndsQuoted(char byte) const;
  [[nodiscard]] std::optional<std::size_t> EndsList(char byte);
  [[nodiscard]] bool IsClosingQuote(char byte) const;

  Secret secret_;
  std::size_t run_ = 0;     ///< Backslashes just before the next byte.
  bool in_string_ = false;  ///< In a string of a list.
};

}  // namespace TARVO::SupportForm
