#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "redaction_rules.h"
#include "search_allowance.h"
#include "secret_end.h"
#include "secret_finder.h"
#include "token_mask.h"

namespace TARVO::SupportForm {

/// Masks the secrets in one text, block by block: each byte of a secret becomes '*', so the length stays; line
/// ends stay, too. Made for one text, used in one thread. The result is the same however the text is cut into
/// blocks. Memory: a few KiB, and 16 bytes for each secret in a block.
class Redactor {
 public:
  /// @param rules  Null: only the values of "token" members are masked, as they always are. Borrowed.
  explicit Redactor(const RedactionRules* rules);
  ~Redactor();
  Redactor(const Redactor&) = delete;
  Redactor& operator=(const Redactor&) = delete;

  /// Masks in place what is decided.
  /// @param data    The next part of the text: first what the former call left undecided, then new bytes. At most
  ///                4 GiB.
  /// @param at_end  Whether the text ends with this block; all of it is decided then.
  /// @return How many of the leading bytes are decided and masked. The others are to be presented again, unchanged,
  ///         with more text behind them. At least `size` less 64 KiB.
  /// @throws RedactionError when the text can't be scanned.
  [[nodiscard]] std::size_t Process(char* data, std::size_t size, bool at_end);

  /// Secrets masked so far, those in undecided bytes counted too. A value that a pattern of the file and a built-in
  /// rule find counts twice.
  [[nodiscard]] std::uint64_t count() const { return count_ + token_mask_.count(); }

  /// Parts of the text that were masked as a whole, as to search them would have cost too much. Each counts as a
  /// secret.
  [[nodiscard]] std::uint64_t masked_parts() const { return masked_parts_; }

 private:
  /// Offsets into the block; those behind what is decided stay for the next one.
  struct Span {
    std::size_t begin;  ///< Of the first byte.
    std::size_t end;    ///< Behind the last one.
  };

  /// A secret that goes on behind the block. Its end is looked for as soon as there is more of the text.
  struct OpenSecret {
    SecretEnd search;
    std::size_t begin;  ///< Of its first byte that is not masked yet.
    std::size_t until;  ///< Up to here its end was looked for.
  };

  // In the order in which Process() comes to them. Offsets are those of the block; a hit is the offset behind a word or
  // a match that the scan has found.
  std::size_t FindSecrets(std::string_view text, bool at_end);
  template <typename Scanner>
  void Scan(const Scanner& scanner, typename Scanner::Memory& memory,
            std::size_t (Redactor::*take)(unsigned, std::size_t), std::size_t before, std::size_t end);
  /// Looks around a fixed word for the secrets that it betrays, and charges the allowance; masks a whole part where
  /// that is spent.
  /// @param end  The number of the word's end, for RedactionRules::WordAtEnd().
  /// @return Up to where the scan need not look for words: where a long secret lies, nearly to its end.
  std::size_t TakeWord(unsigned end, std::size_t hit);
  std::size_t TakePattern(unsigned number, std::size_t hit);
  void LookInSecret(std::size_t begin, std::size_t end);
  /// Enters or leaves a private key's text. A text that begins in the middle of a key is masked from its beginning.
  void TakeKeyMarker(const KeyMarker& marker);
  /// Has a secret masked, now or in later blocks, and counts it.
  void TakeSecret(const Secret& secret);
  void GoOnWithSecrets();
  [[nodiscard]] std::size_t TakenUntil(std::size_t offset) const;
  /// Has the key's text masked up to here, or to its longest length.
  void EndKey(std::size_t end);
  /// Writes the stars of the rules' secrets; the mask of tokens writes its own.
  void MaskDecided(char* data, std::size_t decided);

  const RedactionRules* rules_;  ///< Null: only tokens are masked.
  WordMemory words_memory_;      ///< Null as the rules.
  PatternScanner::Memory patterns_memory_;
  SecretFinder finder_;             ///< Remembers what it has looked at.
  SearchAllowance allowance_;       ///< Of this text.
  TokenMask token_mask_;            ///< Asked only where a "token" may be.
  std::uint64_t count_ = 0;         ///< Of the rules' secrets; the mask of tokens counts its own.
  std::uint64_t masked_parts_ = 0;  ///< See masked_parts().

  // The block in work.
  std::string_view text_;
  std::uint64_t position_ = 0;  ///< Of the block in the whole text.
  std::vector<Secret> found_;   ///< At one word.
  bool at_end_ = false;         ///< The text ends with it.
  std::size_t horizon_ = 0;     ///< Hits up to here are taken; behind it too little of the text is known.

  // What is carried from block to block.
  bool begun_ = false;                    ///< A part of the text is decided.
  std::size_t taken_ = 0;                 ///< Hits up to here were taken.
  std::vector<Span> spans_;               ///< To be masked.
  std::vector<Span> taken_secrets_;       ///< Of the built-in rules: words in them betray nothing more.
  std::vector<OpenSecret> open_;          ///< Those whose end is not known yet.
  bool in_key_ = false;                   ///< In a private key's text form, ...
  std::size_t key_begin_ = 0;             ///< ... which begins here ...
  std::size_t key_limit_ = 0;             ///< ... and ends here at the latest.
  std::size_t token_until_ = 0;           ///< Behind the last "token"; 0 where all of it is decided.
  bool key_seen_ = false;                 ///< A key's first line was seen.
  std::vector<std::size_t> found_until_;  ///< Of each pattern: up to here all of its matches are found.
};

/// A whole text with the secrets in it masked.
/// @param rules  As for Redactor; borrowed.
/// @throws RedactionError when the text can't be scanned.
[[nodiscard]] std::string Redacted(std::string text, const RedactionRules* rules);

/// Bytes at the beginning of a file that tell whether it is text.
inline constexpr std::size_t kTextHeadBytes = 8192;

/// Whether a file that begins with `head` (its first kTextHeadBytes, or all of a shorter one) is text, and can be
/// checked. It is not if `head` holds a NUL byte, unless 16 or more of them follow each other, which a power failure
/// leaves in logs; if it begins with the mark of UTF-16; if more than one byte in fifty is a control character that
/// text does not use; or if it holds nothing but NUL bytes.
[[nodiscard]] bool LooksLikeText(std::string_view head);

}  // namespace TARVO::SupportForm
