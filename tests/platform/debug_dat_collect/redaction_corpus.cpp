/// redaction_corpus FOLDER [--all | --record]: masks each case of the corpus in a folder and prints for each class how
/// many of its secrets are masked whole, how many innocent cases stay as they are, and which are wrong: the first line
/// of each, or with --all the whole case before and after. Texts of which not as many bytes are masked as the folder's
/// record says are printed, too. --record makes that record anew. tests/redaction_corpus/README.md tells the formats.
///
/// Exit status 0 if the floors are reached and the record holds, 1 if not, 2 if the corpus can't be read.
#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "redactor.h"
#include "secret_finder.h"

namespace {

namespace fs = std::filesystem;
using TARVO::SupportForm::RedactionRules;
using TARVO::SupportForm::Redactor;

/// What docs/redaction.md promises to mask; the other classes are what else is met.
constexpr std::array<std::string_view, 15> kPromised = {
    "named", "quoted", "prefixed", "aligned",  "coloured",   "json",          "yaml",        "xml",
    "url",   "jwt",    "hash",     "cloudkey", "privatekey", "authorization", "harmlessword"};
constexpr std::string_view kInnocent = "innocent";
constexpr double kPromisedFloor = 0.98;
constexpr double kSecretsFloor = 0.87;
constexpr double kInnocentFloor = 0.97;

struct Case {
  std::string place;  ///< File and line.
  std::string kind;   ///< Its class, or kInnocent.
  std::string text;
  std::vector<bool> secret;  ///< Of each byte of the text.
};

struct Score {
  unsigned right = 0;
  unsigned all = 0;

  void Add(bool is_right) {
    right += is_right ? 1 : 0;
    ++all;
  }
  [[nodiscard]] double share() const { return all == 0 ? 1 : static_cast<double>(right) / all; }
};

/// Takes a line of a case, its marks apart.
void Append(Case& item, std::string_view line) {
  static constexpr std::string_view kOpen = "\u27e6";
  static constexpr std::string_view kClose = "\u27e7";
  bool secret = false;
  while (!line.empty()) {
    if (line.substr(0, kOpen.size()) == kOpen || line.substr(0, kClose.size()) == kClose) {
      secret = line.substr(0, kOpen.size()) == kOpen;
      line.remove_prefix(kOpen.size());
      continue;
    }
    item.text += line.front();
    item.secret.push_back(secret);
    line.remove_prefix(1);
  }
}

std::vector<Case> ReadCases(const fs::path& path) {
  std::ifstream file(path);
  std::vector<Case> cases;
  std::string line;
  const auto end_case = [&] {
    // The empty line before the next case belongs to none.
    if (!cases.empty() && cases.back().text.size() > 1 &&
        cases.back().text.compare(cases.back().text.size() - 2, 2, "\n\n") == 0) {
      cases.back().text.pop_back();
      cases.back().secret.pop_back();
    }
  };
  for (unsigned number = 1; std::getline(file, line); ++number) {
    if (line.compare(0, 4, "=== ") == 0) {
      end_case();
      std::istringstream words(line.substr(4));
      std::string kind;
      words >> kind;
      if (kind == "secret") words >> kind;
      cases.push_back({path.filename().string() + ":" + std::to_string(number), kind, "", {}});
    } else if (!cases.empty()) {
      Append(cases.back(), line + "\n");
    }
  }
  end_case();
  if (file.bad()) throw std::runtime_error("can't read " + path.string());
  return cases;
}

std::vector<Case> ReadCorpus(const fs::path& folder) {
  std::vector<fs::path> paths;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    if (entry.path().extension() == ".txt") paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  std::vector<Case> cases;
  for (const fs::path& path : paths) {
    for (Case& item : ReadCases(path)) cases.push_back(std::move(item));
  }
  if (cases.empty()) throw std::runtime_error("no cases in " + folder.string());
  return cases;
}

std::string Redacted(const RedactionRules& rules, std::string text) {
  Redactor redactor(&rules);
  static_cast<void>(redactor.Process(text.data(), text.size(), true));
  return text;
}

bool IsRight(const Case& item, const std::string& redacted) {
  if (item.kind == kInnocent) return redacted == item.text;
  for (std::size_t at = 0; at < redacted.size(); ++at) {
    if (item.secret[at] && redacted[at] != '*') return false;
  }
  return true;
}

void PrintWrong(const Case& item, const std::string& redacted, bool whole) {
  std::printf("%s %s: ", item.place.c_str(), item.kind.c_str());
  if (whole) {
    std::printf("\n%s---- becomes\n%s\n", item.text.c_str(), redacted.c_str());
    return;
  }
  // The first line in which something is wrong.
  std::size_t wrong = 0;
  while (wrong < redacted.size() &&
         (item.kind == kInnocent ? redacted[wrong] == item.text[wrong]
                                 : !item.secret[wrong] || redacted[wrong] == '*')) {
    ++wrong;
  }
  const std::size_t begin = wrong == 0 ? 0 : item.text.rfind('\n', wrong - 1) + 1;
  std::printf("%s\n", item.text.substr(begin, item.text.find('\n', wrong) - begin).c_str());
}

void PrintScore(std::string_view name, const Score& score) {
  std::printf("%-14.*s %4u of %4u  %5.1f %%\n", static_cast<int>(name.size()), name.data(), score.right,
              score.all, 100 * score.share());
}

// ---- The record: how many bytes are masked of many texts ----

constexpr const char* kRecordFile = "masked_bytes";

/// A text of which the record says how many bytes are masked.
struct RecordedText {
  std::string line;   ///< How the record's line begins.
  std::string place;  ///< For people.
  std::string text;
};

std::string InJson(const std::string& text) {
  std::string escaped = R"({"level": 3, "msg": ")";
  for (const char byte : text) {
    if (byte == '"' || byte == '\\') escaped += '\\';
    escaped += byte == '\n' ? "\\n" : std::string(1, byte);
  }
  return escaped + "\"}\n";
}

std::string InALog(const std::string& text) {
  std::istringstream lines(text);
  std::string log;
  for (std::string line; std::getline(lines, line);) {
    log += "Nov 22 10:07:15 device app[4711]: " + line + "\n";
  }
  return log;
}

std::string InCapitals(const std::string& text) {
  std::string capitals = text;
  std::transform(text.begin(), text.end(), capitals.begin(), [](char byte) {
    return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 'a' + 'A') : byte;
  });
  return capitals;
}

/// With the line ends of another system.
std::string WithReturns(const std::string& text) {
  std::string lines;
  for (const char byte : text) lines += byte == '\n' ? "\r\n" : std::string(1, byte);
  return lines;
}

/// Behind more text than is looked at around a word.
std::string FarBehind(const std::string& text) {
  std::string log;
  while (log.size() < TARVO::SupportForm::kFinderReach) {
    log += "10:07:15 the pump runs at its usual speed\n";
  }
  return log + text;
}

/// What may stand before and behind a fixed word.
std::vector<std::pair<std::string, std::string>> Surroundings() {
  const std::string key = "Zk3Yd8sQ2rT5vB9xW1mN7pL4hJ6gF0cDqAeUiOyKzR3tE8wS5uX2bV9nM1aG7fH4jP6lC0dI";
  const std::string digits = "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08";
  std::vector<std::pair<std::string, std::string>> all = {{"db_", " = harbour 7, x"},
                                                          {"", ": harbour7\nnext: 1"},
                                                          {"\"", "\": \"harbour 7\","},
                                                          {"--", " harbour7 host"},
                                                          {"--", "=harbour7 host"},
                                                          {"<", ">harbour7</x>"},
                                                          {"set ", " harbour7"},
                                                          {"the ", " is harbour7"},
                                                          {"ada:1:", "(\"harbour7\")"},
                                                          {"$ ", " -p harbour7 -u ada:harbour8 host"},
                                                          {"http://ada", "harbour7@host/?x=1"},
                                                          {"", digits.substr(0, 32)},
                                                          {" ", " " + digits},
                                                          {"", "'harbour7', 'x'"},
                                                          {"ada ", " 482913"},
                                                          {"", "\n  harbour7\n"},
                                                          {"", "ada ; harbour7]"},
                                                          {" ", ":harbour7:ada:1:2:3:4"}};
  for (const std::size_t length :
       {9U, 10U, 15U, 16U, 17U, 18U, 19U, 20U, 21U, 22U, 23U, 24U, 29U, 30U, 39U, 40U, 49U, 50U}) {
    all.emplace_back("x ", key.substr(0, length) + " y");
  }
  return all;
}

/// A word without the blanks at which the record's lines are taken apart.
std::string InOnePiece(const std::string& word) {
  std::string text;
  for (const char byte : word) {
    if (byte > ' ' && byte < '\x7f' && byte != '%') {
      text += byte;
    } else {
      char code[4];
      static_cast<void>(std::snprintf(code, sizeof(code), "%%%02x", static_cast<unsigned>(byte) & 0xffU));
      text += code;
    }
  }
  return text;
}

/// A line of the file of values with its escapes taken for what they mean; a backslash before another byte stays.
std::string Unescaped(const std::string& line) {
  static constexpr std::string_view kEscapes = "nte\\";
  static constexpr std::string_view kMeanings = "\n\t\x1b\\";
  std::string text;
  for (std::size_t at = 0; at < line.size(); ++at) {
    const std::size_t escape =
        line[at] == '\\' && at + 1 < line.size() ? kEscapes.find(line[at + 1]) : kEscapes.npos;
    text += escape == kEscapes.npos ? line[at] : kMeanings[escape];
    if (escape != kEscapes.npos) ++at;
  }
  return text;
}

/// What may stand before and behind a value.
constexpr std::pair<const char*, const char*> kNames[] = {{"password = ", "\nnext = 1\n"},
                                                          {"x password=", " host=x\n"},
                                                          {"  db_password: ", "\n  next: 1\n"},
                                                          {"password ", " next\n"},
                                                          {"{\"password\": ", ", \"x\": 1}\n"},
                                                          {"{\"token\": \"", "\", \"x\": 1}\n"},
                                                          {"tool --secret ", " --next x\n"},
                                                          {"the passphrase is ", ". next\n"},
                                                          {"DB_PASSWORD='", "' next\n"},
                                                          {"api_key: ", "\nnext\n"},
                                                          {"key = ", " next\n"},
                                                          {"\"auth\": \"", "\", x\n"},
                                                          {"<password>", "</password> next\n"},
                                                          {"{\\\"secret\\\": ", ", \\\"x\\\": 1}\n"}};

/// The cases as they are and in other forms, each value behind many names, and each fixed word of the rules in many
/// surroundings.
std::vector<RecordedText> TextsToRecord(const fs::path& folder, const std::vector<Case>& cases) {
  std::vector<RecordedText> texts;
  constexpr std::pair<const char*, std::string (*)(const std::string&)> kForms[] = {{"/json", InJson},
                                                                                    {"/log", InALog},
                                                                                    {"/capitals", InCapitals},
                                                                                    {"/returns", WithReturns},
                                                                                    {"/far", FarBehind}};
  for (const Case& item : cases) {
    const std::string file = item.place.substr(0, item.place.find(':'));
    texts.push_back({file, item.place, item.text});
    for (const auto& [name, form] : kForms) texts.push_back({file + name, item.place, form(item.text)});
  }
  std::ifstream values(folder / "values");
  for (std::string line; std::getline(values, line);) {
    for (const auto& [before, behind] : kNames) {
      const std::string text = before + Unescaped(line) + behind;
      texts.push_back({"value/" + InOnePiece(line), "a value", text});
      texts.push_back({"value/" + InOnePiece(line), "a value", FarBehind(text)});
    }
  }
  for (const TARVO::SupportForm::FixedWord& word : TARVO::SupportForm::FixedWords()) {
    for (const auto& [before, behind] : Surroundings()) {
      std::string text = before;
      text.append(word.text).append(behind).append("\n");
      texts.push_back({"word/" + InOnePiece(word.text), "a fixed word", std::move(text)});
    }
  }
  return texts;
}

/// The numbers of masked bytes by the beginning of their line.
using Record = std::map<std::string, std::vector<std::size_t>>;

Record ReadRecord(const fs::path& path) {
  Record record;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string begin;
    words >> begin;
    for (std::size_t count = 0; words >> count;) record[begin].push_back(count);
  }
  return record;
}

void WriteRecord(const fs::path& path, const Record& record) {
  std::ofstream file(path);
  for (const auto& [begin, counts] : record) {
    file << begin;
    for (const std::size_t count : counts) file << ' ' << count;
    file << '\n';
  }
  if (!file.flush()) throw std::runtime_error("can't write " + path.string());
}

/// Masks the texts. Prints those of which the former record says another number. The last line is what the search of
/// all of them costs, by its own reckoning.
Record MakeRecord(const std::vector<RecordedText>& texts, const Record& former) {
  const RedactionRules rules("/nonexistent/patterns");
  Record record;
  const std::uint64_t cost_before = TARVO::SupportForm::look_cost;
  for (const RecordedText& item : texts) {
    const std::string redacted = Redacted(rules, item.text);
    std::size_t count = 0;
    for (std::size_t at = 0; at < redacted.size(); ++at) count += redacted[at] != item.text[at] ? 1 : 0;
    std::vector<std::size_t>& counts = record[item.line];
    counts.push_back(count);
    const auto known = former.find(item.line);
    if (known == former.end() || known->second.size() < counts.size()) continue;
    const std::size_t expected = known->second[counts.size() - 1];
    if (count == expected) continue;
    std::printf("%s: masked are %zu bytes, recorded %zu:\n%s---- becomes\n%s\n", item.place.c_str(), count,
                expected, item.text.c_str(), redacted.c_str());
  }
  record["~cost"] = {TARVO::SupportForm::look_cost - cost_before};
  return record;
}

/// @return Whether as many bytes are masked in each text as the record says.
bool RecordHolds(const fs::path& folder, const std::vector<Case>& cases) {
  const Record former = ReadRecord(folder / kRecordFile);
  const bool holds = MakeRecord(TextsToRecord(folder, cases), former) == former;
  if (!holds) std::printf("the record does not hold\n");
  return holds;
}

/// @return Whether the floors are reached.
bool Evaluate(const std::vector<Case>& cases, bool whole) {
  const RedactionRules rules("/nonexistent/patterns");
  std::map<std::string, Score> scores;
  Score promised;
  Score secrets;
  Score innocent;
  for (const Case& item : cases) {
    const std::string redacted = Redacted(rules, item.text);
    const bool right = IsRight(item, redacted);
    if (!right) PrintWrong(item, redacted, whole);
    if (item.kind == kInnocent) {
      innocent.Add(right);
      continue;
    }
    scores[item.kind].Add(right);
    secrets.Add(right);
    if (std::find(kPromised.begin(), kPromised.end(), item.kind) != kPromised.end()) promised.Add(right);
  }
  std::printf("\n");
  for (const auto& [kind, score] : scores) PrintScore(kind, score);
  PrintScore("-- promised", promised);
  PrintScore("-- all secrets", secrets);
  PrintScore("-- innocent", innocent);
  return promised.share() >= kPromisedFloor && secrets.share() >= kSecretsFloor &&
         innocent.share() >= kInnocentFloor;
}

}  // namespace

int main(int argc, char** argv) try {
  const std::string_view option = argc == 3 ? argv[2] : "";
  const bool whole = option == "--all";
  if (argc != 2 && !whole && option != "--record") {
    static_cast<void>(std::fprintf(stderr, "usage: redaction_corpus FOLDER [--all | --record]\n"));
    return 2;
  }
  const fs::path folder = argv[1];
  const std::vector<Case> cases = ReadCorpus(folder);
  if (option == "--record") WriteRecord(folder / kRecordFile, MakeRecord(TextsToRecord(folder, cases), {}));
  const bool holds = RecordHolds(folder, cases);
  return Evaluate(cases, whole) && holds ? 0 : 1;
} catch (const std::exception& error) {
  static_cast<void>(std::fprintf(stderr, "redaction_corpus: %s\n", error.what()));
  return 2;
}
