/// Looks at the bytes around a place in a text. Nothing here remembers anything or looks further than it says, so that
/// what a look costs is known. Each adds that to look_cost, by which a text that would cost too much is found out.
///
/// Used by the search for secrets, in the thread that writes the archive. `at` is an offset in `text`; what looks
/// forward may be asked at the text's end or beyond, where it finds the end of a line.
#pragma once

#include <cstddef>
#include <string_view>

#include "byte_class.h"
#include "look_cost.h"

namespace TARVO::SupportForm {

constexpr std::size_t kBlankReach = 256;  ///< Blanks and colours between name, sign and value.
constexpr std::size_t kEscapeReach = 32;  ///< Backslashes that escape one byte.

constexpr auto npos = std::string_view::npos;  ///< No offset in a text.

/// The byte at `at`, or a line end beyond the text.
inline char At(std::string_view text, std::size_t at) { return at < text.size() ? text[at] : '\n'; }
/// The byte before `at`; a line end at the text's beginning.
inline char Before(std::string_view text, std::size_t at) { return at > 0 ? text[at - 1] : '\n'; }
/// The part of the text from `at` on, empty beyond its end; at most `most` bytes.
inline std::string_view From(std::string_view text, std::size_t at, std::size_t most = npos) {
  return at < text.size() ? text.substr(at, most) : std::string_view();
}
/// Whether the byte is one of `bytes`: for sets that byte_class.h has no kind for.
inline bool Contains(std::string_view bytes, char byte) { return bytes.find(byte) != npos; }
/// The same of a literal, without a call.
template <std::size_t size>
constexpr bool Contains(const char (&bytes)[size], char byte) {
  for (std::size_t at = 0; at + 1 < size; ++at) {
    if (bytes[at] == byte) return true;
  }
  return false;
}
/// Whether the text begins so, in the same case, as all that follows where nothing else is said.
inline bool StartsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}
/// The same of the text's end.
inline bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}
/// Whether the literal stands at `at`. Its length is known when this is compiled, which makes it cheaper than a
/// compare.
template <std::size_t size>
bool StandsAt(std::string_view text, std::size_t at, const char (&literal)[size]) {
  for (std::size_t offset = 0; offset + 1 < size; ++offset) {
    if (At(text, at + offset) != literal[offset]) return false;
  }
  return true;
}
/// Whether `text` begins with the word, in any case of ASCII letters. It need not end there: "passw" is a beginning.
/// @param lower  The word in lower case.
inline bool StartsWithWord(std::string_view text, std::string_view lower) {
  look_cost += 2;
  if (text.size() < lower.size()) return false;
  for (std::size_t at = 0; at < lower.size(); ++at) {
    if (lower[at] != ToLower(text[at])) return false;
  }
  return true;
}
/// Whether the words are the same but for the case.
/// @param lower  The one to compare with, in lower case.
inline bool IsSameWord(std::string_view word, std::string_view lower) {
  return word.size() == lower.size() && StartsWithWord(word, lower);
}

/// Offset of the first byte that is one of `bytes`; npos where none is. Looks at all of `text`: give a part of it.
template <std::size_t size>
std::size_t FirstOf(std::string_view text, const char (&bytes)[size]) {
  std::size_t at = 0;
  while (at < text.size() && !Contains(bytes, text[at])) ++at;
  look_cost += 2 + at;
  return at < text.size() ? at : npos;
}
/// The same of the last one.
template <std::size_t size>
std::size_t LastOf(std::string_view text, const char (&bytes)[size]) {
  std::size_t end = text.size();
  while (end > 0 && !Contains(bytes, text[end - 1])) --end;
  look_cost += 2 + text.size() - end;
  return end > 0 ? end - 1 : npos;
}
/// Whether a literal is part of the text. Looks at all of it, as above.
inline bool Holds(std::string_view text, std::string_view literal) {
  look_cost += 4 + text.size();
  return text.find(literal) != npos;
}

/// Offset of the first byte at or behind `at` that is not of `classes`, `most` bytes further on at the latest.
/// @param classes  Of ByteClass, joined by '|'.
inline std::size_t SkipForward(std::string_view text, std::size_t at, unsigned classes,
                               std::size_t most = npos) {
  if (at >= text.size()) return at;
  const std::size_t limit = at + (most < text.size() - at ? most : text.size() - at);
  std::size_t end = at;
  while (end < limit && Is(text[end], classes)) ++end;
  look_cost += 2 + (end - at) / 2;
  return end;
}
/// The same backwards: offset of the first of the bytes before `at` that are all of `classes`.
inline std::size_t SkipBack(std::string_view text, std::size_t at, unsigned classes, std::size_t most) {
  const std::size_t limit = at - (most < at ? most : at);
  std::size_t begin = at;
  while (begin > limit && Is(text[begin - 1], classes)) --begin;
  look_cost += 2 + (at - begin) / 2;
  return begin;
}
/// Offset behind a terminal's colour that begins at `at`; `at` where none does. ESC may be written out, as loggers do.
std::size_t SkipColourThere(std::string_view text, std::size_t at);
/// The same, without a call where none can begin.
inline std::size_t SkipColour(std::string_view text, std::size_t at) {
  return Contains("\x1b^#\\", At(text, at)) ? SkipColourThere(text, at) : at;
}
/// Offset where a colour begins that ends at `at`; `at` where none does.
std::size_t SkipColourBack(std::string_view text, std::size_t at);
/// Offset behind blanks and a terminal's colours, kBlankReach bytes further on at the latest.
std::size_t SkipBlanksAndColours(std::string_view text, std::size_t at);
/// The same, without a call at the bytes that stand there most often.
inline std::size_t SkipBlanks(std::string_view text, std::size_t at) {
  return Is(At(text, at), kAlnum | kQuote | kLineEnd) ? at : SkipBlanksAndColours(text, at);
}
/// Offset behind blanks, colours and line ends.
std::size_t SkipBlanksAndLines(std::string_view text, std::size_t at);
/// Offset before the blanks and colours that end at `at`, kBlankReach bytes back at the furthest.
std::size_t SkipBlanksAndColoursBack(std::string_view text, std::size_t at);
/// The same, without a call behind a single blank. 'm' and 'K' end a colour.
inline std::size_t SkipBlanksBack(std::string_view text, std::size_t at) {
  const std::size_t word = Before(text, at) == ' ' ? at - 1 : at;
  const char byte = Before(text, word);
  return Is(byte, kBlank) || Contains("mK", byte) ? SkipBlanksAndColoursBack(text, at) : word;
}
/// Backslashes in a row from `at` on, at most kEscapeReach.
std::size_t CountBackslashes(std::string_view text, std::size_t at);
/// Whether a quote with `run` backslashes before it closes the string whose opening quote had `level`. Each level of
/// quoting turns n backslashes into 2n, and 2n + 1 before a quote; what exceeds the opening quote's are escaped
/// backslashes of the content, and these come in multiples of 2 (level + 1).
constexpr bool ClosesString(std::size_t run, std::size_t level) {
  return run >= level && (run - level) % (2 * (level + 1)) == 0;
}
/// The word up to a blank or line end, at most `most` bytes; empty where one of these stands at `at`.
std::string_view WordAt(std::string_view text, std::size_t at, std::size_t most);
/// The rest of the line from `at` on, without its end, at most `most` bytes.
std::string_view RestOfLine(std::string_view text, std::size_t at, std::size_t most);

/// The line's part before `at`, at most the `most` bytes next to it.
std::string_view LineBefore(std::string_view text, std::size_t at, std::size_t most);

/// A byte of punctuation, as it is, behind backslashes that escape a quote, or in another spelling: \u0022, \x22,
/// &quot;, &#34; and %22 all mean '"'.
struct Sign {
  char meaning = '\n';    ///< The byte that it stands for.
  std::size_t size = 1;   ///< Bytes of the text.
  std::size_t level = 0;  ///< Backslashes before a quote.
  bool coded = false;     ///< In another spelling.
};

/// The sign that begins at `at`, where a byte of kSpelled stands. Where that spells nothing it means itself.
Sign CodedSignAt(std::string_view text, std::size_t at);
/// The sign that begins at `at`, whatever stands there: any byte means itself at least.
inline Sign SignAt(std::string_view text, std::size_t at) {
  const char byte = At(text, at);
  return Is(byte, kSpelled) ? CodedSignAt(text, at) : Sign{byte, 1, 0, false};
}
/// The sign that ends at `at`, in the same spellings; a line end at the text's beginning.
Sign SignBefore(std::string_view text, std::size_t at);

}  // namespace TARVO::SupportForm
