/// redaction_corpus FOLDER [--all]: masks each case of the corpus in a folder (tests/redaction_corpus/README.md tells
/// the format) and prints for each class how many of its secrets are masked whole, how many innocent cases stay as
/// they are, and which are wrong: the first line of each, or with --all the whole case before and after.
///
/// Exit status 0 if the floors are reached, 1 if not, 2 if the corpus can't be read.
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
#include <vector>

#include "redactor.h"

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
  const bool whole = argc == 3 && std::string_view(argv[2]) == "--all";
  if (argc != 2 && !whole) {
    static_cast<void>(std::fprintf(stderr, "usage: redaction_corpus FOLDER [--all]\n"));
    return 2;
  }
  return Evaluate(ReadCorpus(argv[1]), whole) ? 0 : 1;
} catch (const std::exception& error) {
  static_cast<void>(std::fprintf(stderr, "redaction_corpus: %s\n", error.what()));
  return 2;
}
