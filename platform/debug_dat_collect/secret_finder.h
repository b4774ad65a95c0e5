/// The built-in redaction rules: which fixed words betray a secret, and where exactly it stands then.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "secret.h"
#include "secret_name.h"

namespace TARVO::SupportForm {

/// A fixed word to look for; its number is its place in FixedWords(). RedactionRules makes one scan of all of them.
struct FixedWord {
  std::string text;
  bool any_case = false;  ///< Upper and lower case letters are the same.
};

/// The words of the built-in rules. No word is the end of another as it is written.
[[nodiscard]] std::vector<FixedWord> FixedWords();

/// Bytes before and behind a fixed word that are looked at. The Redactor decides nothing closer to a block's end.
constexpr std::size_t kFinderReach = 4096;

/// Tells the secrets that fixed words betray, in one text. Remembers what it looked at, so that no byte is looked at
/// often: a text of nothing but such words costs as much for each byte, however long it is.
class SecretFinder {
 public:
  /// To be called for the words in the order of their ends.
  /// @param word      Its number.
  /// @param text      kFinderReach bytes before and behind the word, unless the whole text begins or ends there.
  /// @param hit       Offset behind the word.
  /// @param position  Offset of `text` in the whole text.
  /// @param found     Gets the secrets; some may lie before the word, or behind others' words.
  void Find(unsigned word, std::string_view text, std::size_t hit, std::uint64_t position,
            std::vector<Secret>& found);

 private:
  void FindNamed(unsigned word, std::string_view text, std::size_t begin, std::size_t hit,
                 std::uint64_t position, std::vector<Secret>& found);
  const Name& NameOf(std::string_view text, std::size_t begin, std::size_t hit, std::uint64_t position);
  void FindInEntry(std::string_view text, std::size_t mark, std::uint64_t position,
                   std::vector<Secret>& found);
  void FindInUrl(std::string_view text, std::size_t word, std::size_t at, std::uint64_t position,
                 std::vector<Secret>& found);
  std::size_t UrlEnd(std::string_view text, std::size_t at, std::uint64_t position);
  std::size_t NextAt(std::string_view text, std::size_t at, std::size_t end, std::uint64_t position);

  // Offsets in the whole text.
  Name name_;                         ///< The last name, with offsets in the text it was found in, ...
  std::uint64_t name_position_ = 0;   ///< ... which began here.
  bool has_name_ = false;             ///< There was a name.
  std::uint64_t names_until_ = 0;     ///< Names that end up to here are judged.
  std::uint64_t commands_until_ = 0;  ///< Command lines are looked through up to here.
  std::uint64_t entry_mark_ = 0;      ///< The last mark of an entry in a list of users.
  std::uint64_t url_until_ = 0;       ///< Up to here there are bytes of a URL only, ...
  bool url_ends_ = false;             ///< ... and none behind.
  std::uint64_t no_at_from_ = 0;      ///< From here ...
  std::uint64_t no_at_until_ = 0;     ///< ... up to here there is no '@'.
};

/// Whether the fixed word is "token", the name that TokenMask looks for.
[[nodiscard]] bool IsTokenWord(unsigned word);

/// The first or last line of a private key's text form.
struct KeyMarker {
  bool begins_key = false;  ///< "BEGIN"; otherwise "END".
  std::size_t begin = 0;    ///< Offset of its dashes.
  std::size_t end = 0;      ///< Offset behind its dashes.
};

/// Whether the fixed word belongs to key markers: FindKeyMarker() is to be asked then, not a SecretFinder.
[[nodiscard]] bool IsKeyMarkerWord(unsigned word);
/// The key marker whose fixed word ends at `hit`; nothing where the rest of it does not stand around.
[[nodiscard]] std::optional<KeyMarker> FindKeyMarker(std::string_view text, std::size_t hit);
/// The key marker whose last dashes begin at `dashes`, without a hit.
[[nodiscard]] std::optional<KeyMarker> FindKeyMarkerAt(std::string_view text, std::size_t dashes);

/// Whether bytes as of a key's base64 text stand there: at least 16 in a row.
[[nodiscard]] bool HasKeyMaterial(std::string_view text);

}  // namespace TARVO::SupportForm
