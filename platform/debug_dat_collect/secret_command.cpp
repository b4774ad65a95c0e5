#include "secret_command.h"

#include <algorithm>
#include <string>
#include <unordered_map>

#include "secret_value.h"
#include "text_look.h"
#include "word_set.h"

namespace TARVO::SupportForm {
namespace {

/// Which part of an argument is the secret.
enum class Part {
  kWhole,
  kAfterColon,      ///< "user:secret"
  kAfterLastColon,  ///< "hmac-sha256:name:secret"
  kAfterPercent,    ///< "user%secret"
  kAfterComma,      ///< "user,secret"
  kAfterSlash,      ///< "user/secret@database"
  kAfterEquals,     ///< "name=secret"
  kAfterPass,       ///< "pass:secret"
};

/// Where the argument stands.
enum class ArgumentPlace {
  kOption,      ///< Behind one of the options, or joined to it.
  kJoined,      ///< Joined to one of the options.
  kPositional,  ///< The nth word that is no option, behind `needs` where that is given.
  kAny,         ///< Any word that is no option.
  kLast,        ///< The last word that is no option.
};

struct CommandRule {
  const char* commands;  ///< Names, parted by blanks; one that ends with '*' stands for all that begin so.
  const char*
      needs;  ///< A word that has to stand before, or the beginning of one if it ends with '.' or is an
              ///< option's letter behind '-'; "" for none.
  const char* options;  ///< Parted by blanks.
  ArgumentPlace place = ArgumentPlace::kOption;
  Part part = Part::kWhole;
  unsigned nth = 0;  ///< Of kPositional, from 1.
};

/// The rows look alike because each is a rule: programs, what has to stand in the line, where the secret is.
constexpr CommandRule kRules[] = {
    {"mysql* mariadb* mycli xtrabackup innobackupex", "", "-p", ArgumentPlace::kJoined},
    {"mysqladmin mariadb-admin", "password", "", ArgumentPlace::kPositional, Part::kWhole, 1},
    {"curl", "", "-u --user -U --proxy-user -E --cert --proxy-cert", ArgumentPlace::kOption,
     Part::kAfterColon},
    {"curl", "", "--pass --proxy-pass --oauth2-bearer --tlspassword", ArgumentPlace::kOption},
    {"curl", "", "-b --cookie", ArgumentPlace::kOption, Part::kAfterEquals},
    {"sshpass", "", "-p"},
    {"ssh-keygen", "", "-N -P"},
    {"ldap* basic_ldap_auth squid_ldap_group squid_ldap_auth ext_ldap_group_acl", "", "-w"},
    {"ldappasswd", "", "-s -a"},
    {"slappasswd", "", "-s"},
    {"redis-cli valkey-cli", "", "-a --pass"},
    {"smbclient rpcclient net smbget smbcacls smbtree winexe samba-tool", "", "-U --user",
     ArgumentPlace::kOption, Part::kAfterPercent},
    {"wbinfo", "", "-a -K --authenticate --krb5auth", ArgumentPlace::kOption, Part::kAfterPercent},
    {"net", "user", "", ArgumentPlace::kPositional, Part::kWhole, 2},
    {"snmp*", "", "-c -A -X"},
    {"openssl", "", "-passin -passout -pass --passin --passout", ArgumentPlace::kOption, Part::kAfterPass},
    {"openssl", "", "-k -K"},
    {"docker podman buildah nerdctl skopeo crane oras helm oc az crane regctl cf", "login", "-p -u_p"},
    {"skopeo crictl podman buildah", "", "--creds --src-creds --dest-creds", ArgumentPlace::kOption,
     Part::kAfterColon},
    {"htpasswd mosquitto_passwd", "-b", "", ArgumentPlace::kLast},
    {"zip unzip zipcloak", "", "-P"},
    {"7z 7za 7zr 7zz rar unrar", "", "-p -hp", ArgumentPlace::kJoined},
    {"mosquitto_pub mosquitto_sub mosquitto_rr", "", "-P --pw --psk"},
    {"mongo* cqlsh nodetool ncftp* twine testsaslauthd fence_* openfortivpn doveadm ipmipower bmc-info "
     "psexec "
     "useradd usermod xfreerdp rdesktop youtube-dl yt-dlp evil-winrm crackmapexec beeline vsql pcs "
     "ipa-server-install "
     "unlock-keychain add-generic-password sshuttle",
     "", "-p"},
    {"kadmin* ipa-client-install vsql add-generic-password", "", "-w"},
    {"ipa-server-install", "", "-a"},
    {"kdb5_util ipmitool sqlcmd bcp isql osql tsql", "", "-P"},
    {"addprinc ank cpw modprinc plink pscp psftp", "", "-pw"},
    {"nmcli", "",
     "password psk wifi-sec.psk 802-11-wireless-security.psk wifi-sec.wep-key0 "
     "802-11-wireless-security.wep-key0 "
     "802-1x.password wep-key0 802-1x.private-key-password gsm.pin gsm.password vpn.secrets"},
    {"wpa_cli", "", "psk wep_key0 password sae_password passphrase private_key_passwd pin"},
    {"wpa_cli", "wps_reg", "", ArgumentPlace::kPositional, Part::kWhole, 2},
    {"wpa_cli", "wps_pin", "", ArgumentPlace::kPositional, Part::kWhole, 2},
    {"iwconfig", "", "key enc"},
    {"pppd", "", "password"},
    {"wpa_passphrase", "", "", ArgumentPlace::kPositional, Part::kWhole, 2},
    {"rabbitmqctl", "add_user", "", ArgumentPlace::kPositional, Part::kWhole, 2},
    {"rabbitmqctl", "change_password", "", ArgumentPlace::kPositional, Part::kWhole, 2},
    {"rabbitmqctl", "authenticate_user", "", ArgumentPlace::kPositional, Part::kWhole, 2},
    {"radtest", "", "", ArgumentPlace::kPositional, Part::kWhole, 2},
    {"radtest", "", "", ArgumentPlace::kPositional, Part::kWhole, 5},
    {"radclient", "", "", ArgumentPlace::kPositional, Part::kWhole, 3},
    {"vault", "login", "", ArgumentPlace::kPositional, Part::kWhole, 1},
    {"vault", "unseal", "", ArgumentPlace::kPositional, Part::kWhole, 1},
    {"composer poetry", "http-basic.", "", ArgumentPlace::kPositional, Part::kWhole, 2},
    {"composer poetry", "pypi-token.", "", ArgumentPlace::kPositional, Part::kWhole, 1},
    {"composer", "github-oauth.", "", ArgumentPlace::kPositional, Part::kWhole, 1},
    {"composer", "gitlab-token.", "", ArgumentPlace::kPositional, Part::kWhole, 1},
    {"composer", "bearer.", "", ArgumentPlace::kPositional, Part::kWhole, 1},
    {"bundle", "config", "", ArgumentPlace::kAny, Part::kAfterColon},
    {"etcdctl", "", "--user", ArgumentPlace::kOption, Part::kAfterColon},
    {"etcdctl", "add", "", ArgumentPlace::kAny, Part::kAfterColon},
    {"lftp", "", "-u", ArgumentPlace::kOption, Part::kAfterComma},
    {"rclone", "obscure", "", ArgumentPlace::kPositional, Part::kWhole, 1},
    {"grafana-cli", "reset-admin-password", "", ArgumentPlace::kPositional, Part::kWhole, 1},
    {"transmission-remote", "", "-n --auth", ArgumentPlace::kOption, Part::kAfterColon},
    {"nsupdate dig rndc mdig delv", "", "-y", ArgumentPlace::kOption, Part::kAfterLastColon},
    {"doveadm", "test", "", ArgumentPlace::kPositional, Part::kWhole, 2},
    {"sqlplus rman expdp impdp sqlldr", "", "", ArgumentPlace::kAny, Part::kAfterSlash},
    {"consul", "", "-encrypt"},
    {"dotnet", "set", "", ArgumentPlace::kPositional, Part::kWhole, 2},
    {"nuget", "setapikey", "", ArgumentPlace::kPositional, Part::kWhole, 1},
    {"snyk", "auth", "", ArgumentPlace::kPositional, Part::kWhole, 1},
    {"cargo", "login", "", ArgumentPlace::kPositional, Part::kWhole, 1},
    {"doctl", "", "-t"},
    {"kubectl oc", "secret", "--from-literal", ArgumentPlace::kOption, Part::kAfterEquals},
    {"swaks", "", "-ap --auth-password"},
    {"sendemail", "", "-xp"},
    {"keytool jarsigner", "",
     "-storepass -keypass -srcstorepass -deststorepass -srckeypass -destkeypass -new -newpass"},
};

/// Commands that read a secret from the pipe before them; or do with one of kStdinOptions.
const WordSet<128>& PipeReaders() {
  static const WordSet<128> words = {"chpasswd", "kinit",    "smbpasswd", "cryptsetup", "su",
                                     "passwd",   "newusers", "kpasswd",   "gpg",        "pdbedit"};
  return words;
}
const WordSet<128>& StdinOptions() {
  static const WordSet<128> words = {"--password-stdin", "--stdin", "-s",     "--passphrase-fd",
                                     "--with-token",     "secret",  "stdin:", "-passin"};
  return words;
}

/// Calls `take` with each of the words in `text`.
template <class Take>
void ForEachWord(std::string_view text, const Take& take) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find(' ', at), text.size());
    if (end > at) take(text.substr(at, end - at));
    at = end + 1;
  }
}

/// The rules of each command.
class Commands {
 public:
  using Rules = std::vector<const CommandRule*>;

  Commands() {
    for (const CommandRule& rule : kRules) {
      ForEachWord(rule.commands, [&](std::string_view name) {
        if (name.back() == '*') {
          families_.emplace_back(name.substr(0, name.size() - 1), &rule);
        } else {
          rules_[name].push_back(&rule);
        }
      });
    }
    for (auto& [name, rules] : rules_) AddFamilies(name, rules);
  }

  /// Null if the command is not known.
  const Rules* Find(std::string_view name) const {
    const auto found = rules_.find(name);
    if (found != rules_.end()) return &found->second;
    for (const Family& family : families_) {
      if (StartsWith(name, family.begin)) return &family.rules;
    }
    return nullptr;
  }

 private:
  struct Family {
    Family(std::string_view text, const CommandRule* rule) : begin(text), rules({rule}) {}
    std::string_view begin;
    Rules rules;
  };

  void AddFamilies(std::string_view name, Rules& rules) const {
    for (const Family& family : families_) {
      if (StartsWith(name, family.begin)) rules.insert(rules.end(), family.rules.begin(), family.rules.end());
    }
  }

  std::unordered_map<std::string_view, Rules> rules_;
  std::vector<Family> families_;
};

const Commands& KnownCommands() {
  static const Commands commands;
  return commands;
}

/// A word of a command line; [begin, end) is what stands in its quotes.
struct Argument {
  std::size_t begin = 0;
  std::size_t end = 0;
  std::size_t behind = 0;  ///< Where to look for the next one.
};

/// Whether a quote may open there in the middle of a word: -p'two words', --user="a b".
bool OpensInside(std::string_view word) {
  return word.empty() || Contains("=:%,", word.back()) || (word.size() == 2 && word.front() == '-');
}

Argument QuotedArgument(std::string_view text, std::size_t at, const Sign& quote, std::size_t limit) {
  Argument argument;
  argument.begin = at + quote.size;
  for (std::size_t end = argument.begin; end < limit; ++end) {
    if (text[end] != quote.meaning && text[end] != '\\' && !quote.coded) continue;
    const Sign sign = SignAt(text, end);
    if (sign.meaning == quote.meaning && sign.level == quote.level && sign.coded == quote.coded) {
      argument.end = end;
      argument.behind = end + sign.size;
      // 'it'\''s' goes on.
      if (quote.level == 0 && From(text, end, 4) == "'\\''") {
        end += 3;
        continue;
      }
      return argument;
    }
    if (sign.meaning == quote.meaning) end += sign.size - 1;
  }
  argument.end = limit;
  argument.behind = limit;
  return argument;
}

Argument PlainArgument(std::string_view text, std::size_t at, std::size_t limit) {
  Argument argument;
  argument.begin = at;
  std::size_t end = at;
  while (end < limit && !Is(text[end], kBlank) && !Contains("|;`", text[end])) {
    if (From(text, end, 2) == "&&" || (text[end] == ')' && end > at)) break;
    const Sign sign = SignAt(text, end);
    if (Is(sign.meaning, kQuote)) {
      if (!OpensInside(text.substr(at, end - at))) break;
      const Argument quoted = QuotedArgument(text, end, sign, limit);
      end = std::max(quoted.behind, end + 1);
      continue;
    }
    ++end;
  }
  argument.end = end;
  argument.behind = std::max(end, at + 1);
  return argument;
}

/// Looks through the words of a line, from a command's name on.
class Line {
 public:
  Line(std::string_view text, std::size_t begin, std::size_t end, std::vector<Secret>& found)
      : text_(text), at_(begin), end_(end), found_(found) {}

  /// @return Where it stopped: at the end, or where so many secrets were found that another look is due.
  std::size_t Find() {
    constexpr std::size_t kMostSecrets = 16;
    while (at_ < end_ && found_.size() < kMostSecrets) {
      const char byte = text_[at_];
      if (Is(byte, kBlank) || Contains(",[]({}", byte)) {
        ++at_;
      } else if (Contains("|;&)`", byte)) {
        EndCommand(byte);
        ++at_;
      } else {
        const Sign sign = SignAt(text_, at_);
        const bool closes = Is(sign.meaning, kQuote) && ClosesAround(sign);
        if (closes) {
          at_ += sign.size;
          continue;
        }
        const Argument argument = Is(sign.meaning, kQuote) ? QuotedArgument(text_, at_, sign, end_)
                                                           : PlainArgument(text_, at_, end_);
        Take(argument);
        at_ = std::max(argument.behind, at_ + 1);
      }
    }
    EndCommand('\n');
    return at_;
  }

 private:
  /// Whether a quote ends the command line itself: what follows it begins no word.
  [[nodiscard]] bool ClosesAround(const Sign& quote) const {
    return !Is(Before(text_, at_), kBlank) && !Contains(",[(", Before(text_, at_)) && quote.size > 0;
  }

  void Take(const Argument& argument) {
    const std::string_view word = text_.substr(argument.begin, argument.end - argument.begin);
    if (word.empty()) return;
    look_cost += 40 + word.size();
    const std::string_view base = word.substr(word.rfind('/') + 1);
    if (rules_ == nullptr || !takes_next_) {
      if (const Commands::Rules* rules = KnownCommands().Find(base)) return BeginCommand(rules);
    }
    if (base == "echo" || base == "printf") {
      echoes_ = true;
      return;
    }
    if (echoes_) {
      if (word.front() != '-' && !Contains(word, '%')) echoed_.push_back(argument);
      return;
    }
    if (piped_ &&
        (PipeReaders().Has(base) || StdinOptions().Has(word) || StdinOptions().Has(word.substr(0, 8)))) {
      TakeEchoed();
    }
    if (rules_ != nullptr) TakeArgument(argument, word);
  }

  void BeginCommand(const Commands::Rules* rules) {
    EndLast();
    look_cost += 60;
    rules_ = rules;
    words_.clear();
    takes_next_ = nullptr;
    needed_at_.clear();
    for (const CommandRule* rule : *rules) needed_at_.push_back(*rule->needs == '\0' ? 0 : npos);
  }

  void EndCommand(char byte) {
    EndLast();
    rules_ = nullptr;
    takes_next_ = nullptr;
    echoes_ = false;
    words_.clear();
    piped_ = byte == '|';
    if (byte == '&' || byte == '\n') echoed_.clear();
  }

  void TakeEchoed() {
    for (const Argument& argument : echoed_) {
      const std::string_view word = text_.substr(argument.begin, argument.end - argument.begin);
      const std::size_t colon = word.find(':');
      const bool pair = colon != npos && colon + 1 < word.size();
      Add(argument.begin + (pair ? colon + 1 : 0), argument.end);
    }
    echoed_.clear();
  }

  void TakeArgument(const Argument& argument, std::string_view word) {
    if (takes_next_ != nullptr) {
      const CommandRule* rule = takes_next_;
      takes_next_ = nullptr;
      if (word.front() != '-') {
        AddPart(*rule, argument.begin, argument.end);
        return;
      }
    }
    for (std::size_t number = 0; number < rules_->size(); ++number) {
      const CommandRule& rule = *(*rules_)[number];
      if ((rule.place == ArgumentPlace::kOption || rule.place == ArgumentPlace::kJoined) &&
          needed_at_[number] != npos) {
        if (TakeOption(rule, argument, word)) break;
      }
    }
    AddWord(argument, word);
    if (word.front() == '-') return;
    for (std::size_t number = 0; number < rules_->size(); ++number) {
      const CommandRule& rule = *(*rules_)[number];
      const bool any = rule.place == ArgumentPlace::kAny && needed_at_[number] != npos;
      if (any || (rule.place == ArgumentPlace::kPositional && Position(number) == rule.nth)) {
        AddPart(rule, argument.begin, argument.end);
      }
    }
  }

  /// Notes the word, and which rules need it.
  void AddWord(const Argument& argument, std::string_view word) {
    constexpr std::size_t kNeedReach = 32;
    look_cost += 20 + 4 * rules_->size();
    for (std::size_t number = 0; number < rules_->size() && words_.size() < kNeedReach; ++number) {
      if (needed_at_[number] == npos && IsNeeded(*(*rules_)[number], word)) {
        needed_at_[number] = words_.size();
      }
    }
    words_.push_back(argument);
  }

  /// @return Whether the word is one of the rule's options.
  bool TakeOption(const CommandRule& rule, const Argument& argument, std::string_view word) {
    look_cost += 20;
    bool taken = false;
    ForEachWord(rule.options, [&](std::string_view option) {
      look_cost += 8;
      if (taken || option.front() != word.front() || !StartsWith(word, option)) return;
      std::size_t begin = option.size();
      if (word.size() == begin) {
        if (rule.place == ArgumentPlace::kOption) takes_next_ = &rule;
        taken = rule.place == ArgumentPlace::kOption;
        return;
      }
      const bool is_long = option.size() > 2;
      if (is_long && word[begin] != '=') return;
      if (option.front() != '-') return;
      if (word[begin] == '=') ++begin;
      const Sign quote = SignAt(word, begin);
      std::size_t end = word.size();
      if (Is(quote.meaning, kQuote)) {
        begin += quote.size;
        if (end > begin) end -= std::min(quote.size, end - begin);
      }
      AddPart(rule, argument.begin + begin, argument.begin + end);
      taken = true;
    });
    return taken;
  }

  /// Whether it is the word that the rule needs.
  static bool IsNeeded(const CommandRule& rule, std::string_view word) {
    const std::string_view needs = rule.needs;
    const bool begins = needs.back() == '.' && StartsWith(word, needs);
    const bool letter = needs.front() == '-' && word.front() == '-' && Contains(word, needs.back());
    return word == needs || begins || letter;
  }

  [[nodiscard]] std::string_view WordOf(const Argument& argument) const {
    return text_.substr(argument.begin, argument.end - argument.begin);
  }

  /// The number of the last word among those that are no options, from 1; 0 if the rule's need is not met.
  [[nodiscard]] unsigned Position(std::size_t number) const {
    const bool free = *(*rules_)[number]->needs == '\0';
    const std::size_t needed = needed_at_[number];
    if (needed == npos) return 0;
    unsigned position = 0;
    for (std::size_t at = free ? 0 : needed + 1; at < words_.size() && position < 8; ++at) {
      if (WordOf(words_[at]).front() != '-') ++position;
    }
    return position;
  }

  void EndLast() {
    if (rules_ == nullptr || words_.empty()) return;
    for (std::size_t number = 0; number < rules_->size(); ++number) {
      const CommandRule& rule = *(*rules_)[number];
      if (rule.place == ArgumentPlace::kLast && needed_at_[number] != npos &&
          WordOf(words_.back()).front() != '-' && words_.size() > 2) {
        AddPart(rule, words_.back().begin, words_.back().end);
      }
    }
  }

  void AddPart(const CommandRule& rule, std::size_t begin, std::size_t end) {
    const std::string_view word = text_.substr(begin, end - begin);
    std::size_t part = 0;
    // A case for each part: where it begins, 0 where the word has none.
    switch (rule.part) {
      case Part::kWhole:
        break;
      case Part::kAfterColon:
        part = word.find(':') + 1;
        break;
      case Part::kAfterLastColon:
        part = word.rfind(':') + 1;
        break;
      case Part::kAfterPercent:
        part = word.find('%') + 1;
        break;
      case Part::kAfterComma:
        part = word.find(',') + 1;
        break;
      case Part::kAfterSlash:
        part = word.find('/') + 1;
        if (part == 1) part = 0;
        if (word.find('@') != npos) end = begin + word.rfind('@');
        break;
      case Part::kAfterEquals:
        part = word.find('=') + 1;
        break;
      case Part::kAfterPass:
        part = StartsWith(word, "pass:") ? 5 : 0;
        break;
    }
    if (rule.part != Part::kWhole && (part == 0 || part == word.size())) return;
    if (rule.part == Part::kAfterColon && StartsWith(word.substr(part), "//")) return;
    Add(begin + part, end);
  }

  void Add(std::size_t begin, std::size_t end) {
    if (end <= begin || IsPlaceholder(text_, begin)) return;
    const std::string_view word = text_.substr(begin, end - begin);
    const bool in_capitals =
        std::all_of(word.begin(), word.end(), [](char c) { return Is(c, kUpper | kDash); });
    if (word.front() == '<' || word.front() == '[' || (in_capitals && IsProse(word))) return;
    if (in_capitals && word.size() > 2 && word.size() < 12) return;  // "-p PASS" of a help text.
    // A word that the reach cuts goes on behind it.
    const bool cut = end == end_ && !Is(At(text_, end_), kLineEnd);
    found_.push_back({begin, cut ? SecretForm::kWord : SecretForm::kFixed, end});
  }

  std::string_view text_;
  std::size_t at_;
  std::size_t end_;
  std::vector<Secret>& found_;
  const Commands::Rules* rules_ = nullptr;   ///< Of the command whose arguments are read.
  const CommandRule* takes_next_ = nullptr;  ///< Takes the next word.
  std::vector<Argument> words_;              ///< Of the command.
  std::vector<std::size_t>
      needed_at_;        ///< Of each rule: the place of the word it needs; npos until it is met.
  bool echoes_ = false;  ///< The command writes its arguments.
  bool piped_ = false;   ///< The command reads what the one before it wrote.
  std::vector<Argument> echoed_;
};

}  // namespace

// NOLINTNEXTLINE(readability-function-size): nothing but the words.
const std::vector<std::string_view>& CommandWords() {
  static const std::vector<std::string_view> words = {"mysql",
                                                      "mariadb",
                                                      "mycli",
                                                      "xtrabackup",
                                                      "innobackupex",
                                                      "curl",
                                                      "sshpass ",
                                                      "ssh-keygen",
                                                      "ldap",
                                                      "slappasswd",
                                                      "redis-cli",
                                                      "valkey-cli",
                                                      "smbclient",
                                                      "rpcclient",
                                                      "net ads",
                                                      "net rpc",
                                                      "net user",
                                                      "smbget",
                                                      "smbcacls",
                                                      "smbtree",
                                                      "winexe",
                                                      "samba-tool",
                                                      "wbinfo",
                                                      "snmp",
                                                      "openssl",
                                                      "docker",
                                                      "podman",
                                                      "buildah",
                                                      "nerdctl",
                                                      "skopeo",
                                                      "crane",
                                                      "oras login",
                                                      "helm",
                                                      "oc login",
                                                      "az login",
                                                      "regctl",
                                                      "crictl",
                                                      "htpasswd",
                                                      "mosquitto_p",
                                                      "mosquitto_sub",
                                                      "mosquitto_rr",
                                                      "zip -",
                                                      "7z",
                                                      "rar a",
                                                      "rar x",
                                                      "mongo",
                                                      "cqlsh",
                                                      "nodetool",
                                                      "ncftp",
                                                      "twine",
                                                      "testsaslauthd",
                                                      "fence_",
                                                      "openfortivpn",
                                                      "doveadm",
                                                      "ipmipower",
                                                      "bmc-info",
                                                      "psexec",
                                                      "useradd",
                                                      "usermod",
                                                      "xfreerdp",
                                                      "rdesktop",
                                                      "youtube-dl",
                                                      "yt-dlp",
                                                      "evil-winrm",
                                                      "crackmapexec",
                                                      "beeline",
                                                      "vsql",
                                                      "pcs host",
                                                      "ipa-",
                                                      "kadmin",
                                                      "kdb5_util",
                                                      "ipmitool",
                                                      "sqlcmd",
                                                      "bcp ",
                                                      "isql",
                                                      "tsql",
                                                      "addprinc",
                                                      "ank -pw ",
                                                      "cpw ",
                                                      "modprinc",
                                                      "plink",
                                                      "pscp",
                                                      "psftp",
                                                      "nmcli",
                                                      "wpa_cli",
                                                      "iwconfig",
                                                      "pppd",
                                                      "wpa_passphrase ",
                                                      "rabbitmqctl",
                                                      "radtest",
                                                      "radclient",
                                                      "vault",
                                                      "composer",
                                                      "poetry",
                                                      "bundle config",
                                                      "etcdctl",
                                                      "lftp",
                                                      "rclone",
                                                      "grafana-cli",
                                                      "transmission-remote",
                                                      "nsupdate",
                                                      "dig -",
                                                      "rndc",
                                                      "sqlplus",
                                                      "rman",
                                                      "expdp",
                                                      "impdp",
                                                      "sqlldr",
                                                      "consul",
                                                      "dotnet",
                                                      "nuget",
                                                      "snyk",
                                                      "cargo login",
                                                      "doctl",
                                                      "kubectl",
                                                      "swaks",
                                                      "sendemail",
                                                      "keytool",
                                                      "jarsigner",
                                                      "unlock-keychain",
                                                      "add-generic-password",
                                                      "echo ",
                                                      "printf "};
  return words;
}

std::size_t FindCommandSecrets(std::string_view text, std::size_t word, std::vector<Secret>& found) {
  look_cost += 80;
  const std::size_t begin = SkipBack(text, word, kNameByte, 32);
  // "dockerd[812]: ", "docker: " say in a log who speaks.
  const std::size_t name_end = SkipForward(text, begin, kNameByte, 64);
  const std::string_view name = From(text, begin, name_end - begin);
  const bool writes = StartsWith(name, "echo") || StartsWith(name, "printf");
  if (Contains("[:", At(text, name_end)) || (!writes && KnownCommands().Find(name) == nullptr)) {
    return name_end;
  }
  const std::size_t end = begin + RestOfLine(text, begin, kCommandReach).size();
  return Line(text, begin, end, found).Find();
}

}  // namespace TARVO::SupportForm
