#include "report.h"

#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "library_log.h"

namespace DebugDatCheck {
namespace {

using TarvoOrvane::Internal::MakePrintable;

constexpr std::size_t kStateWidth = 9;
constexpr std::size_t kNameWidth = 22;
/// Servers and files may put in what they like.
constexpr std::size_t kMaxText = 1000;

/// How a state is shown.
struct Look {
  const char* word;
  const char* colour;  ///< The terminal's code for it.
};

/// In the order of the states.
constexpr std::array<Look, 4> kLooks = {
    {{"ok", "\033[32m"}, {"warning", "\033[33m"}, {"problem", "\033[1;31m"}, {"skipped", "\033[2m"}}};

const Look& LookOf(State state) { return kLooks.at(static_cast<std::size_t>(state)); }

std::string Padded(std::string text, std::size_t width) {
  text.resize(std::max(width, text.size() + 1), ' ');
  return text;
}

/// The names of checks, by what kind of problem theirs are; all others are the configuration's.
struct Kind {
  std::string_view name;
  int exit_status;
};
constexpr std::array<Kind, 9> kKinds = {{{"notification host", kServerProblem},
                                         {"notification stream", kServerProblem},
                                         {"CSS host", kServerProblem},
                                         {"CSS server", kServerProblem},
                                         {"free space", kCollectionProblem},
                                         {"pattern file", kCollectionProblem},
                                         {"application", kCollectionProblem},
                                         {"collector", kCollectionProblem},
                                         {"daemon", kDaemonProblem}}};

int KindOf(const Check& check) {
  const auto* const kind =
      std::find_if(kKinds.begin(), kKinds.end(), [&](const Kind& one) { return one.name == check.name; });
  return kind == kKinds.end() ? kConfigurationProblem : kind->exit_status;
}

std::size_t CountOf(const std::vector<Check>& checks, State state) {
  return static_cast<std::size_t>(std::count_if(
      checks.begin(), checks.end(), [state](const Check& check) { return check.state == state; }));
}

}  // namespace

std::string CheckText(const Check& check, bool with_colours) {
  std::string state = Padded(LookOf(check.state).word, kStateWidth);
  if (with_colours) state = LookOf(check.state).colour + state + "\033[0m";
  std::string text = state + Padded(check.name, kNameWidth) + MakePrintable(check.text, kMaxText) + "\n";
  if (!check.advice.empty()) {
    text += std::string(kStateWidth + kNameWidth, ' ') + "-> " + MakePrintable(check.advice, kMaxText) + "\n";
  }
  return text;
}

std::string SummaryText(const std::vector<Check>& checks) {
  const std::size_t skipped = CountOf(checks, State::kSkipped);
  std::string text = Counted(CountOf(checks, State::kProblem), "problem") + ", " +
                     Counted(CountOf(checks, State::kWarning), "warning");
  if (skipped > 0) text += ", " + Counted(skipped, "check") + " skipped";
  return text + "\n";
}

std::string ReportJson(const std::vector<Check>& checks) {
  Json::Value report(Json::objectValue);
  report["ok"] = !HasProblem(checks);
  report["checks"] = Json::Value(Json::arrayValue);
  for (const Check& check : checks) {
    Json::Value& entry = report["checks"].append(Json::Value(Json::objectValue));
    entry["name"] = check.name;
    entry["state"] = LookOf(check.state).word;
    entry["text"] = check.text;
    if (!check.advice.empty()) entry["advice"] = check.advice;
  }
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  return Json::writeString(writer, report) + "\n";
}

bool HasProblem(const std::vector<Check>& checks) { return CountOf(checks, State::kProblem) > 0; }

int ExitStatus(const std::vector<Check>& checks) {
  int status = kNoProblem;
  for (const Check& check : checks) {
    if (check.state != State::kProblem) continue;
    if (status != kNoProblem && status != KindOf(check)) return kSeveralKinds;
    status = KindOf(check);
  }
  return status;
}

}  // namespace DebugDatCheck
