#include "secret_place.h"

#include <algorithm>
#include <array>
#include <string>

#include "secret_name.h"
#include "secret_value.h"
#include "text_look.h"
#include "word_set.h"

namespace TARVO::SupportForm {
namespace {

constexpr std::size_t kArgumentsReach = 384;  ///< Bytes of the arguments of a command or a call.
constexpr std::size_t kPlaceWordReach = 256;  ///< Bytes of one value.
constexpr std::size_t kLineReach = 128;       ///< Bytes of a line before a beginning.

/// How the secret stands behind the beginning.
enum class Place {
  kItem,       ///< Right behind it, in quotes or up to a blank.
  kSecond,     ///< Behind one more word.
  kHex,        ///< As many hexadecimal digits as of a key.
  kHexLine,    ///< The same in bytes up to the end of the line.
  kEncoded,    ///< A member of a key: base64, in quotes.
  kInQuotes,   ///< Right behind it; its last byte is the opening quote.
  kStrings,    ///< All strings of the line.
  kModem,      ///< Arguments of a modem's command: AT+CPIN="1234"
  kCode,       ///< A code for people: "pairing code: 123-45-678"
  kCall,       ///< Arguments of a call: login("bob", "abc")
  kPair,       ///< "bob:abc"
  kUserSlash,  ///< "[bob/abc]"
  kNextLine,   ///< All of the next line.
  kBlock,      ///< The lines below with more blanks before them.
  kNtpKey,     ///< Of an entry "1 MD5 abc".
  kPgpass,     ///< The last field of "host:5432:db:user:abc".
  kHere,       ///< What a command that reads a secret gets: <<< "abc"
  kPassLine,   ///< A protocol's line: PASS abc
  kLoginLine,  ///< a1 LOGIN bob abc
  kAclUser,    ///< user bob on >abc
  kSnmpAuth,   ///< auth sha abc, priv aes 128 abc
  kRawHash,    ///< 40 hexadecimal digits behind an asterisk
};

struct PlaceRule {
  std::string_view word;
  Place place;
  bool any_case = true;
};

/// The rows look alike because each is a rule: what stands before the secret, and in which form it follows.
constexpr PlaceRule kPlaces[] = {
    {" pre-shared-key ", Place::kSnmpAuth},
    {"install code", Place::kCode},
    {"install_code", Place::kCode},
    {"installcode", Place::kCode},
    {"seed = ", Place::kHex},
    {"one-time password", Place::kCode},
    {"one-time passcode", Place::kCode},
    {"mechanism=\"plain\">", Place::kItem},
    {"mechanism='plain'>", Place::kItem},
    {"\"on\" \">", Place::kItem},
    {"credentials(", Place::kCall},
    {"ntlm: ", Place::kHex},
    {" l2tpd ", Place::kItem, false},
    {" pptpd ", Place::kItem, false},
    {"\"AUTH\" ", Place::kStrings, false},
    {"\"auth\" ", Place::kStrings, false},
    {"AT+", Place::kModem, false},
    {"AT$", Place::kModem, false},
    {"AT^", Place::kModem, false},
    {"trapcommunity ", Place::kItem},
    {"config set requirepass ", Place::kItem},
    {"pragma key = ", Place::kItem},
    {"pragma key=", Place::kItem},
    {"pragma hexkey = ", Place::kItem},
    {"pragma rekey = ", Place::kItem},
    {" as x key ", Place::kItem},
    {"\"requirepass\"\n2) ", Place::kItem},
    {"oper-pass ", Place::kItem},
    {"identify_password ", Place::kItem},
    {"\"requirepass\" ", Place::kItem},
    {"\"masterauth\" ", Place::kItem},
    {"\"masterauth\"\n2) ", Place::kItem},
    {"nhrp authentication ", Place::kItem},
    {"network-key ", Place::kItem},
    {"networkkey ", Place::kItem},
    {"dataset pskc ", Place::kItem},
    {"wep-key ", Place::kItem},
    {"wps_pin ", Place::kItem},
    {"wps-pin ", Place::kItem},
    {"convertto-securestring ", Place::kItem},
    {"secret read: ", Place::kItem},
    {"authpassphrase auth ", Place::kItem},
    {"authpassphrase priv ", Place::kItem},
    {"privpassphrase ", Place::kItem},
    {"defpassphrase ", Place::kItem},
    {"-authkey ", Place::kItem},
    {"message-digest-key 1 md5 ", Place::kItem},
    {"authentication-key 1 md5 ", Place::kItem},
    {"authentication text ", Place::kItem},
    {"nickserv identify ", Place::kItem},
    {"nickserv :identify ", Place::kItem},
    {"nickserv register ", Place::kItem},
    {"version 2c ", Place::kItem},
    {"snmp v1, community ", Place::kItem},
    {"snmp v2c, community ", Place::kItem},
    {"--plaintext ", Place::kItem},
    {"= cleartext ", Place::kItem},
    {"unlock-key ", Place::kItem},
    {"--unlock ", Place::kItem},
    {"--setup-pin ", Place::kItem},
    {"--passcode ", Place::kItem},
    {"trapsink ", Place::kSecond},
    {"trap2sink ", Place::kSecond},
    {"informsink ", Place::kSecond},
    {"sentinel auth-pass ", Place::kSecond},
    {"acl-login ", Place::kSecond},
    {"basicauth ", Place::kSecond},
    {"incominguser ", Place::kSecond},
    {"outgoinguser ", Place::kSecond},
    {"-x auth ", Place::kSecond},
    {"/oper ", Place::kSecond},
    {"\noper ", Place::kSecond},
    {"nickserv identify as ", Place::kSecond},
    {"auth-user ", Place::kSecond},
    {"ctl admins passwd ", Place::kSecond},
    {"ejabberdctl change-pw ", Place::kSecond},
    {"-plain64 ", Place::kHex},
    {"-plain ", Place::kHex},
    {":sha256 ", Place::kHex},
    {"(0x", Place::kHex},
    {"-sha1-96:", Place::kHex},
    {"-cbc-md5:", Place::kHex},
    {"arcfour-hmac:", Place::kHex},
    {"rc4-hmac:", Place::kHex},
    {"aad3b435b51404eeaad3b435b51404ee:", Place::kHex},
    {"ha1=", Place::kHex},
    {"ha1: ", Place::kHex},
    {"ha1\":", Place::kHex},
    {"ltk=", Place::kHex},
    {"ltk: ", Place::kHex},
    {"ltk\":", Place::kHex},
    {"irk=", Place::kHex},
    {"irk: ", Place::kHex},
    {"irk\":", Place::kHex},
    {"csrk=", Place::kHex},
    {"csrk: ", Place::kHex},
    {"csrk\":", Place::kHex},
    {"pskc: ", Place::kHex},
    {"pskc=", Place::kHex},
    {"pskc\":", Place::kHex},
    {"seed=", Place::kHex},
    {"seed: ", Place::kHex},
    {"seed\":", Place::kHex},
    {"hex:", Place::kHex},
    {"cookie-1  ", Place::kHex},
    {"volume key: ", Place::kHex},
    {"entropy: ", Place::kHex},
    {"private: ", Place::kHex},
    {"priv=", Place::kHex},
    {"private scalar ", Place::kHex},
    {"salt=", Place::kHex},
    {"salt: ", Place::kHex},
    {"salt = ", Place::kHex},
    {"salt': ", Place::kHex},
    {"salt\": ", Place::kHex},
    {"salt'] = ", Place::kHex},
    {"secret scalar: ", Place::kHex},
    {"k_enc: ", Place::kHex},
    {"k_mac: ", Place::kHex},
    {"mk dump:", Place::kHexLine},
    {"key dump:", Place::kHexLine},
    {"master secret:", Place::kHexLine},
    {"raw key:", Place::kHexLine},
    {"\"d\":", Place::kEncoded, false},
    {"\"k\":", Place::kEncoded, false},
    {"\"p\":", Place::kEncoded, false},
    {"\"q\":", Place::kEncoded, false},
    {"\"dp\":", Place::kEncoded, false},
    {"\"dq\":", Place::kEncoded, false},
    {"\"qi\":", Place::kEncoded, false},
    {"\\\"d\\\":", Place::kEncoded, false},
    {"\\\"k\\\":", Place::kEncoded, false},
    {"'d':", Place::kEncoded, false},
    {"'k':", Place::kEncoded, false},
    {"encrypt =", Place::kEncoded, false},
    {"encrypt\":", Place::kEncoded, false},
    {"encrypt=", Place::kEncoded, false},
    {"\"$\":", Place::kEncoded, false},
    {"\"encoded\":", Place::kEncoded, false},
    {"\"pepper\":", Place::kEncoded, false},
    {"pepper:", Place::kEncoded, false},
    {"pepper=", Place::kEncoded, false},
    {"pepper =", Place::kEncoded, false},
    {"verification code", Place::kCode},
    {"verification_code", Place::kCode},
    {"verificationcode", Place::kCode},
    {"pairing code", Place::kCode},
    {"pairing_code", Place::kCode},
    {"pairingcode", Place::kCode},
    {"pairing-code", Place::kCode},
    {"setup code", Place::kCode},
    {"setup_code", Place::kCode},
    {"setupcode", Place::kCode},
    {"setup-code", Place::kCode},
    {"unlock code", Place::kCode},
    {"unlock_code", Place::kCode},
    {"unlockcode", Place::kCode},
    {"unlock-code", Place::kCode},
    {"recovery code", Place::kCode},
    {"recovery_code", Place::kCode},
    {"recoverycode", Place::kCode},
    {"backup code", Place::kCode},
    {"backup_code", Place::kCode},
    {"activation code", Place::kCode},
    {"activation_code", Place::kCode},
    {"activationcode", Place::kCode},
    {"security code", Place::kCode},
    {"security_code", Place::kCode},
    {"confirmation code", Place::kCode},
    {"confirmation_code", Place::kCode},
    {"one-time code", Place::kCode},
    {"one time code", Place::kCode},
    {"otp code", Place::kCode},
    {"otp_code", Place::kCode},
    {"access code", Place::kCode},
    {"access_code", Place::kCode},
    {"pin code", Place::kCode},
    {"pin_code", Place::kCode},
    {"pincode", Place::kCode},
    {"login code", Place::kCode},
    {"login_code", Place::kCode},
    {"alarm code", Place::kCode},
    {"alarm_code", Place::kCode},
    {"door code", Place::kCode},
    {"door_code", Place::kCode},
    {"entry code", Place::kCode},
    {"entry_code", Place::kCode},
    {"user_code", Place::kCode},
    {"puk code", Place::kCode},
    {"2fa code", Place::kCode},
    {"otp for", Place::kCode},
    {"2fa_code", Place::kCode},
    {"sms code", Place::kCode},
    {"sms_code", Place::kCode},
    {"mfa_code", Place::kCode},
    {"mfa code", Place::kCode},
    {"auth code", Place::kCode},
    {"auth_code", Place::kCode},
    {"device code", Place::kCode},
    {"device_code", Place::kCode},
    {"manual pairing", Place::kCode},
    {"scratch code", Place::kCode},
    {"authentication code", Place::kCode},
    {"login(", Place::kCall},
    {"authenticate(", Place::kCall},
    {".auth(", Place::kCall},
    {"auth=(", Place::kCall},
    {"auth = (", Place::kCall},
    {"connect(", Place::kCall},
    {"new pdo(", Place::kCall},
    {"pdo->__construct(", Place::kCall},
    {"mysqli(", Place::kCall},
    {"basicauth(", Place::kCall},
    {"basic_auth(", Place::kCall},
    {"username_pw_set(", Place::kCall},
    {"createuser(", Place::kCall},
    {"logon(", Place::kCall},
    {"passwordauthentication(", Place::kCall},
    {"networkcredential(", Place::kCall},
    {"userpass(", Place::kCall},
    {"signin(", Place::kCall},
    {"sign_in(", Place::kCall},
    {"simple_bind_s(", Place::kCall},
    {"adduser(", Place::kCall},
    {"add_user(", Place::kCall},
    {"setauth(", Place::kCall},
    {"set_auth(", Place::kCall},
    {"authenticator(", Place::kCall},
    {"login=", Place::kPair},
    {"-auth ", Place::kPair},
    {"stats auth ", Place::kPair},
    {"-a user:", Place::kPair},
    {"\nuser = \"", Place::kPair},
    {"\nuser=", Place::kPair},
    {"dburl=", Place::kPair},
    {"userpass=", Place::kPair},
    {"userpwd=", Place::kPair},
    {"userpw ", Place::kPair},
    {"authinfo=", Place::kPair},
    {"login ok: [", Place::kUserSlash},
    {"login incorrect: [", Place::kUserSlash},
    {"known good\" password): [", Place::kUserSlash},
    {"secret key\n", Place::kNextLine},
    {"334 ugfzc3dvcmq6\n", Place::kNextLine},
    {"334 ugfzc3dvcmq6\r\n", Place::kNextLine},
    {"unlock key:\n\n    ", Place::kNextLine},
    {"proceed to installation:\n\n", Place::kNextLine},
    {"-reset-password -u elastic`):\n  ", Place::kNextLine},
    {"prime1:", Place::kBlock, false},
    {"prime2:", Place::kBlock, false},
    {"exponent1:", Place::kBlock, false},
    {"exponent2:", Place::kBlock, false},
    {"coefficient:", Place::kBlock, false},
    {"privateExponent:", Place::kBlock, false},
    {"priv:", Place::kBlock, false},
    {" MD5 ", Place::kNtpKey, false},
    {" SHA1 ", Place::kNtpKey, false},
    {" SHA256 ", Place::kNtpKey, false},
    {" SHA384 ", Place::kNtpKey, false},
    {" SHA512 ", Place::kNtpKey, false},
    {" AES128 ", Place::kNtpKey, false},
    {" AES256 ", Place::kNtpKey, false},
    {" AES128CMAC ", Place::kNtpKey, false},
    {" AES256CMAC ", Place::kNtpKey, false},
    {":5432:", Place::kPgpass, false},
    {":*:*:", Place::kPgpass, false},
    {":5433:", Place::kPgpass, false},
    {":6432:", Place::kPgpass, false},
    {"<<< ", Place::kHere, false},
    {"PASS ", Place::kPassLine, false},
    {" LOGIN ", Place::kLoginLine, false},
    {" on >", Place::kAclUser, false},
    {" auth sha ", Place::kSnmpAuth},
    {" auth md5 ", Place::kSnmpAuth},
    {" auth sha-256 ", Place::kSnmpAuth},
    {" auth sha256 ", Place::kSnmpAuth},
    {" auth sha512 ", Place::kSnmpAuth},
    {" priv aes ", Place::kSnmpAuth},
    {" priv des ", Place::kSnmpAuth},
    {" priv 3des ", Place::kSnmpAuth},
    {" priv aes128 ", Place::kSnmpAuth},
    {" priv aes256 ", Place::kSnmpAuth},
    {"| *", Place::kRawHash, false},
    {"'*", Place::kRawHash, false},
    {"\"*", Place::kRawHash, false},
    {"cred=", Place::kItem},
    {"getconnection(", Place::kCall},
    {"createconnection(", Place::kCall},
    {"plainauth(", Place::kCall},
    {"\" * \"", Place::kInQuotes, false},
    {"\"\t*\t\"", Place::kInQuotes, false},
};

/// A string among arguments.
struct CallArgument {
  std::size_t begin = 0;
  std::size_t end = 0;
  bool named = false;  ///< Behind "name=" or "name:".
};

/// The strings from `at` on, up to the line's end or, of a call, to the bracket that closes it.
std::vector<CallArgument> StringsFrom(std::string_view text, std::size_t at, bool call) {
  std::vector<CallArgument> strings;
  const std::size_t limit = std::min(text.size(), at + kArgumentsReach);
  std::size_t depth = 0;
  while (at < limit && !Is(text[at], kLineEnd) && strings.size() < 8) {
    look_cost += 2;
    if (!Is(text[at], kQuote | kSpelled) && text[at] != '(' && text[at] != ')') {
      ++at;
      continue;
    }
    const Sign sign = SignAt(text, at);
    if (!sign.coded && (sign.meaning == '"' || (call && sign.meaning == '\''))) {
      CallArgument argument;
      argument.begin = at + sign.size;
      argument.named = call && Contains("=:", Before(text, SkipBlanksBack(text, at)));
      std::size_t end = argument.begin;
      while (end < limit && !Is(text[end], kLineEnd)) {
        look_cost += 2;
        if (!Is(text[end], kQuote | kSpelled)) {
          ++end;
          continue;
        }
        const Sign close = SignAt(text, end);
        if (close.meaning == sign.meaning && close.level == sign.level) break;
        end += close.size;
      }
      if (end >= limit || Is(text[end], kLineEnd)) return strings;
      argument.end = end;
      strings.push_back(argument);
      at = end + sign.size;
      continue;
    }
    if (call && text[at] == '(') ++depth;
    if (call && text[at] == ')' && depth-- == 0) break;
    ++at;
  }
  return strings;
}

void Add(std::string_view text, const CallArgument& argument, std::vector<Secret>& found) {
  if (argument.end > argument.begin && !IsPlaceholder(text, argument.begin)) {
    found.push_back({argument.begin, SecretForm::kFixed, argument.end});
  }
}

bool HasDigit(std::string_view word) {
  return std::any_of(word.begin(), word.end(), [](char byte) { return Is(byte, kDigit); });
}
bool IsAll(std::string_view word, unsigned classes) {
  return std::all_of(word.begin(), word.end(), [&](char byte) { return Is(byte, classes); });
}

bool HasAny(std::string_view name, std::initializer_list<std::string_view> parts) {
  look_cost += parts.size() * (10 + name.size() / 4);
  return std::any_of(parts.begin(), parts.end(),
                     [&](std::string_view part) { return name.find(part) != npos; });
}

/// AT+CPIN="1234", AT+CWJAP="network","abc", AT+APPKEY=2B7E1516...
void FindInModemCommand(std::string_view text, std::size_t begin, std::size_t at,
                        std::vector<Secret>& found) {
  if (Is(Before(text, begin), kAlnum)) return;
  const std::size_t end = SkipForward(text, at, kUpperDigit | kDash, 32);
  const std::string_view name = From(text, at, end - at);
  if (At(text, end) != '=' || name.empty()) return;
  const bool dialled = HasAny(name, {"ICSGP", "CSTT", "MIPCALL", "PDPP", "CGAUTH", "QMTCONN", "MQTT",
                                     "QFTPCFG", "HTTPAUTH", "UPSD", "SAPBR", "NETCFG"});
  const bool wireless = HasAny(name, {"JAP", "CWSAP", "WLAN", "WIFI"});
  const bool telling = HasAny(name, {"PSK", "PASS", "PSW", "PWD", "KEY", "AUTH", "PIN", "SECRET", "TOKEN",
                                     "LOGIN", "CLCK", "FTPPW", "WPA", "PAIR", "JOIN"});
  const bool harmless = HasAny(name, {"PING", "SPIN", "PINMODE", "OPIN"});
  if ((!dialled && !wireless && !telling) || harmless) return;
  const std::vector<CallArgument> strings = StringsFrom(text, end, false);
  if (wireless) {
    // The name of the network comes first.
    if (strings.size() > 1) Add(text, strings[1], found);
  } else if (strings.size() > 1 || (!strings.empty() && telling && name != "CLCK")) {
    const bool only_first = name == "QCPDPP";
    const bool all = only_first || name == "CPIN";
    const bool dial = dialled && !only_first && strings.size() > 3;
    const std::size_t from = all ? 0 : dial ? 2 : name == "CPWD" ? 1 : strings.size() - 1;
    const std::size_t until = only_first ? 1 : strings.size();
    for (std::size_t each = from; each < until; ++each) Add(text, strings[each], found);
  } else if (telling) {
    std::size_t value = end + 1;
    const std::string_view rest = RestOfLine(text, value, kLineReach);
    const std::size_t word = std::min(FirstOf(rest, " \t\"'<\\"), rest.size());
    const std::size_t comma = rest.substr(0, word).rfind(',');
    if (comma != npos) value += comma + 1;
    const std::size_t stop = end + 1 + word;
    if (stop >= value + 4 && HasDigit(text.substr(value, stop - value))) {
      found.push_back({value, SecretForm::kFixed, stop});
    }
  }
}

/// "verification code is 482913", "setup_code": "123-45-678", "recovery codes: 1234-5678, 2345-6789"
void FindCode(std::string_view text, std::size_t begin, std::size_t hit, std::vector<Secret>& found) {
  look_cost += 150;
  const Name name = NameAround(text, begin, hit);
  const std::string_view tail = name.tail();
  const bool plural = tail == "s" || tail == "S";
  if (!tail.empty() && !plural) return;
  const std::optional<Separator> separator = FindSeparator(name);
  std::size_t at = separator ? separator->value : SkipBlanks(text, name.end);
  bool about = false;
  for (unsigned words = 0; words < 4; ++words) {
    static const WordSet<64> fillers = {"is",      "was",   "for", "set",     "to",
                                        "your",    "are",   "=>",  "sent",    "changed",
                                        "updated", "reset", "now", "entered", "received"};
    const std::string_view word = WordAt(text, at, 16);
    if (!fillers.Has(word) && !(about && !HasDigit(word))) break;
    about = IsSameWord(word, "for");  // "code for bob: 482913"
    at = SkipBlanks(text, at + word.size());
  }
  if (At(text, at) == '[') at = SkipBlanks(text, at + 1);
  const std::size_t value = IsQuotedAt(text, at) ? at + SignAt(text, at).size : at;
  std::size_t end = SkipForward(text, value, kIdentifierByte, kPlaceWordReach);
  std::string_view word = From(text, value, end - value);
  if (word.size() < 4 || !HasDigit(word) || IsPlaceholder(text, value)) return;
  found.push_back({value, SecretForm::kFixed, end});
  const std::size_t limit = end + kPlaceWordReach;
  while (plural && end < limit) {
    std::size_t next = end;
    while (next < limit && Contains(" ,\"'", At(text, next))) ++next;
    end = SkipForward(text, next, kIdentifierByte, 64);
    word = From(text, next, end - next);
    if (word.size() < 4 || !HasDigit(word)) return;
    found.push_back({next, SecretForm::kFixed, end});
  }
}

/// login("bob", "abc"), mysqli("host", "bob", "abc", "database")
void FindInCall(std::string_view text, std::size_t at, std::vector<Secret>& found) {
  const std::vector<CallArgument> strings = StringsFrom(text, at, true);
  if (strings.size() < 2) return;
  if (std::any_of(strings.begin(), strings.end(), [](const CallArgument& a) { return a.named; })) return;
  const CallArgument& password = strings[std::min<std::size_t>(strings.size(), 3) - 1];
  const std::string_view word = text.substr(password.begin, password.end - password.begin);
  const std::string_view first = text.substr(strings[0].begin, strings[0].end - strings[0].begin);
  const bool address = FirstOf(first, ".:/") != npos && first.find('@') == npos;
  const bool handler = StartsWith(word, "on_");  // signal.connect("clicked", "on_clicked")
  if ((strings.size() == 2 && (address || handler)) || word.empty() || IsProse(word)) return;
  Add(text, password, found);
}

/// "bob:abc", also in quotes.
void FindPairValue(std::string_view text, std::size_t at, std::vector<Secret>& found) {
  const bool quoted = Is(At(text, at), kQuote);
  if (quoted) ++at;
  const std::string_view word = WordAt(text, at, kPlaceWordReach);
  const std::size_t colon = word.find(':');
  if (colon == npos || colon == 0 || colon + 1 >= word.size()) return;
  std::string_view secret =
      quoted ? RestOfLine(text, at + colon + 1, kPlaceWordReach) : word.substr(colon + 1);
  secret = secret.substr(0, FirstOf(secret, "\"'"));
  const std::string_view user = word.substr(0, colon);
  if (secret.empty() || IsAll(secret, kDigit) || FirstOf(user, "*/=,(){}\"'") != npos) return;
  if (StartsWith(secret, "//") || IsPlaceholder(text, at + colon + 1)) return;
  found.push_back({at + colon + 1, SecretForm::kFixed, at + colon + 1 + secret.size()});
}

/// PASS abc, behind a mark of who says it or an earlier USER line.
void FindPassLine(std::string_view text, std::size_t begin, std::size_t at, std::vector<Secret>& found) {
  std::string_view mark = LineBefore(text, begin, kLineReach);
  while (!mark.empty() && Is(mark.back(), kBlank)) mark.remove_suffix(1);
  const bool said = !mark.empty() && (Contains(">:\"'<]", mark.back()) || EndsWith(mark, "<-"));
  const bool news = EndsWith(mark, "AUTHINFO");
  const std::size_t from = begin - std::min(begin, kLineReach);
  const std::string_view before = text.substr(from, begin - from);
  const bool user = mark.empty() && (Holds(before, "USER ") || Holds(before, "NICK "));
  if (!said && !user && !news) return;
  if (At(text, at) == ':') ++at;
  const std::string_view word = WordAt(text, at, kPlaceWordReach);
  if (word.empty() || word.find('/') != npos || IsPlaceholder(text, at)) return;
  const std::size_t behind = SkipBlanks(text, at + word.size());
  if (said && !Is(At(text, behind), kLineEnd)) return;  // A sentence.
  found.push_back({at, SecretForm::kWord, 0, Contains("'", mark.empty() ? ' ' : mark.back()) ? '\'' : '\0'});
}

/// a1 LOGIN bob abc, AUTH LOGIN Ym9iOmFiYw==
void FindLoginLine(std::string_view text, std::size_t begin, std::size_t at, std::vector<Secret>& found) {
  const std::string_view line = LineBefore(text, begin, kLineReach);
  if (EndsWith(line, "AUTH")) {  // Of SMTP, with base64.
    if (SkipForward(text, at, kBase64Byte, 8) == at + 8) found.push_back({at, SecretForm::kEncoded});
    return;
  }
  const std::string_view tag = line.substr(LastOf(line, " \t\"'") + 1);
  if (tag.empty() || tag.size() > 10 || !IsAll(tag, kAlnum | kDot) || !HasDigit(tag)) return;
  const std::string_view user = WordAt(text, at, kPlaceWordReach);
  const std::size_t value = SkipBlanks(text, at + user.size());
  if (user.empty() || Is(At(text, value), kLineEnd) || IsPlaceholder(text, value)) return;
  if (Is(At(text, value), kQuote)) {
    const std::size_t close = ClosingQuote(text, value + 1, At(text, value), kPlaceWordReach);
    if (close != npos) found.push_back({value + 1, SecretForm::kFixed, close});
  } else {
    found.push_back({value, SecretForm::kWord});
  }
}

/// auth sha abc, priv aes 128 abc; "encrypted" and "localized" may stand between.
void FindSnmpPhrase(std::string_view text, std::size_t at, std::vector<Secret>& found) {
  static const WordSet<64> between = {"128",       "192",       "256", "encrypted",
                                      "localized", "plaintext", "0",   "local"};
  for (unsigned words = 0; words < 3; ++words) {
    const std::string_view word = WordAt(text, at, kPlaceWordReach);
    if (!between.Has(word)) break;
    at = SkipBlanks(text, at + word.size());
  }
  const std::string_view word = WordAt(text, at, kPlaceWordReach);
  if (word.empty() || IsProse(word) || IsSameWord(word, "priv")) return;
  if (const std::optional<Secret> secret = FindItem(text, at)) found.push_back(*secret);
}

/// What a command that reads a secret gets: sudo -S <<< "abc"
void FindHereString(std::string_view text, std::size_t begin, std::size_t at, std::vector<Secret>& found) {
  const std::string_view line = LineBefore(text, begin, kLineReach);
  if (!HasAny(line, {"pass", "secret", "sudo -S", "stdin", "cryptsetup", "kinit", "wg ", "token", "key"})) {
    return;
  }
  if (IsQuotedAt(text, at)) {
    if (const std::optional<Secret> secret = FindQuoted(text, at)) found.push_back(*secret);
  } else if (!IsPlaceholder(text, at)) {
    found.push_back({at, SecretForm::kWord});
  }
}

/// The lines below with more blanks before them: hexadecimal bytes.
void FindHexBlock(std::string_view text, std::size_t begin, std::size_t at, std::vector<Secret>& found) {
  const std::string_view before = LineBefore(text, begin, kLineReach);
  if (!IsAll(before, kBlank)) return;
  std::size_t line = At(text, at) == '\r' ? at + 1 : at;
  if (At(text, line) != '\n') return;
  const std::size_t first = SkipForward(text, line + 1, kBlank, 64);
  const bool bytes = At(text, first + 2) == ':' && At(text, first + 5) == ':';
  if (first > line + 1 + before.size() && bytes) {
    found.push_back({line + 1, SecretForm::kBlock, 0, '\0', before.size()});
  }
}

/// A member of a key: base64 of 20 bytes and more.
void FindEncodedMember(std::string_view text, std::size_t at, std::vector<Secret>& found) {
  at = SkipBlanks(text, at);
  const Sign quote = SignAt(text, at);
  const bool quoted = Is(quote.meaning, kQuote);
  const std::size_t value = at + (quoted ? quote.size : 0);
  const std::size_t end = SkipForward(text, value, kEncodedByte, kPlaceWordReach);
  const std::string_view word = From(text, value, end - value);
  const bool telling = LooksLikeKey(word.substr(0, 64)) || LooksLikeKey(word.substr(0, 24));
  if (word.size() >= 20 && (telling || (quoted && word.size() > 40))) {
    found.push_back({value, SecretForm::kEncoded});
  }
}

/// The word behind the next one.
void FindSecond(std::string_view text, std::size_t at, std::vector<Secret>& found) {
  const std::string_view word = WordAt(text, at, kPlaceWordReach);
  const std::size_t value = SkipBlanks(text, at + word.size());
  if (IsProse(word) || IsOutcome(word) || IsProse(WordAt(text, value, kPlaceWordReach))) return;
  if (value > at + word.size()) Take(FindItem(text, value), found);
}

/// Hexadecimal digits of a key; of a salt, letters too.
void FindHex(std::string_view text, std::size_t begin, std::size_t at, std::vector<Secret>& found) {
  const bool quoted = Is(At(text, at), kQuote);
  if (quoted) ++at;
  const std::size_t end = BehindHexKey(text, at);
  const bool salted = ToLower(text[begin]) == 's' && ToLower(text[begin + 1]) == 'a';
  if (salted && Is(Before(text, begin), kAlnum)) return;
  if (end != npos) {
    found.push_back({at, SecretForm::kFixed, end});
  } else if (salted && quoted && LooksLikeKey(WordAt(text, at, 20))) {
    found.push_back({at, SecretForm::kEncoded});
  }
}

/// bob/abc]
void FindBehindUser(std::string_view text, std::size_t hit, std::vector<Secret>& found) {
  const std::string_view line = RestOfLine(text, hit, kPlaceWordReach);
  const std::size_t slash = line.find('/');
  const std::size_t close = line.find(']');
  if (slash != npos && close != npos && slash + 1 < close && line[slash + 1] != '<') {
    found.push_back({hit + slash + 1, SecretForm::kFixed, hit + close});
  }
}

/// An entry of a key file: 1 MD5 abc
void FindTimeKey(std::string_view text, std::size_t begin, std::size_t at, std::vector<Secret>& found) {
  std::string_view line = LineBefore(text, begin, kLineReach);
  while (!line.empty() && Is(line.front(), kBlank)) line.remove_prefix(1);
  if (line.empty() || line.size() > 5 || !IsAll(line, kDigit)) return;
  if (From(text, at, 4) == "HEX:") at += 4;
  if (From(text, at, 6) == "ASCII:") at += 6;
  // "3 MD5 sums checked" is a sentence.
  const std::size_t behind = SkipBlanks(text, at + WordAt(text, at, kPlaceWordReach).size());
  if (Is(At(text, behind), kLineEnd) || At(text, behind) == '#') Take(FindItem(text, at), found);
}

/// The last field of host:5432:db:bob:abc
void FindLastField(std::string_view text, std::size_t begin, std::size_t hit, std::vector<Secret>& found) {
  const std::string_view rest = RestOfLine(text, hit, kPlaceWordReach);
  const std::size_t database = rest.find(':');
  const bool any = text.substr(begin, hit - begin) == ":*:*:";
  const std::size_t user = any || database == npos ? database : rest.find(':', database + 1);
  const std::size_t blank = FirstOf(rest, " \t");
  if (user != npos && blank > user && user + 1 < rest.size() && !IsPlaceholder(text, hit + user + 1)) {
    found.push_back({hit + user + 1, SecretForm::kLine});
  }
}

/// 40 hexadecimal digits.
void FindRawHash(std::string_view text, std::size_t hit, std::vector<Secret>& found) {
  const std::size_t end = SkipForward(text, hit, kUpperDigit, 41);
  const std::string_view word = From(text, hit, end - hit);
  if (word.size() == 40 && HasDigit(word) && FirstOf(word, "GHIJKLMNOPQRSTUVWXYZ") == npos) {
    found.push_back({hit, SecretForm::kFixed, end});
  }
}

/// The next line, from its last blank on: "C: ZW5naW5l"
void FindNextLine(std::string_view text, std::size_t hit, std::vector<Secret>& found) {
  if (const std::string_view line = RestOfLine(text, hit, kPlaceWordReach); line.size() >= 8) {
    // "C: ZW5naW5l"
    const std::size_t blank = LastOf(line, " \t");
    found.push_back({hit + (blank == npos ? 0 : blank + 1), SecretForm::kLine});
  }
}

}  // namespace

const std::vector<PlaceWord>& PlaceWords() {
  static const std::vector<PlaceWord> words = [] {
    std::vector<PlaceWord> all;
    for (const PlaceRule& rule : kPlaces) all.push_back({rule.word, rule.any_case});
    return all;
  }();
  return words;
}

void FindAtPlace(std::size_t place, std::string_view text, std::size_t begin, std::size_t hit,
                 std::vector<Secret>& found) {
  look_cost += 20;
  const Place kind = kPlaces[place].place;
  const auto take = [&](const std::optional<Secret>& secret) {
    if (secret) found.push_back(*secret);
  };
  std::size_t at = SkipBlanks(text, hit);
  const bool in_word = Is(text[begin], kAlnum) && Is(Before(text, begin), kAlnum);
  if (in_word && kind != Place::kHex && kind != Place::kCall && kind != Place::kItem) return;
  switch (kind) {
    case Place::kInQuotes:
      return take(FindQuoted(text, hit - 1));
    case Place::kStrings:
      for (const CallArgument& argument : StringsFrom(text, hit, false)) Add(text, argument, found);
      return;
    case Place::kModem:
      return FindInModemCommand(text, begin, hit, found);
    case Place::kItem:
      if (!IsProse(WordAt(text, at, kPlaceWordReach))) take(FindItem(text, at));
      return;
    case Place::kSecond:
      return FindSecond(text, at, found);
    case Place::kHex:
      return FindHex(text, begin, at, found);
    case Place::kHexLine:
      if (BehindHexKey(text, at) != npos) found.push_back({at, SecretForm::kLine});
      return;
    case Place::kEncoded:
      return FindEncodedMember(text, hit, found);
    case Place::kCode:
      return FindCode(text, begin, hit, found);
    case Place::kCall:
      return FindInCall(text, hit, found);
    case Place::kPair:
      return FindPairValue(text, at, found);
    case Place::kUserSlash:
      return FindBehindUser(text, hit, found);
    case Place::kNextLine:
      return FindNextLine(text, hit, found);
    case Place::kBlock:
      return FindHexBlock(text, begin, hit, found);
    case Place::kNtpKey:
      return FindTimeKey(text, begin, at, found);
    case Place::kPgpass:
      return FindLastField(text, begin, hit, found);
    case Place::kHere:
      return FindHereString(text, begin, at, found);
    case Place::kPassLine:
      return FindPassLine(text, begin, hit, found);
    case Place::kLoginLine:
      return FindLoginLine(text, begin, hit, found);
    case Place::kAclUser:
      if (At(text, hit) != '=' && HasAny(LineBefore(text, begin, kLineReach), {"user ", "USER "})) {
        take(FindItem(text, hit));
      }
      return;
    case Place::kSnmpAuth:
      return FindSnmpPhrase(text, at, found);
    case Place::kRawHash:
      return FindRawHash(text, hit, found);
  }
}

const std::vector<KeyPrefix>& KeyPrefixes() {
  struct Group {
    SecretForm form;
    std::size_t least;
    std::vector<std::string_view> words;
  };
  static const std::vector<KeyPrefix> prefixes = [] {
    const std::vector<Group> groups = {
        {SecretForm::kUpperDigits, 16, {"ABIA", "ACCA"}},
        {SecretForm::kIdentifier, 12, {"rzp_live_", "rzp_test_"}},
        {SecretForm::kIdentifier,
         20,
         {"syt_",     "duffel_live_", "duffel_test_", "zpka_",        "phx_",         "pcsk_",
          "n8n_api_", "napi_",        "nvapi-",       "lsv2_pt_",     "lsv2_sk_",     "tvly-",
          "tgp_v1_",  "glagent-",     "glimt-",       "glffct-",      "glrtr-",       "glwt-",
          "BBDC-",    "nbp_",         "e2b_",         "jina_",        "aio_",         "AKCp",
          "shpua_",   "xsmtpsib-",    "cal_live_",    "shippo_live_", "shippo_test_", "secret-live-",
          "prct-",    "y0_"}},
        {SecretForm::kEncoded, 20, {"SWMKEY-1-", "vk1.a."}},
        {SecretForm::kIdentifier,
         30,
         {"squ_",
          "sqp_",
          "sqa_",
          "NRII-",
          "NRIQ-",
          "NRRA-",
          "NRAA-",
          "NRSP-",
          "AQVN",
          "EZTK",
          "1//0",
          "rnd_",
          "ATTA",
          "FLWSECK_TEST-",
          "access-sandbox-",
          "access-development-",
          "access-production-",
          "v1.0-",
          "LTAI4",
          "sk-",
          "dt0s01."}},
        {SecretForm::kIdentifier, 40, {"nsec1", "AGE-PLUGIN-"}},
        {SecretForm::kIdentifier, 90, {"xprv"}},
        {SecretForm::kDotted,
         40,
         {"v1.local.", "v2.local.", "v3.local.", "v4.local.", "dp.audit.", "dp.scim.", "mlsn.", "amzn.mws.",
          "sl.u.", "sl.A"}},
        {SecretForm::kEncoded,
         30,
         {"b3BlbnNzaC1rZXktdjE", "cmVmdGtuOj", "FwoGZXIvYXdz", "IQoJb3JpZ2lu", "ABSK"}},
        {SecretForm::kEncoded, 12, {"secret-token:"}},
    };
    std::vector<KeyPrefix> all;
    for (const Group& group : groups) {
      for (const std::string_view word : group.words) all.push_back({word, group.form, group.least});
    }
    return all;
  }();
  return prefixes;
}

}  // namespace TARVO::SupportForm
