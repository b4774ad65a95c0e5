/// The name in which a telling word stands, as "db_password" or "--api-key": where it begins and ends, whether it
/// speaks of a secret itself, and where its value stands.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "text_look.h"

namespace TARVO::SupportForm {

constexpr std::size_t kNameReach = 200;  ///< Bytes of a name looked at on each side of its telling word.

/// A name, by offsets in the text that it was found in, which it borrows.
struct Name {
  std::string_view text;             ///< What it was found in; borrowed.
  std::size_t word_begin = 0;        ///< Of the telling word.
  std::size_t word_end = 0;          ///< Behind it.
  std::size_t begin = 0;             ///< Of the whole name, without quotes.
  std::size_t end = 0;               ///< Behind the whole name.
  Sign before;                       ///< What stands before the name.
  std::size_t start = 0;             ///< Where that begins if it is a quote, else `begin`; before a colour.
  bool begins_written_line = false;  ///< A written out line end stands before it, as in JSON strings.

  // The parts of "db_password_file": the whole, "password", "db_" and "_file".
  [[nodiscard]] std::string_view whole() const { return text.substr(begin, end - begin); }
  [[nodiscard]] std::string_view word() const { return text.substr(word_begin, word_end - word_begin); }
  [[nodiscard]] std::string_view head() const { return text.substr(begin, word_begin - begin); }
  [[nodiscard]] std::string_view tail() const { return text.substr(word_end, end - word_end); }
  /// Whether it is an option of a command: "--password", "-token".
  [[nodiscard]] bool IsOption() const { return text[begin] == '-'; }
  /// Whether a quote stands before it, in any spelling.
  [[nodiscard]] bool IsQuoted() const { return Is(before.meaning, kQuote); }
};

/// The name around a telling word, kNameReach bytes to each side at most.
/// @param word_begin  Offset of the word.
/// @param word_end    Offset behind it.
Name NameAround(std::string_view text, std::size_t word_begin, std::size_t word_end);

/// What parts a name from its value.
struct Separator {
  std::size_t value = 0;   ///< Where the value begins.
  std::size_t behind = 0;  ///< Where the sign ends.
  char sign = '\0';        ///< '=' or ':'; '\0' where there is none but blanks.
  bool quoted = false;     ///< The name is quoted, as in JSON.
  std::string_view coded;  ///< The sign in another spelling, as "%3D"; else empty.
};

/// What stands behind the name and makes what follows its value: "=", ": ", "\":", ":=", "=>", "%3D"; nothing where a
/// sentence goes on.
std::optional<Separator> FindSeparator(const Name& name);

/// Offset behind the quotes and brackets that end a name; its own end where there are none.
/// @param quoted  Set when there is a quote.
std::size_t SkipClosers(const Name& name, bool& quoted);

/// Whether the name is the first thing in its line, as in a configuration file. "export" and its likes don't count.
bool BeginsLine(const Name& name);

/// Blanks before the name in its line, a list's "- " counted as such; npos where anything else stands there.
std::size_t ColumnOf(const Name& name);

/// Whether the word stands for itself in the name: "db_psk" and "dbPsk", not "upskill". Digits may follow it.
bool IsWholeWord(const Name& name);

/// Whether the name begins a line below a head such as "[wifi-security]".
bool IsInTellingSection(const Name& name);

/// Whether the word ends the name; digits may follow it.
bool EndsName(const Name& name);

/// Whether the name says that its value is no secret: "token_type", "max_tokens", "NOPASSWD".
bool IsHarmlessName(const Name& name);

/// How much a name that holds "key" tells.
enum class KeyName {
  kNoSecret,  ///< "public_key", "key_id", "key".
  kPerhaps,   ///< "stripe_key": a secret if it looks like one.
  kSecret,    ///< "api_key".
};
/// Judges a name whose telling word is "key". Other names are not to be asked about.
KeyName KindOfKeyName(const Name& name);

}  // namespace TARVO::SupportForm
