#include "report.h"

#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <array>

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

std::size_t CountOf(const std::vector<Check>& checks, State state) {
  return static_cast<std::size_t>(std::count_if(
      checks.begin(), checks.end(), [state](const Check& check) { return check.state == state; }));
}

std::string Counted(std::size_t count, const std::string& noun) {
  return (count == 0 ? "no" : std::to_string(count)) + " " + noun + (count == 1 ? "" : "s");
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

}  // namespace DebugDatCheck
