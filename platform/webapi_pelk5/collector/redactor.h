#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace TARVO::SupportForm {

/// Text can't be checked for secrets: the rules could not be read or compiled. The text tells why, and what to do.
class RedactionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class RedactionRules;  // the compiled patterns, shared by all entries of a collection; redaction_rules.h

/// Masks the secrets in one text, block by block: each byte of a secret becomes '*', so the length stays. Made for
/// one text, used in one thread.
class Redactor {
 public:
  /// @param rules  Null: only the values of "token" members are masked, as they always are. Borrowed.
  explicit Redactor(const RedactionRules* rules);
  ~Redactor();
  Redactor(const Redactor&) = delete;
  Redactor& operator=(const Redactor&) = delete;

  /// Masks in place what is decided.
  /// @param data    The next part of the text: first what the former call left undecided, then new bytes.
  /// @param at_end  Whether the text ends with this block; all of it is decided then.
  /// @return How many of the leading bytes are decided and masked. The others are to be presented again, unchanged,
  ///         with more text behind them. At least `size` less 64 KiB.
  [[nodiscard]] std::size_t Process(char* data, std::size_t size, bool at_end);

  /// Secrets masked so far.
  [[nodiscard]] std::uint64_t count() const;
};

/// Whether a file that begins with `head` (its first 8 KiB, or all of a shorter one) is text, and can be checked.
[[nodiscard]] bool LooksLikeText(std::string_view head);

}  // namespace TARVO::SupportForm
