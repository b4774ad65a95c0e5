#include "text_look.h"

#include <array>

namespace TARVO::SupportForm {
namespace {

/// What stands before the numbers of a terminal's colour.
constexpr std::array<std::string_view, 8> kColourBegins = {"\x1b[",  "^[[",      "#033[", "\\033[",
                                                           "\\x1b[", "\\u001b[", "\\e[",  "\\x1B["};

struct Entity {
  std::string_view text;
  char meaning;
};
constexpr std::array<Entity, 16> kEntities = {{{"&quot;", '"'},
                                               {"&#34;", '"'},
                                               {"&#034;", '"'},
                                               {"&#x22;", '"'},
                                               {"&apos;", '\''},
                                               {"&#39;", '\''},
                                               {"&#039;", '\''},
                                               {"&#x27;", '\''},
                                               {"&lt;", '<'},
                                               {"&gt;", '>'},
                                               {"&amp;", '&'},
                                               {"&#61;", '='},
                                               {"&#x3d;", '='},
                                               {"&#x3D;", '='},
                                               {"&#58;", ':'},
                                               {"&equals;", '='}}};

int HexDigit(char byte) {
  if (Is(byte, kDigit)) return byte - '0';
  const char lower = ToLower(byte);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// The byte that two hexadecimal digits mean; 0 where none stand.
char HexByte(std::string_view text, std::size_t at) {
  const int high = HexDigit(At(text, at));
  const int low = HexDigit(At(text, at + 1));
  return high < 0 || low < 0 ? '\0' : static_cast<char>(high * 16 + low);
}

bool IsPunctuation(char byte) { return byte > ' ' && !Is(byte, kAlnum | kHigh); }

Sign EscapedSign(std::string_view text, std::size_t at) {
  const std::size_t level = CountBackslashes(text, at);
  const char byte = At(text, at + level);
  if (Is(byte, kQuote)) return {byte, level + 1, level, false};
  const bool unicode = byte == 'u' && At(text, at + level + 1) == '0' && At(text, at + level + 2) == '0';
  const std::size_t digits = at + level + (unicode ? 3 : 1);
  const char meaning = unicode || byte == 'x' ? HexByte(text, digits) : '\0';
  if (IsPunctuation(meaning)) return {meaning, digits + 2 - at, 0, true};
  return {'\\', 1, 0, false};
}

Sign PercentSign(std::string_view text, std::size_t at) {
  std::size_t digits = at + 1;
  while (digits < at + 5 && From(text, digits, 2) == "25") digits += 2;  // Encoded again.
  const char meaning = HexByte(text, digits);
  if (IsPunctuation(meaning)) return {meaning, digits + 2 - at, 0, true};
  return {'%', 1, 0, false};
}

}  // namespace

std::size_t SkipColourThere(std::string_view text, std::size_t at) {
  look_cost += 20;
  for (const std::string_view begin : kColourBegins) {
    if (From(text, at, begin.size()) != begin) continue;
    std::size_t end = at + begin.size();
    while (end < at + 24 && (Is(At(text, end), kDigit) || At(text, end) == ';')) ++end;
    if (Contains("mK", At(text, end))) return end + 1;
  }
  return at;
}

std::size_t SkipColourBack(std::string_view text, std::size_t at) {
  if (!Contains("mK", Before(text, at))) return at;
  std::size_t numbers = at - 1;
  while (numbers > 0 && numbers + 24 > at && (Is(text[numbers - 1], kDigit) || text[numbers - 1] == ';')) {
    --numbers;
  }
  look_cost += 20;
  for (const std::string_view begin : kColourBegins) {
    if (EndsWith(text.substr(0, numbers), begin)) return numbers - begin.size();
  }
  return at;
}

std::size_t SkipBlanksAndColours(std::string_view text, std::size_t at) {
  const std::size_t limit = at + kBlankReach;
  while (at < limit) {
    // Columns are far apart; many looks at one word skip the same blanks.
    static constexpr std::string_view kColumn = "                ";
    while (at + kColumn.size() <= limit && text.compare(at, kColumn.size(), kColumn) == 0) {
      at += kColumn.size();
    }
    const std::size_t word = SkipForward(text, at, kBlank, limit - at);
    const std::size_t next = SkipColour(text, word);
    at = word;
    if (next == word) break;
    at = next;
  }
  return at;
}

std::size_t SkipBlanksAndLines(std::string_view text, std::size_t at) {
  const std::size_t limit = std::min(at + kBlankReach, text.size());
  while (at < limit) {
    const std::size_t next = Is(text[at], kBlank | kLineEnd) ? at + 1 : SkipColour(text, at);
    if (next == at) break;
    at = next;
  }
  return at;
}

std::size_t SkipBlanksAndColoursBack(std::string_view text, std::size_t at) {
  const std::size_t limit = at - std::min(at, kBlankReach);
  while (at > limit) {
    const std::size_t next = Is(text[at - 1], kBlank) ? at - 1 : SkipColourBack(text, at);
    if (next == at) break;
    at = next;
  }
  return at;
}

std::size_t CountBackslashes(std::string_view text, std::size_t at) {
  std::size_t count = 0;
  while (count < kEscapeReach && At(text, at + count) == '\\') ++count;
  return count;
}

std::string_view WordAt(std::string_view text, std::size_t at, std::size_t most) {
  std::size_t end = at;
  while (end < text.size() && end - at < most && !Is(text[end], kBlank | kLineEnd)) ++end;
  look_cost += 2 + (end - at);
  return From(text, at, end - at);
}

std::string_view RestOfLine(std::string_view text, std::size_t at, std::size_t most) {
  look_cost += 10;
  const std::string_view rest = From(text, at, most);
  const std::string_view line = rest.substr(0, rest.find('\n'));
  return line.substr(0, line.find('\r'));
}

std::string_view LineBefore(std::string_view text, std::size_t at, std::size_t most) {
  const std::size_t limit = at - std::min(at, most);
  std::size_t begin = at;
  while (begin > limit && !Is(text[begin - 1], kLineEnd)) --begin;
  look_cost += 2 + (at - begin) / 2;
  return text.substr(begin, at - begin);
}

Sign CodedSignAt(std::string_view text, std::size_t at) {
  look_cost += 10;
  const char byte = At(text, at);
  switch (byte) {
    case '\\':
      return EscapedSign(text, at);
    case '%':
      return PercentSign(text, at);
    case '&':
      for (const Entity& entity : kEntities) {
        if (From(text, at, entity.text.size()) == entity.text) {
          return {entity.meaning, entity.text.size(), 0, true};
        }
      }
      return {byte, 1, 0, false};
    case '\xef':  // Of full width: ':' and '='.
      if (From(text, at, 3) == "\uff1a") return {':', 3, 0, true};
      if (From(text, at, 3) == "\uff1d") return {'=', 3, 0, true};
      return {byte, 1, 0, false};
    default:
      return {byte, 1, 0, false};
  }
}

Sign SignBefore(std::string_view text, std::size_t at) {
  look_cost += 5;
  const char byte = Before(text, at);
  if (Is(byte, kQuote)) {
    const std::size_t quote = at - 1;
    std::size_t escape = quote;
    while (escape > 0 && quote - escape < kEscapeReach && text[escape - 1] == '\\') --escape;
    return {byte, at - escape, quote - escape, false};
  }
  for (std::size_t size = 2; size <= 8 && size <= at && (Is(byte, kAlnum) || byte == ';'); ++size) {
    if (!Contains("&%\\", text[at - size])) continue;
    const Sign sign = SignAt(text, at - size);
    if (sign.coded && sign.size == size) return sign;
  }
  return {byte, 1, 0, false};
}

}  // namespace TARVO::SupportForm
