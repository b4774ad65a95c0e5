#include "secret_value.h"

#include <algorithm>
#include <array>

#include "word_set.h"

namespace TARVO::SupportForm {
namespace {

constexpr std::size_t kPlaceholderReach = 128;  ///< Bytes of a placeholder.
constexpr std::size_t kExampleWords = 8;        ///< Words of an example.
constexpr std::size_t kWordReach = 256;         ///< Bytes of a value that are looked at to judge it.
constexpr std::size_t kNumericKeyReach = 512;   ///< Bytes of a key that is written as numbers.

// The lists of words look alike because they are lists: see word_set.h.

/// Values that tell only what became of a secret, as in "token: expired", or where names are looked up, as in
/// "passwd: files". Such a word is no secret.
const WordSet<512>& Outcomes() {
  static const WordSet<512> words = {"true",        "false",       "yes",        "no",
                                     "on",          "off",         "null",       "nil",
                                     "none",        "unset",       "set",        "empty",
                                     "undefined",   "missing",     "required",   "optional",
                                     "expired",     "invalid",     "valid",      "incorrect",
                                     "wrong",       "failed",      "failure",    "failing",
                                     "denied",      "rejected",    "accepted",   "revoked",
                                     "changed",     "unchanged",   "updated",    "not",
                                     "is",          "was",         "has",        "authentication",
                                     "session",     "account",     "auth",       "error",
                                     "unknown",     "files",       "compat",     "ok",
                                     "fail",        "success",     "successful", "verified",
                                     "disabled",    "enabled",     "present",    "absent",
                                     "created",     "deleted",     "removed",    "mismatch",
                                     "matched",     "match",       "hidden",     "redacted",
                                     "masked",      "default",     "n/a",        "na",
                                     "prompt",      "never",       "always",     "string",
                                     "str",         "boolean",     "bool",       "integer",
                                     "int",         "object",      "undef",      "systemd",
                                     "ldap",        "sss",         "nis",        "db",
                                     "opaque",      "cancelled",   "timeout",    "refused",
                                     "locked",      "unlocked",    "active",     "inactive",
                                     "supported",   "unsupported", "nonempty",   "non-empty",
                                     "encrypted",   "bcrypt",      "scrypt",     "argon2",
                                     "argon2id",    "sha256",      "sha512",     "md5",
                                     "crypt",       "plaintext",   "plain",      "scram-sha-256",
                                     "obtained",    "refreshed",   "received",   "passed",
                                     "skipped",     "loaded",      "found",      "expires",
                                     "granted",     "provided",    "preserve",   "ask",
                                     "all",         "on_create",   "amd64",      "arm64",
                                     "armhf",       "i386",        "any",        "write",
                                     "read",        "generate",    "0x0",        "opaque",
                                     "unspecified", "unavailable", "needed",     "disable",
                                     "enable"};
  return words;
}

/// Words of sentences and help texts about secrets.
// NOLINTNEXTLINE(readability-function-size): nothing but the words.
const WordSet<1024>& Prose() {
  static const WordSet<1024> words = {"a",
                                      "an",
                                      "the",
                                      "of",
                                      "for",
                                      "to",
                                      "in",
                                      "on",
                                      "at",
                                      "by",
                                      "with",
                                      "without",
                                      "from",
                                      "and",
                                      "or",
                                      "is",
                                      "are",
                                      "was",
                                      "were",
                                      "be",
                                      "been",
                                      "being",
                                      "has",
                                      "have",
                                      "had",
                                      "not",
                                      "no",
                                      "will",
                                      "would",
                                      "can",
                                      "cannot",
                                      "can't",
                                      "could",
                                      "may",
                                      "might",
                                      "must",
                                      "should",
                                      "shall",
                                      "do",
                                      "does",
                                      "don't",
                                      "did",
                                      "didn't",
                                      "doesn't",
                                      "if",
                                      "when",
                                      "while",
                                      "after",
                                      "before",
                                      "as",
                                      "that",
                                      "this",
                                      "these",
                                      "it",
                                      "its",
                                      "your",
                                      "you",
                                      "my",
                                      "our",
                                      "their",
                                      "his",
                                      "via",
                                      "using",
                                      "use",
                                      "used",
                                      "uses",
                                      "per",
                                      "than",
                                      "then",
                                      "too",
                                      "only",
                                      "also",
                                      "both",
                                      "either",
                                      "already",
                                      "still",
                                      "again",
                                      "now",
                                      "yet",
                                      "any",
                                      "all",
                                      "each",
                                      "new",
                                      "old",
                                      "current",
                                      "same",
                                      "other",
                                      "another",
                                      "password",
                                      "passwords",
                                      "passphrase",
                                      "passwd",
                                      "token",
                                      "tokens",
                                      "secret",
                                      "secrets",
                                      "credential",
                                      "credentials",
                                      "key",
                                      "keys",
                                      "user",
                                      "users",
                                      "username",
                                      "account",
                                      "accounts",
                                      "login",
                                      "logon",
                                      "auth",
                                      "authentication",
                                      "authorization",
                                      "authenticated",
                                      "session",
                                      "sessions",
                                      "server",
                                      "client",
                                      "service",
                                      "database",
                                      "file",
                                      "files",
                                      "store",
                                      "expiry",
                                      "expiration",
                                      "expired",
                                      "expires",
                                      "expire",
                                      "information",
                                      "info",
                                      "updated",
                                      "update",
                                      "changed",
                                      "change",
                                      "changes",
                                      "changing",
                                      "successfully",
                                      "unchanged",
                                      "failed",
                                      "failure",
                                      "fails",
                                      "fail",
                                      "failing",
                                      "error",
                                      "errors",
                                      "invalid",
                                      "valid",
                                      "incorrect",
                                      "wrong",
                                      "missing",
                                      "required",
                                      "requires",
                                      "require",
                                      "needed",
                                      "needs",
                                      "need",
                                      "mismatch",
                                      "match",
                                      "matches",
                                      "found",
                                      "given",
                                      "provided",
                                      "supplied",
                                      "specified",
                                      "configured",
                                      "allowed",
                                      "available",
                                      "accepted",
                                      "rejected",
                                      "denied",
                                      "set",
                                      "unset",
                                      "empty",
                                      "blank",
                                      "short",
                                      "long",
                                      "weak",
                                      "strong",
                                      "correct",
                                      "verified",
                                      "verification",
                                      "validation",
                                      "validated",
                                      "check",
                                      "checked",
                                      "reset",
                                      "prompt",
                                      "prompts",
                                      "entered",
                                      "enter",
                                      "retype",
                                      "re-enter",
                                      "type",
                                      "read",
                                      "reading",
                                      "written",
                                      "stored",
                                      "saved",
                                      "loaded",
                                      "loading",
                                      "created",
                                      "creating",
                                      "generated",
                                      "generating",
                                      "rotated",
                                      "rotating",
                                      "refresh",
                                      "refreshed",
                                      "refreshing",
                                      "renewed",
                                      "revoked",
                                      "issued",
                                      "received",
                                      "sent",
                                      "obtained",
                                      "requested",
                                      "request",
                                      "requests",
                                      "response",
                                      "accepts",
                                      "disabled",
                                      "enabled",
                                      "supported",
                                      "unsupported",
                                      "deprecated",
                                      "ignored",
                                      "ignoring",
                                      "insecure",
                                      "secure",
                                      "hash",
                                      "hashes",
                                      "hashed",
                                      "encrypted",
                                      "encryption",
                                      "length",
                                      "size",
                                      "characters",
                                      "bytes",
                                      "bits",
                                      "format",
                                      "policy",
                                      "based",
                                      "protected",
                                      "manager",
                                      "management",
                                      "helper",
                                      "attempt",
                                      "attempts",
                                      "try",
                                      "tries",
                                      "trying",
                                      "grace",
                                      "rotation",
                                      "lookup",
                                      "cache",
                                      "cached",
                                      "unable",
                                      "exists",
                                      "unknown",
                                      "null",
                                      "value",
                                      "values",
                                      "name",
                                      "names",
                                      "option",
                                      "options",
                                      "instead",
                                      "warning",
                                      "access",
                                      "granted",
                                      "due",
                                      "because",
                                      "since",
                                      "until",
                                      "locked",
                                      "private",
                                      "public",
                                      "shared",
                                      "api",
                                      "more",
                                      "least",
                                      "minutes",
                                      "seconds",
                                      "hours",
                                      "days",
                                      "successful",
                                      "success",
                                      "verifying",
                                      "checking",
                                      "accepting",
                                      "validating",
                                      "mounted",
                                      "referenced",
                                      "selected",
                                      "method",
                                      "mode",
                                      "plugin",
                                      "provider",
                                      "refused",
                                      "ok",
                                      "ready",
                                      "done",
                                      "complete",
                                      "completed",
                                      "aging",
                                      "age",
                                      "synced",
                                      "synchronized",
                                      "force",
                                      "string",
                                      "either,",
                                      "unexpected",
                                      "bad",
                                      "ask",
                                      "asked",
                                      "asking",
                                      "optional",
                                      "default",
                                      "max",
                                      "min",
                                      "count",
                                      "limit",
                                      "exceeded",
                                      "usage",
                                      "such",
                                      "directory",
                                      "message",
                                      "refreshing",
                                      "creating",
                                      "destroying",
                                      "modifying",
                                      "destroyed",
                                      "state",
                                      "encoded",
                                      "look",
                                      "looks",
                                      "like",
                                      "present",
                                      "input",
                                      "output",
                                      "example",
                                      "line",
                                      "argument",
                                      "field",
                                      "header",
                                      "url",
                                      "form",
                                      "page",
                                      "case",
                                      "sensitive"};
  return words;
}

/// What begins an expression that names a value elsewhere: "var.db_password", "os.environ[...]".
const WordSet<128>& References() {
  static const WordSet<128> words = {"var",
                                     "local",
                                     "data",
                                     "module",
                                     "os",
                                     "process",
                                     "self",
                                     "this",
                                     "env",
                                     "system",
                                     "settings",
                                     "config",
                                     "random_password",
                                     "random_string",
                                     "secrets",
                                     "each",
                                     "params",
                                     "props",
                                     "args",
                                     "opts",
                                     "options",
                                     "getpass",
                                     "getenv",
                                     "environ",
                                     "steps",
                                     "inputs",
                                     "vars"};
  return words;
}

/// Words that are the name of an algorithm or of a form, though they have digits.
/// What defaults in comments and documents say.
const WordSet<128>& Examples() {
  static const WordSet<128> words = {
      "my",     "your",    "here",       "example", "changeme",   "foobared", "blah",   "admin",
      "public", "pass",    "some",       "insert",  "put",        "replace",  "sample", "smtp",
      "test",   "testing", "testing123", "foo",     "bar",        "foobar",   "xxx",    "this",
      "change", "me",      "default",    "pw",      "mypassword", "mysecret", "mytoken"};
  return words;
}

const WordSet<128>& Technical() {
  static const WordSet<128> words = {"sha256",  "sha512",    "sha384",  "sha224",   "base64",  "base32",
                                     "argon2",  "argon2id",  "argon2i", "md5sum",   "aes256",  "aes128",
                                     "pbkdf2",  "oauth2",    "openid2", "x25519",   "ed25519", "rsa2048",
                                     "rsa4096", "utf8mb4",   "v1beta1", "v1alpha1", "http2",   "ipv4",
                                     "ipv6",    "sha256sum", "pkcs11",  "pkcs12",   "pkcs8",   "totp6"};
  return words;
}

std::string_view WithoutPunctuation(std::string_view word) {
  while (!word.empty() && Is(word.back(), kPunctuation) && !Contains("<\\", word.back())) {
    word.remove_suffix(1);
  }
  return word;
}

/// Whether a word that ends there is all of a value, perhaps with punctuation behind it.
/// @param in_list  The value is one of a JSON list or object.
bool EndsValue(std::string_view text, std::size_t end, bool in_list) {
  const std::size_t colour = SkipColour(text, end);
  const std::size_t behind = in_list ? colour : SkipForward(text, colour, kPunctuation, 16);
  return Is(At(text, behind), in_list ? kBlank | kLineEnd | kListEnd : kBlank | kLineEnd);
}

constexpr std::size_t StringSize(std::string_view text) { return text.size(); }

std::size_t LetterCount(std::string_view word) {
  return static_cast<std::size_t>(
      std::count_if(word.begin(), word.end(), [](char byte) { return Is(byte, kUpper | kLower); }));
}

std::size_t DigitCount(std::string_view word) {
  return static_cast<std::size_t>(
      std::count_if(word.begin(), word.end(), [](char byte) { return Is(byte, kDigit); }));
}

bool HasFolderOfSystem(std::string_view text, std::size_t at) {
  static constexpr std::array<std::string_view, 17> kFolders = {
      "/etc/",  "/var/", "/run/", "/usr/",  "/home/", "/opt/", "/root/", "/tmp/",    "/dev/",
      "/proc/", "/srv/", "/mnt/", "/path/", "./",     "../",   "file:/", "/secrets/"};
  if (!Contains("/.f", At(text, at))) return false;
  return std::any_of(kFolders.begin(), kFolders.end(),
                     [&](std::string_view folder) { return From(text, at, folder.size()) == folder; });
}

/// Offset behind what begins and ends with brackets; npos where none does within the line.
std::size_t BehindBrackets(std::string_view text, std::size_t at, std::string_view open,
                           std::string_view close) {
  if (From(text, at, open.size()) != open) return npos;
  const std::size_t limit = std::min(text.size(), at + kPlaceholderReach);
  for (std::size_t end = at + open.size(); end < limit && !Is(text[end], kLineEnd); ++end) {
    ++look_cost;
    if (text[end] == close.front() && From(text, end, close.size()) == close) return end + close.size();
  }
  return npos;
}

/// Offset behind "${NAME}"; npos where it has a default, which may be a secret.
std::size_t BehindShellBraces(std::string_view text, std::size_t at) {
  const std::size_t end = BehindBrackets(text, at, At(text, at) == '#' ? "#{" : "${", "}");
  if (At(text, at) == '#') {
    return end != npos && FirstOf(text.substr(at, end - at), "'|\"") == npos ? end : npos;
  }
  if (end == npos) return npos;
  const std::string_view inside = text.substr(at + 2, end - at - 3);
  const std::size_t name = SkipForward(inside, 0, kNameByte);
  const std::string_view behind = inside.substr(name);
  const bool has_default = behind.size() > 2 && (StartsWith(behind, ":-") || StartsWith(behind, ":="));
  const bool has_spring_default = behind.size() > 1 && behind[0] == ':' && (Is(behind[1], kAlnum));
  const std::size_t dash = inside.find('-');
  const bool has_plain_default = dash != npos && dash > 0 && dash + 1 < inside.size() &&
                                 !Contains(inside, '.') && Is(inside[dash - 1], kUpper) &&
                                 !Contains(behind, ':');
  return has_default || (has_spring_default && !Is(behind[1], kUpper)) || has_plain_default ? npos : end;
}

/// Offset behind "$NAME" or "$name", where the name is that of a variable: all of one case.
std::size_t BehindVariable(std::string_view text, std::size_t at) {
  const std::size_t begin = at + (At(text, at + 1) == '$' ? 2 : 1);
  if (Is(At(text, begin), kDigit) || Contains("@*", At(text, begin))) return begin + 1;
  if (At(text, begin) == '{') return BehindBrackets(text, begin, "{", "}");
  const std::size_t end = SkipForward(text, begin, kAlnum | kDash, 64);
  const std::string_view name = From(text, begin, end - begin);
  if (name.size() < 2) return npos;
  if (At(text, end) == '[') return BehindBrackets(text, end, "[", "]");
  const bool upper = std::none_of(name.begin(), name.end(), [](char byte) { return Is(byte, kLower); });
  static constexpr std::array<std::string_view, 6> kTelling = {"pass", "token", "secret",
                                                               "key",  "pw",    "cred"};
  const bool telling = std::any_of(kTelling.begin(), kTelling.end(), [&](std::string_view word) {
    for (std::size_t from = 0; from + word.size() <= name.size(); ++from) {
      if (StartsWithWord(name.substr(from), word)) return true;
    }
    return false;
  });
  return upper || telling ? end : npos;
}

/// Offset behind words in brackets: "<your password>", "[REDACTED]", "(not set)".
std::size_t BehindBracketedWords(std::string_view text, std::size_t at) {
  const char open = At(text, at);
  if (!Contains("<[({", open)) return npos;
  const std::string_view close = open == '<' ? ">" : open == '[' ? "]" : open == '(' ? ")" : "}";
  const std::size_t end = BehindBrackets(text, at, text.substr(at, 1), close);
  if (end == npos || end < at + 3) return npos;
  const std::string_view inside = text.substr(at + 1, end - at - 2);
  const bool words = std::all_of(inside.begin(), inside.end(), [&](char byte) {
    return Is(byte, kUpper | kLower | kDash | kDigit) || (open != '{' && Contains(" .'/:,", byte)) ||
           (open == '<' && Contains("<>", byte));
  });
  if (!words || (!Is(inside.front(), kUpper | kLower) && !StartsWith(inside, "<<"))) return npos;
  // "[abc123]" may be a value, "(abc)" and "{abc}" too.
  if (open != '<' && DigitCount(inside) > 0) return npos;
  if (open == '{') return IsProse(inside.substr(LastOf(inside, "_-") + 1)) ? end : npos;
  return end;
}

/// Offset behind a format or a template: "%s", "%(password)s", "{{ token }}", "@PASSWORD@".
std::size_t BehindTemplate(std::string_view text, std::size_t at) {
  const char first = At(text, at);
  const char second = At(text, at + 1);
  if (first == '%' && Contains("sdvqp@r", second) && !Is(At(text, at + 2), kAlnum)) return at + 2;
  if (first == '%' && second == '(') {
    const std::size_t end = BehindBrackets(text, at, "%(", ")");
    return end == npos ? npos : end + 1;
  }
  if (first == '%' && second == '{') return BehindBrackets(text, at, "%{", "}");
  if (first == '{' && second == '{') return BehindBrackets(text, at, "{{", "}}");
  if (first == '{' && second == '%') return BehindBrackets(text, at, "{%", "%}");
  if (first == '{' && (second == '}' || (Is(second, kDigit) && At(text, at + 2) == '}'))) {
    return at + (second == '}' ? 2 : 3);
  }
  if (first == '<' && second == '%') return BehindBrackets(text, at, "<%", "%>");
  if (first == '@' && second == '{') return BehindBrackets(text, at, "@{", "}");
  if (first == '%' || first == '@') {
    const std::size_t end = SkipForward(text, at + 1, kAlnum | kDash, 64);
    return end > at + 2 && At(text, end) == first ? end + 1 : npos;
  }
  return npos;
}

/// Offset behind a row of one sign that stands for a hidden value: "****", "xxxx", "...", "--".
std::size_t BehindRow(std::string_view text, std::size_t at) {
  const char sign = At(text, at);
  if (StandsAt(text, at, "\u2022") || StandsAt(text, at, "\u2026") || StandsAt(text, at, "\u25cf")) {
    std::size_t end = at;
    while (end < at + kPlaceholderReach && From(text, end, 3) == text.substr(at, 3)) end += 3;
    return end;
  }
  if (!Contains("*xX.-_?#", sign)) return npos;
  std::size_t end = at;
  while (end < at + kPlaceholderReach && At(text, end) == sign) ++end;
  if (Contains("xX", sign) && end - at > 16) return npos;
  const std::size_t least = sign == '-' ? 1 : sign == '*' ? 2 : 3;
  return end - at >= least || (sign == '?' && end - at == 1) ? end : npos;
}

/// Offset behind a word in capitals that speaks of the value: "YOUR_PASSWORD", "__REDACTED__".
std::size_t BehindCapitals(std::string_view text, std::size_t at) {
  if (Is(At(text, at), kLower)) return npos;
  const std::size_t end = SkipForward(text, at, kUpper | kDash, 48);
  std::string_view word = From(text, at, end - at);
  while (!word.empty() && Is(word.back(), kDash)) word.remove_suffix(1);
  while (!word.empty() && Is(word.front(), kDash)) word.remove_prefix(1);
  if (word.size() < 4 || Is(At(text, end), kAlnum)) return npos;
  static const WordSet<64> words = {"redacted", "hidden",  "masked",    "filtered", "removed",
                                    "generate", "omitted", "sensitive", "scrubbed"};
  const std::size_t part = LastOf(word, "_-");
  const bool told = part != npos && Prose().Has(word.substr(part + 1));
  return told || words.Has(word) ? end : npos;
}

/// Whether what a call gets is the name of a value: lookup('app::db_password').
bool HasTellingName(std::string_view literal) {
  for (const std::string_view word : {"pass", "Pass", "secret", "Secret", "token", "Token", "key", "PASS",
                                      "TOKEN", "SECRET", "KEY", "**"}) {
    if (literal.find(word) != npos) return true;
  }
  return false;
}

/// Offset behind an expression that names a value elsewhere or calls for it: "var.password", "getpass()".
std::size_t BehindReference(std::string_view text, std::size_t at) {
  const std::size_t end = SkipForward(text, at, kNameByte, 64);
  const std::string_view name = From(text, at, end - at);
  const std::size_t dot = name.find('.');
  if (At(text, end) == '(') {
    const std::size_t close = BehindBrackets(text, end, "(", ")");
    if (close == npos || !Is(At(text, at), kUpper | kLower)) return npos;
    const std::string_view inside = text.substr(end, close - end);
    const bool has_literal = FirstOf(inside, "\"'`") != npos;
    const bool has_number = has_literal || FirstOf(inside, "0123456789") != npos;
    if (HasTellingName(inside) || inside.size() <= 2) return close;
    return has_number && !References().Has(name.substr(0, dot)) ? npos : close;
  }
  if (dot == npos || !References().Has(name.substr(0, dot))) return npos;
  if (At(text, end) == '[') return BehindBrackets(text, end, "[", "]");
  return end;
}

/// Offset behind what stands for a value; npos where the value stands itself.
/// @param quoted  It is in quotes: no expression.
std::size_t BehindPlaceholder(std::string_view text, std::size_t at, bool quoted) {
  static constexpr std::array<std::string_view, 6> kReferences = {
      "hmac-sha256:", "sha256:", "embed:", "hash:/", "env:", "$p$"};
  look_cost += 30;
  const char first = At(text, at);
  for (const std::string_view reference : kReferences) {
    if (first == reference.front() && From(text, at, reference.size()) == reference) {
      return SkipForward(text, at, kUrlByte, kWordReach);
    }
  }
  std::size_t end = npos;
  const char second = At(text, at + 1);
  if ((first == '$' && second == '{') || (first == '#' && second == '{')) {
    end = At(text, at + 2) == '{' ? BehindBrackets(text, at, "${{", "}}") : BehindShellBraces(text, at);
  } else if (first == '$' && second == '(') {
    end = BehindBrackets(text, at, "$(", ")");
  } else if (first == '$') {
    end = BehindVariable(text, at);
  } else if (first == '!' && StartsWith(From(text, at), "!secret ")) {
    const std::size_t word = at + StringSize("!secret ");
    return word + WordAt(text, word, kPlaceholderReach).size();
  }
  if (end == npos) end = BehindTemplate(text, at);
  if (end == npos) end = BehindBracketedWords(text, at);
  if (end == npos) end = BehindRow(text, at);
  if (end == npos) end = BehindCapitals(text, at);
  if (end == npos && !quoted) end = BehindReference(text, at);
  return end;
}

/// Whether nothing that could be a secret stands there: the end of the text around, or asterisks.
bool IsNoValue(std::string_view text, std::size_t at) {
  const char first = At(text, at);
  const char second = At(text, at + 1);
  if (Is(first, kLineEnd) || Contains(",;)]}", first)) return true;
  if (first == '&') return !Is(second, kAlnum) || SignAt(text, at).coded;
  if (first == '{') {
    // "{SSHA}..." is a password's hash, but "{user: x}" a mapping.
    const std::size_t close = SkipForward(text, at + 1, kNameByte, 24);
    return At(text, close) != '}' || Is(At(text, close + 1), kBlank | kLineEnd | kPunctuation);
  }
  return (first == '\\' && Contains("nrt", second)) || (first == '*' && second == '*');
}

/// Whether the value says only what became of a secret.
bool IsHarmlessWord(const Name& name, const Separator& separator) {
  const std::string_view text = name.text;
  look_cost += 30;
  const std::size_t begin = separator.value;
  std::size_t end = SkipForward(text, begin, kAlnum | kDash, 24);
  if (At(text, end) == '/' && end == begin + 1) end = SkipForward(text, end + 1, kAlnum, 1);  // "n/a"
  const std::string_view word = From(text, begin, end - begin);
  if (separator.quoted) return EndsValue(text, end, true) && Outcomes().Has(word);
  if (!EndsValue(text, end, false)) return false;
  const bool outcome = Outcomes().Has(word);
  if (!outcome && !Prose().Has(word)) return false;
  // One word is all: "token=none user=bob", "password: expired".
  const std::size_t punctuation = SkipForward(text, end, kPunctuation, 16);
  const std::size_t next = SkipBlanks(text, punctuation);
  const bool comment =
      Contains("#;(", At(text, next)) && (At(text, next) == '(' || Is(At(text, next + 1), kBlank));
  if (Is(At(text, next), kLineEnd) || comment) return outcome;
  const bool prose = separator.sign == ':' && !outcome;
  if (Is(At(text, next), kQuote)) return outcome || prose;
  const std::size_t next_end = SkipForward(text, next, kNameByte, 24);
  const bool next_name =
      At(text, next_end) == '=' || (At(text, next_end) == ':' && At(text, next_end + 1) != ' ');
  if (next_name) return outcome;
  const std::string_view next_word = WithoutPunctuation(From(text, next, next_end - next));
  if (!BeginsLine(name)) return outcome || (prose && LetterCount(next_word) == next_word.size());
  // A sentence goes on: "password: not found in the file"; behind '=' a secret of words does.
  return separator.sign == ':' && (Prose().Has(next_word) || Outcomes().Has(next_word));
}

/// Whether the name begins a comment.
bool IsCommented(const Name& name) {
  const std::size_t at = SkipBlanksBack(
      name.text, name.IsQuoted() ? name.start - std::min<std::size_t>(name.start, 1) : name.start);
  const std::size_t begin = SkipBack(name.text, at, kNameByte, 32);
  const std::size_t sign = Contains("[", Before(name.text, at)) ? begin : at;
  std::size_t mark = SkipBlanksBack(name.text, sign);
  if (Contains("[", Before(name.text, mark))) {
    mark = SkipBlanksBack(name.text, SkipBack(name.text, mark - 1, kNameByte, 32));
  }
  return Contains("#;*", Before(name.text, mark)) || EndsWith(name.text.substr(0, mark), "//");
}

/// Whether the line is a comment that tells what the name means: "# psk: WPA preshared key".
bool IsExplained(const Name& name, const Separator& separator) {
  if (separator.sign != ':' || separator.quoted) return false;
  const std::string_view text = name.text;
  if (!IsCommented(name)) return false;
  const std::string_view rest = RestOfLine(text, separator.value, kWordReach);
  return Contains(rest, ' ') || IsProse(rest);
}

/// Whether all words of a value are those of examples: "# password = my-password".
bool IsExample(const Name& name, std::size_t at) {
  if (!IsCommented(name)) return false;
  const std::string_view rest = RestOfLine(name.text, at, kPlaceholderReach);
  std::size_t words = 0;
  for (std::size_t begin = 0; begin < rest.size(); ++words) {
    const std::size_t word = SkipForward(rest, begin, kUpper | kLower | kDigit);
    if (words == kExampleWords) return false;
    if (word > begin && !Examples().Has(rest.substr(begin, word - begin)) &&
        !IsProse(rest.substr(begin, word - begin))) {
      return false;
    }
    begin = word + 1;
  }
  return words > 0;
}

/// Whether the value is an error's cause: "failed to refresh token: oauth2: cannot fetch it", "token: 400 Bad Request".
bool IsCause(const Name& name, const Separator& separator) {
  if (separator.sign != ':' || separator.quoted || separator.value == separator.behind || BeginsLine(name)) {
    return false;
  }
  const std::string_view text = name.text;
  const std::string_view word = WordAt(text, separator.value, 32);
  const std::string_view next = WordAt(text, separator.value + word.size() + 1, 32);
  if (word.size() > 1 && word.back() == ':' && !next.empty()) return true;
  const bool number = DigitCount(word) == word.size();
  const bool letters = LetterCount(word) == word.size();
  const bool other = IsSameWord(name.word(), "token") || IsSameWord(name.word(), "secret") ||
                     IsSameWord(name.word(), "credential") || IsSameWord(name.word(), "key");
  return next.size() > 1 && LetterCount(next) + 1 >= next.size() && LetterCount(next) > 1 &&
         (number || (letters && other && next.back() != '='));
}

/// A version of a package: "js-tokens": "4.0.0".
bool IsVersion(std::string_view text, std::size_t at) {
  if (Contains("^~", At(text, at))) ++at;
  const std::size_t major = SkipForward(text, at, kDigit, 3);
  const std::size_t minor = SkipForward(text, major + 1, kDigit, 4);
  if (major == at || At(text, major) != '.' || minor == major + 1 || At(text, minor) != '.') return false;
  const std::size_t patch = SkipForward(text, minor + 1, kNameByte, 12);
  return patch > minor + 1 && Is(At(text, patch), kQuote);
}

/// A flag where a key stands otherwise: "mem_only_psk=0".
bool IsFlag(std::string_view text, std::size_t at) {
  return Contains("01", At(text, at)) && (EndsValue(text, at + 1, false) || Is(At(text, at + 1), kListEnd));
}

/// A value between typographic quotes.
std::optional<Secret> FindTypographic(std::string_view text, std::size_t at) {
  static constexpr std::array<std::array<std::string_view, 2>, 4> kQuotes = {
      {{"\u201c", "\u201d"}, {"\u2018", "\u2019"}, {"\u201e", "\u201c"}, {"\u00ab", "\u00bb"}}};
  if (!Is(At(text, at), kHigh)) return std::nullopt;
  for (const auto& [open, close] : kQuotes) {
    if (From(text, at, open.size()) == open) {
      return Secret{at + open.size(), SecretForm::kDelimited, 0, '\0', 0, std::string(close)};
    }
  }
  return std::nullopt;
}

/// Where a quote begins, behind what languages write before it: b'', N'', $'', @"", <<"">>.
std::size_t SkipQuotePrefix(std::string_view text, std::size_t at) {
  if (StandsAt(text, at, "<<") && Is(At(text, at + 2), kQuote)) return at + 2;
  std::size_t begin = at;
  while (begin < at + 2 && Contains("bBuUrRfFEN$@", At(text, begin))) ++begin;
  return Is(At(text, begin), kQuote) ? begin : at;
}

/// Whether what is quoted there, up to the quote's end, stands for a value.
bool IsQuotedPlaceholder(std::string_view text, std::size_t at, std::string_view close) {
  std::size_t end = BehindPlaceholder(text, at, true);
  if (end == npos && HasFolderOfSystem(text, at)) {
    end = SkipForward(text, at, kNameByte | kBase64Sign, kWordReach);
  }
  return end != npos && From(text, end, close.size()) == close;
}

std::optional<Secret> FindQuotedBy(std::string_view text, std::size_t at, const Sign& quote) {
  const std::size_t begin = at + quote.size;
  const std::string_view written = text.substr(at, quote.size);
  if (IsQuotedPlaceholder(text, begin, written)) return std::nullopt;
  if (quote.coded) return Secret{begin, SecretForm::kDelimited, 0, '\0', 0, std::string(written)};
  if (quote.level == 0 && At(text, begin) == quote.meaning) {
    const bool triple = At(text, begin + 1) == quote.meaning;
    if (triple) {
      return Secret{begin + 2, SecretForm::kDelimitedLines, 0, '\0', 0, std::string(3, quote.meaning)};
    }
    // "" with nothing behind it is empty; else doubled, as quotes in quotes are in CSV and SQL.
    if (Is(At(text, begin + 1), kBlank | kLineEnd | kPunctuation) || Contains("&|/+*", At(text, begin + 1))) {
      return std::nullopt;
    }
    return Secret{begin + 1, SecretForm::kDoubled, 0, quote.meaning};
  }
  return Secret{begin, SecretForm::kQuoted, 0, quote.meaning, quote.level};
}

/// A value in quotes, whose opening quote stands there.
std::optional<Secret> FindQuotedValue(const Name& name, const Separator& separator, std::size_t at) {
  const std::string_view text = name.text;
  const Sign quote = SignAt(text, at);
  // Fewer backslashes than the name's quote had: the string around the name ends before any value.
  const bool same = quote.meaning == name.before.meaning && quote.coded == name.before.coded;
  if (same && (quote.level < name.before.level || (quote.level == name.before.level && !separator.quoted))) {
    return std::nullopt;
  }
  if (IsVersion(text, at + quote.size) || IsExample(name, at)) return std::nullopt;
  // So it does in {"msg":"Password:","level":1}.
  const bool ends_list = Is(At(text, at + quote.size), kListEnd);
  const bool goes_on = Is(At(text, at + quote.size + 1), kBlank | kLineEnd | kQuote | kListEnd);
  if (!separator.quoted && ends_list && goes_on) return std::nullopt;
  return FindQuotedBy(text, at, quote);
}

/// The lines of a here-document: <<EOF, <<-'EOF', <<<"EOF".
std::optional<Secret> FindHereDocument(std::string_view text, std::size_t at) {
  if (!StandsAt(text, at, "<<")) return std::nullopt;
  std::size_t begin = at + 2;
  while (begin < at + 6 && Contains("<-~ ", At(text, begin))) ++begin;
  const char quote = Is(At(text, begin), kQuote) ? At(text, begin) : '\0';
  if (quote != '\0') ++begin;
  const std::size_t end = SkipForward(text, begin, kIdentifierByte, 64);
  const std::size_t line_end = text.find('\n', end);
  if (end == begin || line_end == npos || line_end > end + 16) return std::nullopt;
  return Secret{
      line_end + 1, SecretForm::kHereDocument, 0, '\0', 0, std::string(text.substr(begin, end - begin))};
}

/// Whether lists of strings stand under the name: "passwords", not "secrets", which are mostly names of such.
bool IsListName(const Name& name) {
  const bool plural = EndsWith(name.whole(), "s") || EndsWith(name.whole(), "S");
  return plural && !IsSameWord(name.word(), "secret") && !IsSameWord(name.word(), "credential");
}

/// What stands in the lines below a name of YAML: a block, a list or a value.
std::optional<Secret> FindBelow(const Name& name, const Separator& separator) {
  const std::string_view text = name.text;
  const std::size_t column = separator.sign == ':' ? ColumnOf(name) : npos;
  if (column == npos) return std::nullopt;
  std::size_t at = SkipBlanks(text, separator.behind);
  if (At(text, at) == '!') at = SkipBlanks(text, at + WordAt(text, at, 32).size());
  const bool block = Contains("|>", At(text, at));
  if (block) at = SkipForward(text, at + 1, kDigit | kHashSign, 3);
  at = SkipBlanks(text, at);
  if (At(text, at) == '\r') ++at;
  if (At(text, at) != '\n' || at + 1 >= text.size()) return std::nullopt;
  const std::size_t line = at + 1;
  const std::size_t first = SkipForward(text, line, kBlank, kNameReach);
  const std::size_t indent = first - line;
  if (block) {
    return indent > column ? std::optional<Secret>({line, SecretForm::kBlock, 0, '\0', column})
                           : std::nullopt;
  }
  if (separator.quoted) return std::nullopt;
  const std::string_view rest = RestOfLine(text, first, kWordReach);
  const bool item = StartsWith(rest, "- ");
  const std::size_t number = item ? SkipForward(rest, 2, kDigit) : 0;  // The bytes of a key.
  if (item && indent >= column && (IsListName(name) || (number > 2 && number >= rest.size()))) {
    const std::string_view value = rest.substr(2);
    const bool mapping = Holds(value, ": ") || EndsWith(value, ":") || Contains("{[", value[0]);
    if (!mapping) return Secret{line, SecretForm::kBlock, 0, '-', column};
  }
  // A value of one word or in quotes.
  const bool one_word = FirstOf(rest, " \t:={[<") == npos && !rest.empty();
  if (item || indent <= column || (!one_word && !Is(rest.front(), kQuote))) return std::nullopt;
  return Secret{line, SecretForm::kBlock, 0, '\0', column};
}

bool IsHexDigit(char byte) { return Is(byte, kDigit) || (ToLower(byte) >= 'a' && ToLower(byte) <= 'f'); }

/// 32 hexadecimal digits and more, joined or parted after each two.
std::size_t BehindHexBytes(std::string_view text, std::size_t at) {
  const char parting = At(text, at + 2);
  const bool parted = Contains(" :-", parting);
  std::size_t digits = 0;
  std::size_t end = at;
  while (end < at + kNumericKeyReach && IsHexDigit(At(text, end))) {
    ++digits;
    ++end;
    const bool goes_on = IsHexDigit(At(text, end + 1)) && IsHexDigit(At(text, end + 2));
    if (parted && digits % 2 == 0 && At(text, end) == parting && goes_on) ++end;
  }
  return digits >= 32 && !Is(At(text, end), kAlnum) ? end : npos;
}

/// 8 numbers of a byte and more, parted by commas.
std::size_t BehindNumbers(std::string_view text, std::size_t at) {
  std::size_t numbers = 0;
  std::size_t end = at;
  for (std::size_t next = at; next < at + kNumericKeyReach; next = SkipBlanksAndLines(text, end + 1)) {
    const bool hex = At(text, next) == '0' && ToLower(At(text, next + 1)) == 'x';
    const std::size_t begin = hex ? next + 2 : next;
    std::size_t digits = begin;
    while (digits < begin + 4 && (hex ? IsHexDigit(At(text, digits)) : Is(At(text, digits), kDigit))) {
      ++digits;
    }
    if (digits == begin || digits > begin + 3) break;
    ++numbers;
    end = digits;
    if (At(text, end) != ',') break;
  }
  return numbers >= 8 && !Is(At(text, end), kNameByte) ? end : npos;
}

/// Where the quote begins in what languages write around a string: Some("x"), Secret.fromString("x"), string(3) "x".
std::size_t InsideCall(std::string_view text, std::size_t at) {
  static const WordSet<128> names = {
      "some", "secret", "secretstring",      "password",    "ok",           "just",  "string",   "redacted",
      "str",  "value",  "secretstr",         "newsecret",   "securestring", "text",  "optional", "bytes",
      "s",    "b",      "secret.fromstring", "optional.of", "secretstr.of", "token", "right"};
  const std::size_t end = SkipForward(text, at, kNameByte, 32);
  if (end == at || At(text, end) != '(' || !names.Has(From(text, at, end - at))) return npos;
  std::size_t quote = SkipForward(text, end + 1, kDigit, 6);
  if (quote > end + 1) quote = At(text, quote) == ')' ? SkipBlanks(text, quote + 1) : text.size();
  return Is(SignAt(text, quote).meaning, kQuote) ? quote : npos;
}

/// A value in braces, "Password={a!b}", unlike "{user: x}". In ODBC's strings "}}" is one brace, and any byte may
/// stand.
std::optional<Secret> FindInBraces(const Name& name, std::size_t at) {
  const std::string_view text = name.text;
  std::size_t close = ClosingQuote(text, at + 1, '}', kWordReach);
  while (close != npos && At(text, close + 1) == '}') close = ClosingQuote(text, close + 2, '}', kWordReach);
  if (close == npos || close == at + 1 || IsPlaceholder(text, at)) return std::nullopt;
  const std::string_view inside = text.substr(at + 1, close - at - 1);
  const bool odbc = Contains("?;,", name.before.meaning) || At(text, close + 1) == ';';
  const bool bare = FirstOf(inside, " :=,\"'{") == npos && Is(At(text, close + 1), kBlank | kLineEnd);
  if (odbc) return Secret{at + 1, SecretForm::kFixed, close};
  return bare ? std::optional<Secret>({at, SecretForm::kFixed, close + 1}) : std::nullopt;
}

/// A value without quotes.
std::optional<Secret> FindBareValue(const Name& name, const Separator& separator) {
  const std::string_view text = name.text;
  const std::size_t at = separator.value;
  if (IsNoValue(text, at) || IsPlaceholder(text, at)) return std::nullopt;
  if (IsHarmlessWord(name, separator) || IsExplained(name, separator) || IsFlag(text, at)) {
    return std::nullopt;
  }
  if (IsExample(name, at) || IsCause(name, separator)) return std::nullopt;
  if (!separator.coded.empty()) {
    // What is coded as the sign is, parts the value from the next name: "a%3Db%26c".
    std::string joint(separator.coded);
    const std::size_t last = LastOf(joint, "dDaA");
    if (joint.front() == '%' && last != npos) joint.replace(joint.size() - 2, 2, "26");
    if (joint.front() == '\\') joint.replace(joint.size() - 2, 2, "26");
    if (joint.front() == '&') joint = "&amp;";
    return Secret{at, SecretForm::kWord, 0, '&', 0, joint};
  }
  if (separator.quoted) return Secret{at, SecretForm::kScalar};
  // Name and value in quotes: "-e 'NAME=two words'".
  if (name.IsQuoted() && !name.before.coded &&
      ClosingQuote(text, at, name.before.meaning, kWordReach) != npos) {
    return Secret{at, SecretForm::kQuoted, 0, name.before.meaning, name.before.level};
  }
  if (name.begins_written_line) return Secret{at, SecretForm::kPhrase};
  if (BeginsLine(name) && !name.IsOption()) return Secret{at, SecretForm::kLine};
  // What parts the name from the one before it parts its value from the next one, too.
  const char joint = name.before.meaning == '?' ? '&' : name.before.meaning;
  return Secret{at, SecretForm::kWord, 0, Contains("&?;,|", joint) ? joint : '\0'};
}

}  // namespace

bool IsOutcome(std::string_view word) { return Outcomes().Has(WithoutPunctuation(word)); }

bool IsProse(std::string_view word) { return Prose().Has(WithoutPunctuation(word)); }

bool IsNumber(std::string_view text, std::size_t at, bool in_list) {
  const std::size_t end = SkipForward(text, at, kDigit, 64);
  return end > at && EndsValue(text, end, in_list);
}

bool IsPlaceholder(std::string_view text, std::size_t at) {
  const std::size_t end = BehindPlaceholder(text, at, false);
  if (end != npos) {
    return Is(At(text, end), kBlank | kLineEnd | kPunctuation) || Contains("&|@/", At(text, end));
  }
  if (!HasFolderOfSystem(text, At(text, at) == '<' ? at + 1 : at)) return false;
  const std::size_t behind = SkipForward(text, at + 1, kNameByte | kBase64Sign, kWordReach);
  return At(text, behind) == ',' || EndsValue(text, behind, false);
}

bool LooksLikePassword(std::string_view word) {
  look_cost += 10 + 2 * word.size();
  word = WithoutPunctuation(word);
  if (word.size() < 6 || Contains("/<([{$%-", word.front())) return false;
  const std::size_t digits = DigitCount(word);
  const std::size_t letters = LetterCount(word);
  if (letters == 0 || letters == word.size()) return false;
  const bool signs = FirstOf(word, "!#$^*+?") != npos;
  if ((digits == 0 && !signs) || Technical().Has(word)) return false;
  // A date, an address, a name with a value, a call.
  if (digits > 3 && Is(word.front(), kDigit) && Contains("-.:", word[4 < word.size() ? 4 : 0])) return false;
  return !Holds(word, "::") && !Holds(word, "://") && FirstOf(word, "=()[]{}<>\\") == npos;
}

bool LooksLikeKey(std::string_view word) {
  look_cost += 2 + 3 * word.size();
  if (word.size() < 16) return false;
  std::size_t run = 0;
  std::size_t longest = 0;
  std::size_t turns = 0;
  char last = '\0';
  for (const char byte : word) {
    if (!Is(byte, kEncodedByte | kBase64Sign)) return false;
    run = Is(byte, kAlnum | kBase64Sign) ? run + 1 : 0;
    longest = std::max(longest, run);
    if (last != '\0' && (Is(last, kDigit) != Is(byte, kDigit) || (Is(last, kLower) && Is(byte, kUpper)))) {
      ++turns;
    }
    last = byte;
  }
  const bool uuid = word.size() == 36 && word[8] == '-' && word[13] == '-' && word[18] == '-';
  return !uuid && longest >= 14 && turns >= 3 && DigitCount(word) >= 2 && LetterCount(word) >= 2;
}

std::size_t BehindHexKey(std::string_view text, std::size_t at) {
  const std::size_t joined = BehindHexBytes(text, From(text, at, 2) == "0x" ? at + 2 : at);
  return joined != npos ? joined : BehindNumbers(text, at);
}

bool IsVersionNumber(std::string_view word) {
  if (!word.empty() && ToLower(word.front()) == 'v') word.remove_prefix(1);
  const std::size_t major = SkipForward(word, 0, kDigit, 4);
  const std::size_t minor = SkipForward(word, major + 1, kDigit, 4);
  return major > 0 && At(word, major) == '.' && minor > major + 1 &&
         (minor >= word.size() || Contains(".-+,);~", word[minor]));
}

std::size_t ClosingQuote(std::string_view text, std::size_t at, char quote, std::size_t most) {
  const std::size_t limit = std::min(text.size(), at + most);
  const std::size_t begin = at;
  while (at < limit && text[at] != quote && !Is(text[at], kLineEnd)) ++at;
  look_cost += 2 + (at - begin) / 2;
  return at < limit && text[at] == quote ? at : npos;
}

bool IsQuotedAt(std::string_view text, std::size_t at) {
  const std::size_t begin = SkipQuotePrefix(text, at);
  return Is(SignAt(text, begin).meaning, kQuote);
}

std::optional<Secret> FindQuoted(std::string_view text, std::size_t at) {
  const std::size_t begin = SkipQuotePrefix(text, at);
  const Sign quote = SignAt(text, begin);
  if (!Is(quote.meaning, kQuote)) return std::nullopt;
  return FindQuotedBy(text, begin, quote);
}

std::optional<Secret> FindItem(std::string_view text, std::size_t at) {
  if (IsQuotedAt(text, at)) return FindQuoted(text, at);
  if (IsNoValue(text, at) || IsPlaceholder(text, at)) return std::nullopt;
  return Secret{at, SecretForm::kWord};
}

std::optional<Secret> FindValue(const Name& name, const Separator& separator) {
  const std::string_view text = name.text;
  const std::size_t at = separator.value;
  look_cost += 120;
  if (std::optional<Secret> lines = FindBelow(name, separator)) return lines;
  if (std::optional<Secret> lines = FindHereDocument(text, at)) return lines;
  if (std::optional<Secret> typographic = FindTypographic(text, at)) return typographic;
  std::size_t quote = SkipQuotePrefix(text, at);
  if (StandsAt(text, at, "0x")) {
    // A debugger: password = 0x55e0 "abc".
    const std::size_t behind = SkipForward(text, at, kAlnum, 20);
    if (At(text, behind) == ' ' && At(text, behind + 1) == '"') quote = behind + 1;
  }
  if (const std::size_t inside = InsideCall(text, at); inside != npos) quote = inside;
  const Sign sign = SignAt(text, quote);
  if (Is(sign.meaning, kQuote)) return FindQuotedValue(name, separator, quote);
  // "tiktoken==0.7.0"
  if (EndsWith(text.substr(0, separator.behind), "==") && IsVersionNumber(WordAt(text, at, 24))) {
    return std::nullopt;
  }
  const std::size_t bytes = Contains("[{", At(text, at)) ? SkipBlanksAndLines(text, at + 1) : at;
  if (const std::size_t end = BehindHexKey(text, bytes); end != npos && (bytes == at || !IsListName(name))) {
    return Secret{bytes, SecretForm::kFixed, end};
  }
  if (sign.meaning == '`' && ClosingQuote(text, at + 1, '`', kWordReach) != npos) {
    return Secret{at + 1, SecretForm::kQuoted, 0, '`'};
  }
  const bool list = separator.quoted || IsListName(name);
  if (sign.meaning == '[' && !separator.quoted && !list && EndsWith(name.whole(), "s")) return std::nullopt;
  if (list && sign.meaning == '[' && !IsPlaceholder(text, at)) {
    const std::size_t first = SkipBlanksAndLines(text, at + 1);
    const Sign item = SignAt(text, first);
    if (item.meaning == ']' || item.meaning == '{') return std::nullopt;
    if (Is(item.meaning, kQuote) &&
        IsQuotedPlaceholder(text, first + item.size, text.substr(first, item.size))) {
      return std::nullopt;
    }
    return Secret{at + 1, SecretForm::kList, 0, '"', name.before.level};
  }
  if (separator.sign == '=' && sign.meaning == '{' && !separator.quoted) {
    if (std::optional<Secret> braces = FindInBraces(name, at)) return braces;
  }
  // A password that begins with the sign of a comment.
  if (separator.sign == '=' && sign.meaning == ';' && BeginsLine(name) && Is(At(text, at + 1), kAlnum)) {
    return Secret{at, SecretForm::kLine};
  }
  return FindBareValue(name, separator);
}

}  // namespace TARVO::SupportForm
