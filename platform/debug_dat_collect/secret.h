#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace TARVO::SupportForm {

/// How a secret goes on, and so where it ends.
enum class SecretForm {
  kFixed,           ///< Ends at `end`.
  kUpperDigits,     ///< A run of A-Z and 0-9.
  kIdentifier,      ///< A run of letters, digits, '_' and '-'.
  kDotted,          ///< The same and '.'.
  kEncoded,         ///< The same and "~+/=%".
  kHash,            ///< A run of letters, digits and "./$=,+-", as password hashes have.
  kHashFields,      ///< The same and ':'.
  kWord,            ///< Up to a blank, a '"', `mark`, `delimiter`, or an escaped quote or line end.
  kPhrase,          ///< Up to a '"', a backslash or `mark`.
  kLine,            ///< Up to the end of the line, or to `mark`.
  kScalar,          ///< A JSON number or word.
  kElement,         ///< Up to a '<'.
  kQuoted,          ///< Up to the closing quote, which is `mark` with `level` backslashes before it.
  kDoubled,         ///< Up to `mark` twice; four times it is one in the value.
  kDelimited,       ///< Up to `delimiter`, or the end of the line.
  kList,            ///< Up to the ']' or '}' that is in no string; strings are quoted as with kQuoted.
  kDelimitedLines,  ///< Up to `delimiter`, over lines.
  kHereDocument,    ///< Up to the line that begins with `delimiter` behind blanks, over lines.
  kLines,           ///< Up to the first line end behind `level` bytes.
  kBlock,  ///< The lines that begin with more than `level` blanks. With '-' as the mark also those that
           ///< begin with so many and a '-'. Begins where a line does.
};

/// Of the forms that are runs of bytes: which bytes. 0 for the others.
[[nodiscard]] unsigned ClassesOf(SecretForm form);

/// A secret that was found in a text. Its bytes are to be masked. The searches fill it in; where it ends, maybe in a
/// later block, a SecretEnd finds out for the Redactor.
struct Secret {
  std::size_t begin = 0;                 ///< Offset of its first byte.
  SecretForm form = SecretForm::kFixed;  ///< How its end is found.
  std::size_t end = 0;                   ///< Offset behind its last byte; of kFixed only.
  char mark = '\0';                      ///< See SecretForm; '\0' where there is none.
  std::size_t level = 0;                 ///< See SecretForm.
  std::string delimiter =
      {};  ///< See SecretForm; its first byte comes in it once, or it is all the same byte.
};

/// Adds the secret to those that were found, if there is one.
inline void Take(const std::optional<Secret>& secret, std::vector<Secret>& found) {
  if (secret) found.push_back(*secret);
}

}  // namespace TARVO::SupportForm
