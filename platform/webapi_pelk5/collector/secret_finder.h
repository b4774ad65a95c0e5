/// The built-in redaction rules: which fixed words betray a secret, and where exactly it stands then.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace TARVO::SupportForm {

/// How a secret goes on, and so where it ends. None but kList goes beyond its line.
enum class SecretForm {
  kFixed,        ///< Ends at `end`.
  kUpperDigits,  ///< A run of A-Z and 0-9.
  kIdentifier,   ///< A run of letters, digits, '_' and '-'.
  kDotted,       ///< The same and '.'.
  kEncoded,      ///< The same and "~+/=%".
  kHash,         ///< A run of letters, digits and "./$=,+-", as password hashes have.
  kWord,         ///< Up to a blank, a '"', `mark`, or an escaped quote or line end.
  kPhrase,       ///< Up to a '"', a backslash or `mark`.
  kLine,         ///< Up to the end of the line, or to `mark`.
  kScalar,       ///< A JSON number or word.
  kElement,      ///< Up to a '<'.
  kQuoted,       ///< Up to the closing quote, which is `mark` with `level` backslashes before it.
  kList,         ///< Up to the ']' or '}' that is in no string; strings are quoted as with kQuoted.
};

/// Of the forms that are runs of bytes: which bytes. 0 for the others.
[[nodiscard]] unsigned ClassesOf(SecretForm form);

/// A secret that was found in a text. Its bytes are to be masked.
struct Secret {
  std::size_t begin = 0;  ///< Offset of its first byte.
  SecretForm form = SecretForm::kFixed;
  std::size_t end = 0;    ///< Offset behind its last byte; of kFixed only.
  char mark = '\0';       ///< See SecretForm; '\0' where there is none.
  std::size_t level = 0;  ///< See SecretForm.
};

/// A fixed word to look for; its number is its place in FixedWords().
struct FixedWord {
  std::string text;
  bool any_case = false;  ///< Upper and lower case letters are the same.
};

/// The words of the built-in rules. No word is the end of another.
[[nodiscard]] std::vector<FixedWord> FixedWords();

/// Bytes before and behind a fixed word that the functions below look at.
constexpr std::size_t kFinderReach = 4096;

/// The secret that a fixed word betrays, if any.
/// @param word  Its number.
/// @param text  At least kFinderReach bytes before and behind the word, unless the text begins or ends there.
/// @param hit   Offset behind the word.
[[nodiscard]] std::optional<Secret> FindSecret(unsigned word, std::string_view text, std::size_t hit);

/// The first or last line of a private key's text form.
struct KeyMarker {
  bool begins_key = false;  ///< "BEGIN"; otherwise "END".
  std::size_t begin = 0;    ///< Offset of its dashes.
  std::size_t end = 0;      ///< Offset behind its dashes.
};

/// Whether the fixed word belongs to key markers: FindKeyMarker() is to be asked then, not FindSecret().
[[nodiscard]] bool IsKeyMarkerWord(unsigned word);
[[nodiscard]] std::optional<KeyMarker> FindKeyMarker(std::string_view text, std::size_t hit);

/// Whether bytes as of a key's base64 text stand there: at least 16 in a row.
[[nodiscard]] bool HasKeyMaterial(std::string_view text);

}  // namespace TARVO::SupportForm
