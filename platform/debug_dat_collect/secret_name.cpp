#include "secret_name.h"

#include <algorithm>
#include <array>

#include "word_set.h"

namespace TARVO::SupportForm {
namespace {

constexpr std::size_t kNameWordReach = 24;  ///< Bytes of one word of a name.
constexpr std::size_t kCloserReach = 32;    ///< Quotes and brackets that end a name.

// The lists of words look alike because they are lists: see word_set.h.

/// What stands at the end of names that only speak of secrets.
// NOLINTNEXTLINE(readability-function-size): nothing but the words.
const WordSet<1024>& HarmlessEnds() {
  static const WordSet<1024> words = {"file",
                                      "files",
                                      "filename",
                                      "path",
                                      "paths",
                                      "dir",
                                      "directory",
                                      "location",
                                      "length",
                                      "len",
                                      "min",
                                      "max",
                                      "minlen",
                                      "maxlen",
                                      "age",
                                      "count",
                                      "counter",
                                      "counts",
                                      "num",
                                      "number",
                                      "type",
                                      "types",
                                      "id",
                                      "ids",
                                      "name",
                                      "names",
                                      "url",
                                      "urls",
                                      "uri",
                                      "endpoint",
                                      "endpoints",
                                      "server",
                                      "host",
                                      "port",
                                      "enabled",
                                      "enable",
                                      "disabled",
                                      "required",
                                      "require",
                                      "needed",
                                      "requested",
                                      "policy",
                                      "policies",
                                      "authentication",
                                      "auth",
                                      "expiry",
                                      "expires",
                                      "expire",
                                      "expired",
                                      "expiration",
                                      "ttl",
                                      "timeout",
                                      "lifetime",
                                      "interval",
                                      "period",
                                      "duration",
                                      "attempts",
                                      "retries",
                                      "retry",
                                      "tries",
                                      "prompt",
                                      "algorithm",
                                      "alg",
                                      "algo",
                                      "bits",
                                      "size",
                                      "bytes",
                                      "chars",
                                      "version",
                                      "usage",
                                      "use",
                                      "uses",
                                      "used",
                                      "limit",
                                      "limits",
                                      "quota",
                                      "format",
                                      "encryption",
                                      "encoding",
                                      "status",
                                      "state",
                                      "izer",
                                      "ize",
                                      "ized",
                                      "ization",
                                      "ary",
                                      "less",
                                      "like",
                                      "at",
                                      "on",
                                      "by",
                                      "time",
                                      "date",
                                      "day",
                                      "days",
                                      "hours",
                                      "minutes",
                                      "seconds",
                                      "secs",
                                      "ms",
                                      "since",
                                      "until",
                                      "last",
                                      "rate",
                                      "ratio",
                                      "threshold",
                                      "level",
                                      "mode",
                                      "method",
                                      "methods",
                                      "result",
                                      "check",
                                      "checks",
                                      "checker",
                                      "checking",
                                      "valid",
                                      "validity",
                                      "validation",
                                      "validator",
                                      "verify",
                                      "verification",
                                      "hint",
                                      "hints",
                                      "label",
                                      "title",
                                      "field",
                                      "fields",
                                      "column",
                                      "columns",
                                      "table",
                                      "param",
                                      "params",
                                      "parameter",
                                      "header",
                                      "headers",
                                      "option",
                                      "options",
                                      "flag",
                                      "flags",
                                      "reset",
                                      "resets",
                                      "change",
                                      "changed",
                                      "changes",
                                      "changing",
                                      "updated",
                                      "update",
                                      "history",
                                      "strength",
                                      "quality",
                                      "complexity",
                                      "entropy",
                                      "rotation",
                                      "rotate",
                                      "rotated",
                                      "refresh",
                                      "renew",
                                      "renewal",
                                      "issuer",
                                      "audience",
                                      "aud",
                                      "provider",
                                      "providers",
                                      "plugin",
                                      "manager",
                                      "management",
                                      "store",
                                      "storage",
                                      "backend",
                                      "engine",
                                      "engines",
                                      "source",
                                      "sources",
                                      "ref",
                                      "refs",
                                      "reference",
                                      "review",
                                      "reviews",
                                      "request",
                                      "requests",
                                      "requester",
                                      "callback",
                                      "command",
                                      "cmd",
                                      "eval",
                                      "program",
                                      "script",
                                      "helper",
                                      "helpers",
                                      "process",
                                      "agent",
                                      "handler",
                                      "handling",
                                      "service",
                                      "services",
                                      "factory",
                                      "generator",
                                      "generated",
                                      "scope",
                                      "scopes",
                                      "claim",
                                      "claims",
                                      "bucket",
                                      "buckets",
                                      "budget",
                                      "lock",
                                      "locked",
                                      "warning",
                                      "warn",
                                      "error",
                                      "errors",
                                      "failed",
                                      "failure",
                                      "failures",
                                      "success",
                                      "exists",
                                      "set",
                                      "unset",
                                      "present",
                                      "missing",
                                      "supported",
                                      "allowed",
                                      "case",
                                      "digits",
                                      "upper",
                                      "lower",
                                      "class",
                                      "classes",
                                      "stdin",
                                      "fd",
                                      "env",
                                      "from",
                                      "grace",
                                      "context",
                                      "volume",
                                      "volumes",
                                      "mount",
                                      "mounts",
                                      "projection",
                                      "login",
                                      "logins",
                                      "only",
                                      "sync",
                                      "cache",
                                      "cached",
                                      "index",
                                      "position",
                                      "offset",
                                      "order",
                                      "hits",
                                      "misses",
                                      "total",
                                      "sum",
                                      "avg",
                                      "create",
                                      "created",
                                      "creation",
                                      "delete",
                                      "deleted",
                                      "copy",
                                      "view",
                                      "list",
                                      "get",
                                      "role",
                                      "roles",
                                      "owner",
                                      "group",
                                      "groups",
                                      "profile",
                                      "profiles",
                                      "kind",
                                      "class_name",
                                      "arn",
                                      "ids_list",
                                      "signing_alg",
                                      "signed",
                                      "hashing",
                                      "quality_check",
                                      "quirk",
                                      "quirks",
                                      "tty",
                                      "wall",
                                      "console",
                                      "accessor",
                                      "renewable",
                                      "user",
                                      "username",
                                      "lifespan",
                                      "provided",
                                      "given",
                                      "sent",
                                      "received",
                                      "found",
                                      "maps",
                                      "map",
                                      "query",
                                      "link",
                                      "links",
                                      "throttle",
                                      "variable",
                                      "variables",
                                      "encoder",
                                      "decoder",
                                      "filter",
                                      "util",
                                      "utils",
                                      "resolver",
                                      "config",
                                      "configuration",
                                      "repository",
                                      "impl",
                                      "exception",
                                      "test",
                                      "tests",
                                      "model",
                                      "entity",
                                      "bean",
                                      "encrypted",
                                      "protected",
                                      "rules",
                                      "rule",
                                      "rounds",
                                      "cost",
                                      "iterations",
                                      "salt_length",
                                      "saver",
                                      "input",
                                      "form",
                                      "page",
                                      "dialog",
                                      "box",
                                      "recovery",
                                      "forgot",
                                      "free",
                                      "sig_alg",
                                      "stdin_once",
                                      "vault",
                                      "controller",
                                      "informer"};
  return words;
}

/// Files of source and units of systemd: "token.go:123", "ask-password.service".
const WordSet<256>& HarmlessSuffixes() {
  static const WordSet<256> words = {
      ".service", ".socket", ".target", ".timer", ".mount", ".path", ".slice", ".c",   ".cc",   ".cpp",
      ".h",       ".go",     ".py",     ".rs",    ".js",    ".ts",   ".java",  ".rb",  ".php",  ".sh",
      ".so",      ".ko",     ".conf",   ".pm",    ".zip",   ".txt",  ".log",   ".pem", ".crt",  ".cfg",
      ".ini",     ".xml",    ".json",   ".yml",   ".yaml",  ".db",   ".bak",   ".gz",  ".lock", ".md",
      ".html",    ".jar",    ".war",    ".exe",   ".dll",   ".sock", ".tmp"};
  return words;
}

const WordSet<256>& HarmlessBeginnings() {
  static const WordSet<256> words = {
      "no",       "without", "prohibit", "has",      "is",       "require", "requires", "use",  "uses",
      "allow",    "enable",  "disable",  "max",      "min",      "num",     "count",    "ask",  "show",
      "hide",     "forgot",  "check",    "verify",   "validate", "needs",   "need",     "ctrl", "total",
      "permit",   "invalid", "wrong",    "bad",      "expired",  "missing", "disallow", "load", "import",
      "existing", "lib",     "update",   "generate", "image",    "kube"};
  return words;
}

/// Before "key": it opens something.
const WordSet<512>& SecretKeys() {
  static const WordSet<512> words = {
      "api",           "apis",         "access",      "account",    "auth",    "authentication",
      "authorization", "encryption",   "encrypt",     "decryption", "crypt",   "crypto",
      "cipher",        "master",       "private",     "priv",       "shared",  "signing",
      "signature",     "sign",         "secret",      "consumer",   "wep",     "preshared",
      "psk",           "wpa",          "hmac",        "aes",        "webhook", "unseal",
      "recovery",      "subscription", "functions",   "tsig",       "client",  "app",
      "application",   "license",      "ingest",      "write",      "admin",   "integration",
      "network",       "wireless",     "certificate", "jwt",        "cookie",  "session",
      "csrf",          "xsrf",         "token",       "static",     "cluster", "gossip",
      "erlang",        "bot",          "deploy",      "service",    "storage", "tls",
      "ssl",           "server",       "apps",        "nwks",       "nwk",     "fnwksint",
      "snwksint",      "nwksenc",      "apptsk",      "join",       "pan",     "ltk",
      "mesh",          "wifi",         "wlan",        "hotspot",    "unlock",  "volume",
      "disk",          "luks",         "bootstrap",   "enrollment", "pairing", "vpn",
      "device",        "provisioning"};
  return words;
}

/// Before "key": it names or finds something.
const WordSet<512>& HarmlessKeys() {
  static const WordSet<512> words = {
      "public",  "pub",       "primary",  "foreign",  "sort",         "partition", "cache",
      "routing", "host",      "row",      "index",    "lookup",       "unique",    "registry",
      "hash",    "map",       "hot",      "kms",      "idempotency",  "websocket", "search",
      "group",   "order",     "trusted",  "known",    "translation",  "object",    "record",
      "natural", "candidate", "parent",   "shift",    "mon",          "don",       "tur",
      "whis",    "hoc",       "jo",       "co",       "dict",         "json",      "yaml",
      "config",  "message",   "event",    "sequence", "duplicate",    "composite", "surrogate",
      "range",   "shard",     "bucket",   "redis",    "cert",         "ssh",       "gpg",
      "pgp",     "apt",       "release",  "verify",   "verification", "verifying", "peer",
      "remote",  "dnskey",    "dns",      "data",     "s3",           "field",     "name",
      "label",   "tag",       "i18n",     "answer",   "metric",       "attribute", "minisign",
      "author",  "signed",    "function", "arrow",    "delete",       "home",      "end",
      "enter",   "return",    "any",      "power",    "media",        "scan",      "kernel",
      "etag"};
  return words;
}

/// After "key": the key itself, in one or the other form.
const WordSet<128>& KeyForms() {
  static const WordSet<128> words = {"s",    "data",   "b64", "base64",    "hex",     "value", "material",
                                     "pem",  "string", "raw", "plaintext", "content", "base",  "contents",
                                     "text", "new",    "old", "default",   "prod",    "dev",   "test"};
  return words;
}

bool IsNameByte(char byte) { return Is(byte, kNameByte | kHigh); }

/// Whether punctuation beyond ASCII begins there: typographic quotes, blanks, signs of full width.
bool IsHighPunctuation(std::string_view text, std::size_t at) {
  const char byte = At(text, at);
  const char next = At(text, at + 1);
  return (byte == '\xe2' && next == '\x80') || (byte == '\xef' && next == '\xbc') ||
         (byte == '\xc2' && (next == '\xa0' || next == '\xab' || next == '\xbb')) ||
         (byte == '\xe3' && next == '\x80');
}

std::size_t FindNameEnd(std::string_view text, std::size_t at) {
  const std::size_t limit = at + kNameReach;
  while (at < limit && IsNameByte(At(text, at)) && !(Is(text[at], kHigh) && IsHighPunctuation(text, at))) {
    ++at;
  }
  look_cost += 2 + (at + kNameReach - limit);
  while (Before(text, at) == '.') --at;  // Of a sentence, or a row of dots.
  return at;
}

std::size_t FindNameBegin(std::string_view text, std::size_t word) {
  std::size_t at = SkipBack(text, word, kNameByte | kHigh, kNameReach);
  for (std::size_t high = at; high < word; ++high) {
    if (Is(text[high], kHigh) && IsHighPunctuation(text, high)) at = high + (text[high] == '\xc2' ? 2 : 3);
  }
  return std::min(at, word);
}

/// Takes what belongs to an escape or a colour before the name from its beginning.
void CutBeginning(Name& name) {
  const std::string_view text = name.text;
  const char before = Before(text, name.begin);
  const std::string_view head = name.head();
  if (before == '\\' && !head.empty() && (name.begin < 2 || text[name.begin - 2] != ':')) {
    const std::size_t size = head.front() == 'u' ? 5 : head.front() == 'x' ? 3 : 0;
    if (Contains("nrt", head.front())) {
      name.begin += 1;
      name.begins_written_line = true;
    } else if (size > 0 && size <= head.size() && SignAt(text, name.begin - 1).coded) {
      name.begin += size;
    }
  } else if (before == '%') {
    const std::size_t size = SignAt(text, name.begin - 1).size;
    if (size > 1 && size - 1 <= head.size()) name.begin += size - 1;
  }
  // Of "[1;31mpassword" the name has "31m".
  std::size_t letters = 0;
  while (letters < head.size() && Is(head[letters], kDigit)) ++letters;
  if (letters < head.size() && head[letters] == 'm' && Contains("[;", before)) {
    const std::size_t behind = name.begin + letters + 1;
    if (SkipColourBack(text, behind) != behind) name.begin = behind;
  }
}

/// Where the last word of a part of a name begins: "token_type", "tokenType".
std::size_t LastWord(std::string_view part) {
  std::size_t last = part.size();
  while (last > 0 && part.size() - last < kNameWordReach && Is(part[last - 1], kAlnum)) {
    --last;
    if (Is(part[last], kUpper) && last > 0 && Is(part[last - 1], kLowerDigit)) break;
  }
  return last;
}

std::string_view WithoutEnd(std::string_view part, unsigned classes) {
  while (!part.empty() && Is(part.back(), classes)) part.remove_suffix(1);
  return part;
}

std::string_view FirstWord(std::string_view name) {
  std::size_t begin = 0;
  while (begin < name.size() && !Is(name[begin], kAlnum)) ++begin;
  std::size_t end = begin;
  while (end < name.size() && Is(name[end], kAlnum)) {
    if (end > begin && Is(name[end], kUpper) && Is(name[end - 1], kLowerDigit)) break;
    ++end;
  }
  return name.substr(begin, end - begin);
}

/// Words before a name that leave it the first of its line: "export NAME=", "- name:", "# name =".
bool IsLinePrefix(std::string_view word) {
  static const WordSet<256> words = {
      "export",  "set",     "setenv", "setx", "env",   "arg",     "local",    "readonly",
      "declare", "typeset", "-x",     "-",    "+",     "#",       "##",       "//",
      ";",       "*",       ">",      "$",    "var",   "let",     "const",    "my",
      "our",     "passenv", "string", "?",    "final", "<",       "sentinel", "option",
      "*.*",     "global",  "static", "|",    "--",    "#define", "property"};
  return words.Has(word);
}

}  // namespace

Name NameAround(std::string_view text, std::size_t word_begin, std::size_t word_end) {
  look_cost += 20;
  Name name;
  name.text = text;
  name.word_begin = word_begin;
  name.word_end = word_end;
  name.begin = FindNameBegin(text, word_begin);
  name.end = std::max(FindNameEnd(text, word_end), word_end);
  CutBeginning(name);
  std::size_t behind = name.begin;
  for (std::size_t colours = 0; colours < 4 && Contains("mK", Before(text, behind)); ++colours) {
    behind = SkipColourBack(text, behind);
  }
  name.before = SignBefore(text, behind);
  name.start = name.IsQuoted() || name.before.coded ? behind - name.before.size : behind;
  return name;
}

std::size_t SkipClosers(const Name& name, bool& quoted) {
  std::size_t at = name.end;
  while (at < name.end + kCloserReach && !Is(At(name.text, at), kAlnum | kBlank | kLineEnd)) {
    if (Is(At(name.text, at), kQuote)) {
      quoted = true;
      ++at;
      continue;
    }
    const Sign sign = SignAt(name.text, at);
    const bool bracket = (sign.meaning == ']' && (quoted || name.before.meaning == '[')) ||
                         (sign.meaning == '}' && (quoted || name.before.meaning == '{'));
    const bool quote = Is(sign.meaning, kQuote);
    const std::size_t colour = SkipColour(name.text, at);
    if (colour != at) {
      at = colour;
      continue;
    }
    if (!quote && !bracket && (sign.meaning != '\\' || sign.coded)) break;
    quoted = quoted || quote;
    at += sign.size;
  }
  return at;
}

std::optional<Separator> FindSeparator(const Name& name) {
  look_cost += 10;
  const std::string_view text = name.text;
  if (At(text, name.end) == ' ' && Is(At(text, name.end + 1), kAlnum)) return std::nullopt;  // A sentence.
  Separator separator;
  std::size_t at = SkipClosers(name, separator.quoted);
  if (StandsAt(text, at, "..")) at = SkipForward(text, at, kDot, kBlankReach);
  if (At(text, at) == '[' && !separator.quoted) {  // Of C: "key[16] = {".
    const std::size_t close = SkipForward(text, at + 1, kAlnum | kDash, 24);
    const std::size_t sign = SkipBlanks(text, close + 1);
    if (At(text, close) == ']' && At(text, sign) == '=' && At(text, sign + 1) != '=') at = sign;
  }
  at = SkipBlanks(text, at);
  // "PASSWORD ?= x", "TOKEN += x", "x ||= y"
  const bool alternative = StandsAt(text, at, "||") || StandsAt(text, at, "??");
  if (Contains("?+|:!", At(text, at))) {
    const std::size_t equals = at + (alternative ? 2 : 1);
    if (At(text, equals) == '=') at = equals;
    // FreeRADIUS: "Tunnel-Password:0 = x".
    if (Is(At(text, equals), kDigit) && StandsAt(text, equals + 1, " =")) at = equals + 2;
  }
  if (alternative && At(text, at) != '=' && Is(At(text, SkipBlanks(text, at + 2)), kQuote)) {
    // "ENV['PASSWORD'] || 'abc'"
    separator.sign = '=';
    separator.behind = at + 2;
    separator.value = SkipBlanks(text, at + 2);
    return separator;
  }
  const Sign sign = SignAt(text, at);
  const bool arrow = StandsAt(text, at, "->");
  if (!arrow && sign.meaning != '=' && sign.meaning != ':') return std::nullopt;
  separator.sign = arrow ? '=' : sign.meaning;
  if (sign.coded) separator.coded = text.substr(at, sign.size);
  at += sign.size;
  const char second = At(text, at);
  const char third = At(text, at + 1);
  // A scope as in "Token::Read", and a URL; but "name:: text" is LDIF.
  if (sign.meaning == ':' && ((second == ':' && third != ' ') || (second == '/' && third == '/'))) {
    return std::nullopt;
  }
  if (second == '=' || (sign.meaning == ':' && second == ':') || arrow) ++at;
  const Sign angle = SignAt(text, at);
  if (sign.meaning == '=' && angle.meaning == '>' && (angle.coded || second == '>')) at += angle.size;
  separator.behind = at;
  separator.value = separator.quoted ? SkipBlanksAndLines(text, at) : SkipBlanks(text, at);
  return separator;
}

bool BeginsLine(const Name& name) {
  const std::string_view text = name.text;
  std::size_t at = name.IsQuoted() ? name.begin : name.start;
  at = SkipBack(text, at, kNameByte | kHigh, kNameReach);  // Of a name with other letters.
  if (Contains("$@:%", Before(text, at))) --at;
  if (EndsWith(text.substr(0, at), "Environment=")) return true;
  for (std::size_t words = 0; words < 3; ++words) {
    at = SkipBlanksBack(text, at);
    if (Is(Before(text, at), kLineEnd)) return true;
    std::size_t begin = at;
    while (begin > 0 && at - begin < 10 && !Is(text[begin - 1], kBlank | kLineEnd)) --begin;
    if (!IsLinePrefix(text.substr(begin, at - begin))) return false;
    at = begin;
  }
  return false;
}

std::size_t ColumnOf(const Name& name) {
  const std::size_t from = name.start - std::min(name.start, kNameReach);
  std::size_t column = 0;
  for (std::size_t at = name.start; at > from && !Is(name.text[at - 1], kLineEnd); --at, ++column) {
    const char byte = name.text[at - 1];
    if (byte != ' ' && !(byte == '-' && column > 0)) return npos;
  }
  return column < kNameReach ? column : npos;
}

bool IsInTellingSection(const Name& name) {
  constexpr std::size_t kSectionReach = 256;
  if (name.begin != name.word_begin || name.end != name.word_end || At(name.text, name.end) != '=') {
    return false;
  }
  if (!Is(Before(name.text, name.begin), kLineEnd)) return false;
  const std::size_t from = name.begin - std::min(name.begin, kSectionReach);
  const std::string_view above = name.text.substr(from, name.begin - from);
  look_cost += 20 + 2 * above.size();
  const std::size_t head = above.rfind("\n[");
  const std::size_t begin = head != npos ? head + 2 : from == 0 && StartsWith(above, "[") ? 1 : npos;
  if (begin == npos) return false;
  const std::string_view section = above.substr(begin, above.find_first_of("]\n", begin) - begin);
  static constexpr std::array<std::string_view, 12> kWords = {
      "key", "security", "wifi", "wi-fi", "wlan", "lora", "zigbee", "crypt", "psk", "wep", "mesh", "auth"};
  for (std::size_t at = 0; at < section.size(); ++at) {
    for (const std::string_view word : kWords) {
      if (StartsWithWord(section.substr(at), word)) return true;
    }
  }
  return false;
}

bool EndsName(const Name& name) {
  return SkipForward(name.text, name.word_end, kDigit | kDash, kNameReach) == name.end;
}

bool IsWholeWord(const Name& name) {
  const char before = Before(name.text, name.word_begin);
  const bool begins = name.word_begin == name.begin || !Is(before, kAlnum) ||
                      (Is(before, kLowerDigit) && Is(name.text[name.word_begin], kUpper)) ||
                      Is(before, kDigit);
  return begins && EndsName(name);
}

bool IsHarmlessName(const Name& name) {
  const std::string_view tail = WithoutEnd(name.tail(), kDash | kDot | kDigit);
  const std::size_t last = LastWord(tail);
  std::string_view end = tail.substr(last);
  // HashiCorp's "secret_id" is the secret itself.
  if (IsSameWord(end, "id") && IsSameWord(name.word(), "secret") && !IsSameWord(tail, "sid") &&
      name.tail().size() <= 3) {
    return false;
  }
  if (HarmlessEnds().Has(end)) return true;
  if (last > 0 && tail[last - 1] == '.' && HarmlessSuffixes().Has(tail.substr(last - 1))) return true;
  const std::string_view first = FirstWord(name.whole());
  if (first.size() < name.whole().size() && HarmlessBeginnings().Has(first)) return true;
  static constexpr std::array<std::string_view, 4> kBeginnings = {"nopass", "libsecret", "libpass",
                                                                  "servertokens"};
  static constexpr std::array<std::string_view, 3> kPublic = {"public", "publickey", "server_"};
  return std::any_of(kBeginnings.begin(), kBeginnings.end(),
                     [&](std::string_view begin) { return StartsWithWord(name.whole(), begin); }) ||
         std::any_of(kPublic.begin(), kPublic.end(), [&](std::string_view head) {
           return IsSameWord(name.head(), head) && !IsSameWord(name.word(), "secret") &&
                  !StartsWithWord(name.word(), "pass");
         });
}

KeyName KindOfKeyName(const Name& name) {
  const std::string_view tail = WithoutEnd(name.tail(), kDigit | kDash | kDot);
  const std::size_t last = LastWord(tail);
  if (!tail.empty() && !KeyForms().Has(tail.substr(last))) return KeyName::kNoSecret;
  if (!tail.empty() && last == 0 && tail != "s" && tail != "S" && !Is(tail.front(), kUpper)) {
    return KeyName::kNoSecret;  // "keyboard", "keyring".
  }
  std::string_view head = WithoutEnd(name.head(), kDash | kDot);
  if (head.empty() && Before(name.text, name.begin) == ' ') {
    // "Unseal Key 1: ", "api key: "
    const std::size_t end = name.begin - 1;
    const std::size_t begin = SkipBack(name.text, end, kIdentifierByte, 16);
    const char before = Before(name.text, begin);
    if (Is(before, kBlank | kLineEnd | kQuote) || Contains("(:", before)) {
      head = name.text.substr(begin, end - begin);
    }
  }
  const std::string_view word = head.substr(LastWord(head));
  if (word.empty() || HarmlessKeys().Has(word)) return KeyName::kNoSecret;
  if (SecretKeys().Has(word)) return KeyName::kSecret;
  // "apikey" is one word with "key"; "myapikey" ends as one.
  static constexpr std::array<std::string_view, 12> kJoined = {"api",     "access",  "auth",     "account",
                                                               "secret",  "private", "master",   "encryption",
                                                               "signing", "shared",  "consumer", "pass"};
  if (std::any_of(kJoined.begin(), kJoined.end(), [&](std::string_view end) {
        return word.size() > end.size() && IsSameWord(word.substr(word.size() - end.size()), end);
      })) {
    return KeyName::kSecret;
  }
  const bool parted = head.size() != name.head().size() || Is(name.text[name.word_begin], kUpper);
  return parted ? KeyName::kPerhaps : KeyName::kNoSecret;
}

}  // namespace TARVO::SupportForm
