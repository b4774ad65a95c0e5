/// An application's description file.
#include "app_description.h"
#include "fuzz_support.h"

namespace {

using namespace TARVO::SupportForm;
using fuzz::Require;

bool HasNul(const std::string& text) { return text.find('\0') != std::string::npos; }

void CheckPaths(const AppDescription& app) {
  for (const PathDescription& path : app.paths) {
    const std::string closed = path.pattern + "/";
    Require(closed.front() == '/' && !HasNul(closed), "a pattern is absolute");
    Require(closed.find("/../") == std::string::npos, "a pattern leads into no folder above");
  }
}

void CheckCommand(const CommandDescription& command, const Limits& limits) {
  Require(!command.argv.empty() && !command.argv[0].empty(), "a command has a program");
  Require(command.argv[0].find('/') == std::string::npos || command.argv[0][0] == '/',
          "a program is a name or an absolute path");
  for (const std::string& argument : command.argv) {
    Require(!HasNul(argument), "arguments are the system's strings");
  }
  Require(command.time_limit_seconds >= 1 && command.time_limit_seconds <= limits.command_seconds_max,
          "a command's time is limited");
  Require(command.output_limit_bytes >= 1 && command.output_limit_bytes <= limits.output_bytes_max,
          "a command's output is limited");
}

void CheckUnit(const UnitDescription& unit, const Limits& limits) {
  Require(!unit.unit.empty() && unit.unit[0] != '-' && !HasNul(unit.unit), "a unit's name is no option");
  Require(unit.lines >= 1 && unit.lines <= limits.journal_lines_max, "a journal's lines are limited");
  Require(unit.since_hours <= limits.journal_hours_max, "a journal's time is limited");
  CheckCommand(JournalCommand(unit, limits), limits);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const test_support::TemporaryFolder folder;
  const Limits limits;
  Paths paths;
  paths.descriptions = folder.path();
  static_cast<void>(folder.Write("mail.json", fuzz::AsText(data, size)));
  try {
    const AppDescription app = LoadAppDescription(paths, limits, "mail");
    CheckPaths(app);
    for (const CommandDescription& command : app.commands) CheckCommand(command, limits);
    for (const UnitDescription& unit : app.units) CheckUnit(unit, limits);
  } catch (const DescriptionError& error) {
    const std::string text = error.what();
    Require(text.rfind(paths.descriptions + "/mail.json: ", 0) == 0, "a refusal names the file");
  }
  return 0;
}
