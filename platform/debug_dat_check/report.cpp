#include "report.h"

#include <json/value.h>
#include <json/writer.h>

#include <algorithm>

#include "library_log.h"

namespace DebugDatCheck {
namespace {

using TarvoOrvane::Internal::MakePrintable;

constexpr std::size_t kStateWidth = 9;
constexpr std::size_t kNameWidth = 22;
constexpr std::size_t kMaxText = 1000;

const char* Word(State state) {
  switch (state) {
    case State::kOk:
      return "ok";
    case State::kWarning:
      return "warning";
    case State::kProblem:
      return "problem";
    case State::kSkipped:
      return "skipped";
  }
  return "";
}

const char* Colour(State state) {
  switch (state) {
    case State::kOk:
      return "\033[32m";
    case State::kWarning:
      return "\033[33m";
    case State::kProblem:
      return "\033[1;31m";
    case State::kSkipped:
      return "\033[2m";
  }
  return "";
}

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
  std::string state = Padded(Word(check.state), kStateWidth);
  if (with_colours) state = Colour(check.state) + state + "\033[0m";
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
    entry["state"] = Word(check.state);
    entry["text"] = check.text;
    if (!check.advice.empty()) entry["advice"] = check.advice;
  }
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  return Json::writeString(writer, report) + "\n";
}

bool HasProblem(const std::vector<Check>& checks) { return CountOf(checks, State::kProblem) > 0; }

}  // namespace DebugDatCheck
