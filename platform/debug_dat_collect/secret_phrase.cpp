#include "secret_phrase.h"

#include <algorithm>
#include <array>
#include <optional>

#include "secret_value.h"
#include "word_set.h"

namespace TARVO::SupportForm {
namespace {

constexpr std::size_t kTagReach = 256;       ///< Bytes of an element's beginning.
constexpr std::size_t kElementReach = 1024;  ///< Bytes of an element's text.
constexpr std::size_t kPairReach = 96;       ///< Bytes between a name that is a value and the word "value".
constexpr std::size_t kValueReach = 256;     ///< Bytes of a value that are looked at to judge it.
constexpr std::size_t kSentenceReach = 128;  ///< Bytes of a sentence that is a name.
constexpr std::size_t kWordCount = 10;       ///< Words of a sentence between a name and its value.

std::string Coded(std::string_view sign, char closing) {
  std::string coded(sign);
  if (coded == "&gt;") return "&lt;";
  if (!coded.empty() && closing == '<') coded.back() = Is(coded.back(), kUpper) ? 'C' : 'c';
  return coded;
}

/// The text of an XML element, behind its name, namespace and attributes.
std::optional<Secret> FindElementText(const Name& name) {
  const std::string_view text = name.text;
  Sign open = name.before;
  if (open.meaning == ':') {
    const std::size_t space = SkipBack(text, name.start - 1, kNameByte, 64);
    open = SignBefore(text, space);
  }
  if (open.meaning != '<') return std::nullopt;
  const Sign behind = SignAt(text, name.end);
  if (open.coded) {
    if (behind.meaning != '>' || !behind.coded) return std::nullopt;
    const std::string_view close = text.substr(name.end, behind.size);
    return Secret{name.end + behind.size, SecretForm::kDelimited, 0, '\0', 0, Coded(close, '<')};
  }
  const std::size_t tag_end = From(text, name.end, kTagReach).find('>');
  if ((behind.meaning != '>' && !Is(behind.meaning, kBlank | kLineEnd)) || tag_end == npos) {
    return std::nullopt;
  }
  const std::size_t tag = name.end + tag_end;
  if (Before(text, tag) == '/') return std::nullopt;
  std::size_t at = SkipForward(text, tag + 1, kBlank | kLineEnd, kBlankReach);
  if (Is(At(text, at), kLineEnd) || IsPlaceholder(text, at)) return std::nullopt;
  // "--token <token>  what it is" is no element.
  const std::string_view rest = From(text, at, kElementReach);
  const std::size_t next = rest.find('<');
  const bool closed = next != npos && (At(rest, next + 1) == '/' || (next == 0 && At(rest, 1) == '!'));
  if (!closed && (At(text, tag + 1) == ' ' || next != npos || At(text, tag + 1) == '@')) return std::nullopt;
  if (IsOutcome(rest.substr(0, next))) return std::nullopt;
  static constexpr std::string_view kCdata = "<![CDATA[";
  if (From(text, at, kCdata.size()) == kCdata) {
    return Secret{at + kCdata.size(), SecretForm::kDelimitedLines, 0, '\0', 0, "]]>"};
  }
  return Secret{at, SecretForm::kElement};
}

/// The argument behind an option in a list: ["--password", "abc"].
std::optional<Secret> FindListedArgument(const Name& name) {
  const std::string_view text = name.text;
  if (!name.IsOption() || !name.IsQuoted()) return std::nullopt;
  const Sign close = SignAt(text, name.end);
  // Of an audit record: a1="--password" a2="abc".
  const bool record = At(text, name.end + close.size) == ' ' && At(text, name.end + close.size + 1) == 'a' &&
                      Is(At(text, name.end + close.size + 2), kDigit);
  if (close.meaning != name.before.meaning || (At(text, name.end + close.size) != ',' && !record)) {
    return std::nullopt;
  }
  std::size_t at = SkipBlanksAndLines(text, name.end + close.size + 1);
  if (record) at = SkipForward(text, at + 1, kDigit, 3) + 1;
  const Sign open = SignAt(text, at);
  if (open.meaning != name.before.meaning || open.level != name.before.level) return std::nullopt;
  return FindQuoted(text, at);
}

/// Whether the word is an option's argument in a help text: "--password PASSWORD".
bool IsMetaName(std::string_view word) {
  while (!word.empty() && !Is(word.back(), kAlnum)) word.remove_suffix(1);
  const bool capitals =
      std::all_of(word.begin(), word.end(), [](char byte) { return Is(byte, kUpper | kDash); });
  return capitals && word.size() < 24;
}

/// The argument of an option: "--password abc".
std::optional<Secret> FindOptionArgument(const Name& name) {
  const std::string_view text = name.text;
  const std::size_t at = SkipBlanks(text, name.end);
  if (!name.IsOption() || at == name.end || Is(At(text, at), kLineEnd) || Contains("-|&;)]", At(text, at))) {
    return std::nullopt;
  }
  if (At(text, at) == '\\' && Is(At(text, at + 1), kLineEnd)) return std::nullopt;
  const std::string_view word = WordAt(text, at, kValueReach);
  // A help text has its explanation behind blanks.
  const bool explained = at > name.end + 1 || At(text, name.end) == '\t';
  if (explained || IsMetaName(word) || IsProse(word)) return std::nullopt;
  return FindItem(text, at);
}

// ---- A name that is a value itself: {"name": "DB_PASSWORD", "value": "abc"} ----

bool IsValueWord(std::string_view word) {
  static const WordSet<64> words = {"value",          "val",         "default",      "stringvalue", "content",
                                    "parametervalue", "optionvalue", "defaultvalue", "data",        "v",
                                    "string_value",   "new",         "newvalue",     "new_value"};
  return words.Has(word);
}

/// The value behind the word "value" that begins at `at`.
std::optional<Secret> FindMemberValue(std::string_view text, std::size_t at) {
  const Sign quote = SignAt(text, at);
  const bool quoted = Is(quote.meaning, kQuote);
  const std::size_t begin = at + (quoted ? quote.size : 0);
  std::size_t end = SkipForward(text, begin, kIdentifierByte, 24);
  if (!IsValueWord(From(text, begin, end - begin))) return std::nullopt;
  if (quoted) end += SignAt(text, end).size;
  end = SkipBlanks(text, end);
  const Sign sign = SignAt(text, end);
  if (sign.meaning != ':' && sign.meaning != '=') return std::nullopt;
  const std::size_t value = SkipBlanks(text, end + sign.size + (At(text, end + sign.size) == '>' ? 1 : 0));
  if (IsQuotedAt(text, value)) return FindQuoted(text, value);
  if (IsPlaceholder(text, value) || Contains("{[,}\r\n", At(text, value))) return std::nullopt;
  if (quoted) return Secret{value, SecretForm::kScalar};
  const bool in_line = At(text, at) != '\0' && Contains(",{", Before(text, SkipBlanksBack(text, at)));
  return Secret{value, in_line ? SecretForm::kWord : SecretForm::kLine, 0, in_line ? ',' : '\0'};
}

/// The text of the element that begins at `at`: <value>abc</value>.
/// @param nested  It may hold the element with the text: <value><string>abc</string></value>.
std::optional<Secret> FindNextElement(std::string_view text, std::size_t at, bool nested = true) {
  static const WordSet<64> words = {"value", "string", "val", "data", "text", "password"};
  if (At(text, at) != '<') return std::nullopt;
  const std::size_t end = SkipForward(text, at + 1, kNameByte, 24);
  const std::string_view element = From(text, at + 1, end - at - 1);
  const std::size_t close = end + From(text, end, kPairReach).find('>');
  if (At(text, close) != '>' || Before(text, close) == '/') return std::nullopt;
  if (nested && At(text, close + 1) == '<') return FindNextElement(text, close + 1, false);
  const bool value = EndsWith(From(text, at, close - at), "value\"");  // <stringProp name="Argument.value">
  if ((!words.Has(element.substr(element.rfind(':') + 1)) && !value) || IsPlaceholder(text, close + 1)) {
    return std::nullopt;
  }
  return Secret{close + 1, SecretForm::kElement};
}

/// Whether the attribute that the name is the value of refers to something else:
/// <label for="password">Password</label>.
bool IsReferring(const Name& name) {
  static const WordSet<64> words = {"for",          "class", "type",  "href", "htmlfor",
                                    "autocomplete", "rel",   "style", "src"};
  const std::size_t sign = SkipBlanksBack(name.text, name.start);
  const std::size_t end = sign > 0 ? sign - 1 : 0;
  const std::size_t begin = SkipBack(name.text, end, kNameByte, 24);
  return words.Has(name.text.substr(begin, end - begin));
}

/// Offset behind attributes or members between a name and its value; each has a name and a value in quotes.
std::size_t SkipMember(std::string_view text, std::size_t at, std::size_t limit) {
  for (; at < limit; ++at) {
    ++look_cost;
    const char byte = At(text, at);
    if (byte == ',' || byte == ' ') return at + 1;
    if (byte == '>' || byte == '}' || byte == '{' || byte == '<' || byte == '\n') return npos;
  }
  return npos;
}

std::optional<Secret> FindPair(const Name& name) {
  const std::string_view text = name.text;
  // The name is a value: behind '=' or ':', or all of an element, or an item of a list.
  const std::size_t before = SkipBlanksBack(text, name.start);
  const char sign = Before(text, before);
  const bool element = name.before.meaning == '>';
  if (!Contains("=:", sign) && !element && !name.IsQuoted()) return std::nullopt;
  bool quoted = false;
  std::size_t at = SkipClosers(name, quoted);
  const std::size_t limit = at + kPairReach;
  if (element || At(text, at) == '>') {
    // <key>Password</key> <string>abc</string>, <property name="password">abc</property>
    if (!element) {
      const std::size_t value = SkipForward(text, at + 1, kBlank | kLineEnd, kBlankReach);
      if (!Contains("=", sign) || Is(At(text, value), kLineEnd) || IsReferring(name)) return std::nullopt;
      if (IsPlaceholder(text, value)) return std::nullopt;
      if (At(text, value) == '<') return FindNextElement(text, value);
      return Secret{value, SecretForm::kElement};
    }
    const std::size_t close = From(text, at, kPairReach).find('>');
    if (At(text, at) != '<' || At(text, at + 1) != '/' || close == npos) return std::nullopt;
    return FindNextElement(text, SkipBlanksAndLines(text, at + close + 1));
  }
  if (!Contains("=:", sign) && !StartsWith(RestOfLine(text, at, 8), " {")) return std::nullopt;
  if (sign == '=' && Contains("&;?", At(text, at))) return std::nullopt;
  for (unsigned members = 0; members < 3; ++members) {
    while (at < limit && (Is(At(text, at), kBlank | kLineEnd) || Contains(",;{", At(text, at)))) ++at;
    if (at >= limit || at >= text.size()) return std::nullopt;
    if (std::optional<Secret> value = FindMemberValue(text, at)) return value;
    at = SkipMember(text, at, limit);
    if (at == npos) return std::nullopt;
  }
  return std::nullopt;
}

/// A secret before its name: {"value": "abc", "name": "DB_PASSWORD"}, <param value="abc" name="password"/>.
std::optional<Secret> FindPairBefore(const Name& name) {
  const std::string_view text = name.text;
  if (!name.IsQuoted() || !Contains("=:", Before(name.text, SkipBlanksBack(name.text, name.start)))) {
    return std::nullopt;
  }
  const std::size_t from = name.start - std::min(name.start, kPairReach);
  const std::string_view head = text.substr(from, name.start - from);
  std::size_t item = head.size();
  while (item > 0 && !Contains("{<\n", head[item - 1])) --item;
  look_cost += 20 + (head.size() - item);
  for (const std::string_view word : {"value", "Value"}) {
    const std::size_t value = head.substr(item).find(word);
    if (value == npos) continue;
    std::size_t at = from + item + value + word.size();
    if (Is(At(text, at), kQuote)) ++at;
    at = SkipBlanks(text, at);
    if (!Contains("=:", At(text, at))) continue;
    at = SkipBlanks(text, at + 1);
    const char quote = At(text, at);
    if (!Is(quote, kQuote)) continue;
    const std::size_t end = ClosingQuote(text, at + 1, quote, kPairReach);
    if (end == npos || end >= name.start || IsPlaceholder(text, at + 1)) continue;
    // Only "name" stands between.
    const std::string_view between = text.substr(end + 1, name.start - end - 1);
    if (between.size() > 24 || FirstOf(between, "nNkK") == npos) continue;
    return Secret{at + 1, SecretForm::kFixed, end};
  }
  return std::nullopt;
}

/// Whether the name is made of more than its telling word, as "requirepass" and "auth_pass" are.
bool IsCompound(const Name& name) {
  const std::string_view head = name.head();
  return std::any_of(head.begin(), head.end(), [](char byte) { return Is(byte, kAlnum); });
}

/// The next string of what PHP writes: s:8:"password";s:3:"abc";
std::optional<Secret> FindSerialised(const Name& name) {
  const std::string_view text = name.text;
  const std::size_t at = name.end + SignAt(text, name.end).size;
  if (!name.IsQuoted() || From(text, at, 3) != ";s:") return std::nullopt;
  const std::size_t end = SkipForward(text, at + 3, kDigit, 6);
  if (end == at + 3 || At(text, end) != ':') return std::nullopt;
  return FindQuoted(text, end + 1);
}

/// The next cell of a table: | smtp_password | abc |
std::optional<Secret> FindCell(const Name& name) {
  const std::string_view text = name.text;
  const std::size_t bar = SkipBlanks(text, name.end);
  if (At(text, bar) != '|' || bar == name.end || name.IsQuoted()) return std::nullopt;
  if (!Contains("|", Before(text, SkipBlanksBack(text, name.start))) && !BeginsLine(name)) {
    return std::nullopt;
  }
  const std::size_t at = SkipBlanks(text, bar + 1);
  const std::string_view rest = RestOfLine(text, at, kValueReach);
  const std::size_t next = rest.find('|');
  const std::size_t end = SkipBlanksBack(text, at + std::min(next, rest.size()));
  if (end <= at || IsPlaceholder(text, at)) return std::nullopt;
  const std::string_view value = text.substr(at, end - at);
  const std::string_view first = value.substr(0, value.find(' '));
  // The row of a table's head names columns.
  const std::string_view below = From(text, at + RestOfLine(text, at, kTagReach).size(), 4);
  if (Holds(below, "--") || Holds(below, "+-")) return std::nullopt;
  const bool words = IsProse(first) || IsOutcome(first) || FirstOf(first, "_(") != npos;
  return words ? std::nullopt : std::optional<Secret>({at, SecretForm::kFixed, end});
}

// ---- Calls ----

/// Whether the last bracket before is a round one: of a row of values, not of a list of names.
bool IsInBrackets(std::string_view text, std::size_t at) {
  const std::size_t from = at - std::min(at, kPairReach);
  const std::string_view before = text.substr(from, at - from);
  const std::size_t open = LastOf(before, "([{");
  return open != npos && before[open] == '(';
}

/// Whether ", 'x']" stands there: two strings in a list are a name and its value.
bool IsPairOfStrings(std::string_view text, std::size_t at) {
  const std::size_t item = SkipBlanks(text, at + 1);
  if (At(text, at) != ',' || !Is(At(text, item), kQuote)) return false;
  const std::size_t close = ClosingQuote(text, item + 1, At(text, item), kValueReach);
  return close != npos && At(text, close + 1) == ']';
}

/// The strings of a call: setPassword("x"), define('DB_PASSWORD', 'x'), {password, "x"}.
bool FindCall(const Name& name, std::vector<Secret>& found) {
  const std::string_view text = name.text;
  std::size_t at = name.end;
  if (At(text, at) == '(') {
    at = SkipBlanks(text, at + 1);
  } else {
    bool quoted = false;
    at = SkipClosers(name, quoted);
    const char before = quoted ? Before(text, SkipBlanksBack(text, name.start)) : name.before.meaning;
    // VALUES (1, 'smtp_password', 'x')
    const bool telling = IsCompound(name) || StartsWithWord(name.word(), "passw");
    const bool row =
        quoted && ((before == ',' && telling && IsInBrackets(text, name.start)) ||
                   (before == '[' && IsCompound(name) && EndsName(name) && IsPairOfStrings(text, at)));
    const bool opened = Contains("({", before) || row;
    at = SkipBlanks(text, at);
    const bool dotted = At(text, at) == '.' && At(text, at + 1) == ' ';
    if (!opened || (At(text, at) != ',' && !dotted)) return false;
    at = SkipBlanks(text, at + 1);
  }
  if (!IsQuotedAt(text, at) || IsSameWord(name.word(), "credential")) return false;
  const std::optional<Secret> secret = FindQuoted(text, at);
  if (secret) found.push_back(*secret);
  // setPassword("bob", "x")
  const std::size_t close = ClosingQuote(text, at + 1, At(text, at), kValueReach);
  if (secret && name.whole().size() > name.word().size() && At(text, name.end) == '(' && close != npos &&
      At(text, close + 1) == ',') {
    std::size_t next = SkipBlanks(text, close + 2);
    const std::size_t second = ClosingQuote(text, next + 1, At(text, next), kValueReach);
    if (IsQuotedAt(text, next) && second != npos && At(text, second + 1) == ',' &&
        IsQuotedAt(text, SkipBlanks(text, second + 2))) {
      next = SkipBlanks(text, second + 2);
    }
    if (const std::optional<Secret> other = FindQuoted(text, next)) found.push_back(*other);
  }
  return true;
}

// ---- Statements: a name, a blank, a value ----

/// Words between a name and its value that tell how it is written: "password 7 0822455D0A16".
bool IsValueKind(std::string_view word) {
  // A list, and therefore alike to others: see word_set.h.
  static const WordSet<256> words = {
      "0",           "4",          "5",          "6",          "7",         "8",
      "9",           "enc",        "encrypted",  "cipher",     "simple",    "irreversible-cipher",
      "plain",       "plaintext",  "ascii-text", "hashed",     "hash",      "hex",
      "ascii",       "plain-text", "clear",      "clear-text", "cleartext", "scrypt",
      "localized",   "--md5",      "md5",        "sha",        "sha256",    "sha512",
      "hexadecimal", "ntlm",       "reg_sz"};
  return words.Has(word);
}

/// Words before "NAME password VALUE": the owner of the password.
bool IsOwnerWord(std::string_view word) {
  static const WordSet<64> words = {"login",   "user", "username", "neighbor", "account",
                                    "machine", "peer", "uid",      "as"};
  return words.Has(word);
}

std::string_view WordBefore(std::string_view text, std::size_t at) {
  const std::size_t end = SkipBlanksBack(text, at);
  std::size_t begin = end;
  while (begin > 0 && end - begin < 48 && !Is(text[begin - 1], kBlank | kLineEnd)) --begin;
  return text.substr(begin, end - begin);
}

bool HasOwner(const Name& name) {
  const std::string_view owner = WordBefore(name.text, name.start);
  if (owner.empty()) return false;
  auto begin = static_cast<std::size_t>(owner.data() - name.text.data());
  if (IsSameWord(owner, "and") || IsSameWord(owner, "with") || owner == "/") {
    // "user bob and password abc"
    const std::string_view user = WordBefore(name.text, begin);
    if (user.empty()) return false;
    begin = static_cast<std::size_t>(user.data() - name.text.data());
  }
  return IsOwnerWord(WordBefore(name.text, begin));
}

/// The rest of a statement that is more than a word: "SetEnv DB_PASSWORD two words".
Secret RestOfStatement(const Name& name, std::size_t at) {
  return {at, SecretForm::kLine, 0, name.IsQuoted() ? name.before.meaning : '\0'};
}

/// Whether a statement ends behind the word: with the line, a ';' or a '}'.
bool EndsStatement(std::string_view text, std::size_t at, std::string_view word) {
  const std::size_t behind = SkipBlanks(text, at + word.size());
  const char next = At(text, behind);
  return Is(next, kLineEnd) || Contains("};#", next) || (!word.empty() && word.back() == ';');
}

std::optional<Secret> FindTypedValue(const Name& name, std::size_t at, std::string_view kind) {
  const std::size_t value = SkipBlanks(name.text, at + kind.size());
  const std::string_view word = WordAt(name.text, value, kValueReach);
  if (word.size() < 4 || IsProse(word) || Is(At(name.text, value), kLineEnd)) return std::nullopt;
  const bool digit = kind.size() == 1;
  const bool hashed =
      std::any_of(word.begin(), word.end(), [](char byte) { return Is(byte, kDigit) || byte == '$'; });
  if (digit && !hashed && !EndsStatement(name.text, value, word)) return std::nullopt;
  return FindItem(name.text, value);
}

/// Commands of boot loaders, shells and configuration: "setenv NAME VALUE".
bool IsSetter(std::string_view word) {
  static const WordSet<64> words = {"set",        "setenv", "fw_setenv", "env_set", "nvram_set", "confset",
                                    "config-set", "put",    "bl_setenv", "setx",    "setvar"};
  return words.Has(word);
}

/// Whether a word has letters and digits or signs.
bool LooksMixed(std::string_view word) {
  const auto has = [&](unsigned classes) {
    return std::any_of(word.begin(), word.end(), [&](char byte) { return Is(byte, classes); });
  };
  return has(kUpper | kLower) && (has(kDigit) || FirstOf(word, "!#$^*+?@%") != npos);
}

std::optional<Secret> FindStatement(const Name& name, Telling telling) {
  const std::string_view text = name.text;
  const std::size_t at = SkipBlanks(text, name.end);
  if (name.IsQuoted() || at == name.end || Is(At(text, at), kLineEnd)) return std::nullopt;
  const std::string_view word = WordAt(text, at, kValueReach);
  const bool in_path = Contains("/.", name.before.meaning);
  if (in_path && (IsSameWord(word, "password") || IsSameWord(word, "string"))) {
    // Debconf: "mysql-server/root_password password abc".
    return RestOfStatement(name, SkipBlanks(text, at + word.size()));
  }
  // npm: "config set //host/:_authToken abc"
  if (name.before.meaning == ':' && IsCompound(name) && !IsPlaceholder(text, at) && !IsProse(word)) {
    return Secret{at, SecretForm::kWord};
  }
  if (!Is(name.before.meaning, kBlank | kLineEnd) && !Contains("({;$", name.before.meaning)) {
    return std::nullopt;
  }
  const bool begins_line = BeginsLine(name);
  if (IsQuotedAt(text, at)) {
    std::optional<Secret> secret = FindQuoted(text, at);
    if (At(text, at + 1) == '/') return std::nullopt;  // proxy_pass "/api"
    if (telling == Telling::kPassword || IsCompound(name) || !secret) return secret;
    // "secret \"x\" not found" is a sentence, "secret \"x\";" a statement.
    const std::size_t close = ClosingQuote(text, secret->begin, secret->mark, kValueReach);
    const bool ends = close != npos && EndsStatement(text, close + 1, "");
    if (close != npos && Is(At(text, close + 1), kLineEnd) &&
        name.end - name.begin == name.word_end - name.word_begin && At(text, at) == '\'') {
      return secret;
    }
    return ends && (begins_line || Contains("{;", Before(text, SkipBlanksBack(text, name.start))))
               ? secret
               : std::nullopt;
  }
  if (From(text, at, 2) == "$$" && telling == Telling::kPassword) {
    return Secret{at + 2, SecretForm::kDelimited, 0, '\0', 0, "$$"};
  }
  const bool kind = IsValueKind(word);
  if (kind) {
    if (std::optional<Secret> typed = FindTypedValue(name, at, word)) return typed;
  }
  const std::size_t behind = SkipBlanks(text, at + word.size());
  const bool ends = EndsStatement(text, at, word);
  const bool likely = telling == Telling::kPassword ? LooksLikePassword(word) : LooksLikeKey(word);
  // Most words of sentences are told by this much.
  if (!begins_line && !ends && !likely && (telling != Telling::kPassword || !HasOwner(name))) {
    return std::nullopt;
  }
  const bool capitals =
      std::none_of(name.whole().begin(), name.whole().end(), [](char c) { return Is(c, kLower); });
  // "PASSWORD kibana_system = abc"
  if (capitals && begins_line && telling == Telling::kPassword && From(text, behind, 2) == "= ") {
    return RestOfStatement(name, SkipBlanks(text, behind + 1));
  }
  const std::string_view first = word.substr(0, FirstOf(word, ";,"));
  if (kind || IsProse(first) || IsOutcome(first) || IsPlaceholder(text, at) ||
      Contains("=:<|>&/(-,[{}])\"", word.front()) || Holds(word, "://")) {
    return std::nullopt;
  }
  if (std::all_of(word.begin(), word.end(), [](char byte) { return Is(byte, kDigit); }) &&
      telling == Telling::kOther) {
    return std::nullopt;
  }
  if (IsVersionNumber(word)) return std::nullopt;  // "password-hash v0.5.0"
  if (IsSetter(WordBefore(text, name.start)) && (telling == Telling::kPassword || IsCompound(name)) &&
      !name.IsOption()) {
    return RestOfStatement(name, at);
  }
  // "password bob abc", "auth-pass mymaster abc"
  const std::string_view second = WordAt(text, behind, kValueReach);
  if (begins_line && telling == Telling::kPassword && behind > at + word.size() && second.size() > 3 &&
      EndsStatement(text, behind, second) && LooksMixed(second) && !LooksMixed(word) && !capitals) {
    return Secret{behind, SecretForm::kWord, 0, ';'};
  }
  // A column of a table.
  if (at > name.end + 1 && !ends && !capitals) return std::nullopt;
  const bool with_prefix = begins_line && !Is(Before(text, SkipBlanksBack(text, name.start)), kLineEnd);
  const bool bare = !IsCompound(name);
  if (begins_line && !bare && (!with_prefix || capitals || ends)) return RestOfStatement(name, at);
  if (begins_line && ends) return Secret{at, SecretForm::kWord, 0, ';'};
  if (ends && Contains("{;", Before(text, SkipBlanksBack(text, name.start)))) {
    return Secret{at, SecretForm::kWord, 0, ';'};
  }
  if (telling == Telling::kPassword && HasOwner(name)) return Secret{at, SecretForm::kWord};
  return likely ? std::optional<Secret>({at, SecretForm::kWord}) : std::nullopt;
}

// ---- Sentences: "set password to 'x'", "The password for bob is: x" ----

bool IsFiller(std::string_view word) {
  static const WordSet<128> words = {"is",      "was",  "are",       "set",     "to",   "changed", "reset",
                                     "updated", "now",  "as",        "has",     "been", "be",      "will",
                                     "should",  "from", "generated", "created", "of"};
  return words.Has(word);
}

bool IsIntroducer(std::string_view word) {
  static const WordSet<64> words = {"is", "was", "to", "as", "be", "are", "from"};
  return words.Has(word);
}

std::optional<Secret> FindSentence(const Name& name, Telling telling) {
  const std::string_view text = name.text;
  if (name.IsQuoted()) return std::nullopt;
  std::size_t at = SkipBlanks(text, name.end);
  if (at == name.end) return std::nullopt;
  bool introduced = false;
  bool from = false;
  bool about = false;    // "for ...": any words may follow.
  bool changed = false;  // Names of other things are not changed to strings in quotes.
  for (std::size_t count = 0; count < kWordCount; ++count) {
    const std::string_view word = WordAt(text, at, kValueReach);
    if (word.empty()) return std::nullopt;
    if (introduced) {
      const bool likely = telling == Telling::kPassword ? LooksLikePassword(word) : LooksLikeKey(word);
      if (IsQuotedAt(text, at)) {
        std::optional<Secret> secret = FindQuoted(text, at);
        const bool key = secret && LooksLikeKey(WordAt(text, secret->begin, 17).substr(0, 16));
        return telling == Telling::kPassword || key || changed ? secret : std::nullopt;
      }
      if (!IsPlaceholder(text, at) && likely && !from && !IsFiller(word)) {
        return Secret{at, SecretForm::kWord};
      }
    }
    const bool colon = word.back() == ':' || word == "=";
    const std::string_view bare = colon ? word.substr(0, word.size() - 1) : word;
    const bool filler = bare.empty() || IsFiller(bare);
    about = about || IsSameWord(word, "for");
    if (!filler && !about) return std::nullopt;
    introduced = introduced || colon || IsIntroducer(bare);
    from = IsSameWord(bare, "from");
    changed = changed || IsSameWord(bare, "changed") || IsSameWord(bare, "set") || IsSameWord(bare, "reset");
    const std::size_t next = SkipBlanks(text, at + word.size());
    if (colon && IsSameWord(bare, "is") && telling == Telling::kPassword) {
      // "your new password is: abc"
      const std::string_view last = WordAt(text, next, kValueReach);
      if (EndsStatement(text, next, last) && !last.empty() && !IsProse(last) && !IsOutcome(last) &&
          !IsPlaceholder(text, next)) {
        return Secret{next, SecretForm::kWord};
      }
    }
    if (colon && about && !Is(At(text, next), kLineEnd)) {
      // "token for kibana: +ox4nt"
      const std::string_view value = WordAt(text, next, kValueReach);
      const bool likely = telling == Telling::kPassword ? LooksLikePassword(value) : LooksLikeKey(value);
      if (likely && !IsPlaceholder(text, next)) return Secret{next, SecretForm::kWord};
    }
    at = next;
  }
  return std::nullopt;
}

/// A name of JSON that is a sentence: "Password for bob (admin):": "abc".
std::optional<Secret> FindSentenceMember(const Name& name, Telling telling) {
  if (name.before.meaning != '"' || telling != Telling::kPassword) return std::nullopt;
  const std::size_t close = ClosingQuote(name.text, name.end, '"', kSentenceReach);
  if (close == npos || At(name.text, close + 1) != ':') return std::nullopt;
  return FindQuoted(name.text, SkipBlanks(name.text, close + 2));
}

enum class Sentence {
  kNone,   ///< Perhaps, but all other forms are to be looked for, too.
  kPlain,  ///< "the password was wrong": no form is met.
  kFor,    ///< "Failed password for bob": a sentence at most.
};

/// Whether the name stands in the middle of a sentence and a plain word behind it. Most words are told by this.
Sentence SentenceAround(const Name& name, Telling telling) {
  static constexpr std::size_t kPlainReach = 16;
  const std::string_view text = name.text;
  if (name.before.meaning != ' ' || name.before.coded || name.IsOption() || At(text, name.end) != ' ') {
    return Sentence::kNone;
  }
  const std::size_t at = name.end + 1;
  const std::size_t end = SkipForward(text, at, kUpper | kLower, kPlainReach);
  if (end == at) return Sentence::kNone;
  const std::string_view word = From(text, at, end - at);
  const bool goes_on = At(text, end) == ' ' && Is(At(text, end + 1), kAlnum);
  const bool ends = Is(At(text, end), kLineEnd) && (IsOutcome(word) || IsProse(word));
  if (!goes_on && !ends) return Sentence::kNone;
  if (IsFiller(word) || IsValueKind(word)) return Sentence::kNone;
  const bool is_value = Contains("=:", Before(text, SkipBlanksBack(text, name.start)));
  if ((is_value && !ends) || BeginsLine(name)) return Sentence::kNone;
  if (IsSetter(WordBefore(text, name.start))) return Sentence::kNone;
  if (telling == Telling::kPassword && HasOwner(name)) return Sentence::kNone;
  return IsSameWord(word, "for") ? Sentence::kFor : Sentence::kPlain;
}

/// The other value of a sentence: expected password "x" but got "y", password changed from 'x' to 'y'.
std::optional<Secret> FindOtherValue(std::string_view text, const Secret& secret) {
  static const WordSet<64> words = {"but",   "got",     "was", "received", "to",
                                    "found", "instead", "of",  "not",      "!="};
  if (secret.form != SecretForm::kQuoted || secret.level > 0) return std::nullopt;
  const std::size_t close = ClosingQuote(text, secret.begin, secret.mark, kValueReach);
  if (close == npos) return std::nullopt;
  std::size_t at = SkipBlanks(text, close + (At(text, close + 1) == ',' ? 2 : 1));
  for (unsigned count = 0; count < 4; ++count) {
    const std::string_view word = WordAt(text, at, 16);
    if (count > 0 && IsQuotedAt(text, at)) return FindQuoted(text, at);
    if (!words.Has(word)) return std::nullopt;
    at = SkipBlanks(text, at + word.size());
  }
  return std::nullopt;
}

}  // namespace

std::optional<Secret> FindInnerValue(const Name& name, const Separator& separator) {
  const std::string_view text = name.text;
  if (!separator.quoted || At(text, separator.value) != '{') return std::nullopt;
  std::size_t at = separator.value + 1;
  const std::size_t limit = at + kPairReach;
  for (unsigned members = 0; members < 3 && at < limit; ++members) {
    at = SkipBlanksAndLines(text, at);
    if (std::optional<Secret> value = FindMemberValue(text, at)) return value;
    at = SkipMember(text, at, limit);
    if (at == npos) return std::nullopt;
  }
  return std::nullopt;
}

void FindPhrase(const Name& name, Telling telling, std::vector<Secret>& found) {
  look_cost += 20;
  const Sentence sentence = SentenceAround(name, telling);
  if (sentence == Sentence::kPlain) return;
  const auto take = [&](const std::optional<Secret>& secret) {
    if (secret) found.push_back(*secret);
    return secret.has_value();
  };
  const auto take_both = [&](const std::optional<Secret>& secret) {
    if (secret) take(FindOtherValue(name.text, *secret));
    return take(secret);
  };
  if (sentence == Sentence::kFor) {
    take_both(FindSentence(name, telling));
    return;
  }
  look_cost += 150;
  if (name.before.meaning == '<' || name.before.meaning == ':') {
    if (take(FindElementText(name))) return;
  }
  if (take(FindListedArgument(name)) || FindCall(name, found)) return;
  if (name.IsOption()) {
    take(FindOptionArgument(name));
    return;
  }
  if (take(FindSerialised(name)) || take(FindCell(name))) return;
  if (take(FindPair(name)) || take(FindPairBefore(name))) return;
  if (take_both(FindStatement(name, telling)) || take(FindSentenceMember(name, telling))) return;
  take_both(FindSentence(name, telling));
}

}  // namespace TARVO::SupportForm
