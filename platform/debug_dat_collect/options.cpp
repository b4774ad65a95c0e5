#include "options.h"

#include <CLI/CLI.hpp>
#include <optional>
#include <sstream>

#include "app_description.h"
#include "task_folder.h"

namespace TARVO::SupportForm {
namespace {

// These few lines stand in support_service/options.cpp, too: the two sides share no code, only the wire.
constexpr int kUsageError = 2;

constexpr const char* kFooter =
    "Examples:\n"
    "  debug_dat_collect --apps mail,web --dry-run\n"
    "  debug_dat_collect --apps mail,web --out /tmp/debug.dat && tar --zstd -tvf /tmp/debug.dat\n"
    "\n"
    "An application NAME is described by /usr/tarvo/etc/support_form_log.d/NAME.json. Run it as root, as "
    "the\n"
    "daemon does; any other user gets what that user may read. Exit status: 0 once the archive is complete,\n"
    "1 when it could not be made, 2 for a wrong command line.";

/// "a,b" as two names; an empty text is an empty list.
std::vector<std::string> SplitNames(const std::string& text) {
  std::vector<std::string> names;
  std::istringstream stream(text);
  for (std::string name; std::getline(stream, name, ',');) names.push_back(name);
  if (!text.empty() && text.back() == ',') names.emplace_back();
  return names;
}

void Refuse(ParsedOptions& parsed, const std::string& why) {
  parsed.run = false;
  parsed.exit_status = kUsageError;
  parsed.text = why + "\nRun with --help for more information.\n";
}

/// What CLI11 can't check: returns what is wrong with the applications' names.
std::optional<std::string> WrongName(const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (!IsAppName(name)) {
      return "--apps: \"" + name +
             "\" is no application's name; those are up to 64 of A-Z, a-z, 0-9, '.', '_', '-'";
    }
  }
  return std::nullopt;
}

}  // namespace

ParsedOptions ParseOptions(int argc, const char* const* argv) {
  ParsedOptions parsed;
  CollectOptions& options = parsed.options;
  std::string apps;
  bool no_redaction = false;
  CLI::App app("Makes the debug archive that a support ticket would get, or tells what would be in it.",
               "debug_dat_collect");
  auto* apps_option =
      app.add_option("--apps", apps, "Applications, separated by commas; \"\" for the system's data alone");
  auto* out_option =
      app.add_option("--out", options.out, "File to write, mode 0600; a file that exists is not replaced");
  auto* dry_option = app.add_flag("--dry-run", "List what would be taken; nothing is read, run or written");
  auto* plain_option =
      app.add_flag("--no-redaction", no_redaction,
                   "Leave secrets unmasked, all but the values of \"token\" members: the file "
                   "is not fit to leave the device");
  // Not shown: the way in which the library starts a task.
  auto* task_option = app.add_option("--task", options.task_id)->group("");
  dry_option->excludes(out_option)->excludes(plain_option);
  for (auto* option : {apps_option, out_option, dry_option, plain_option}) task_option->excludes(option);
  app.footer(kFooter);
  try {
    app.parse(argc, argv);
    parsed.run = true;
  } catch (const CLI::ParseError& error) {
    std::ostringstream text;
    parsed.exit_status = app.exit(error, text, text) == 0 ? 0 : kUsageError;
    parsed.text = text.str();
    return parsed;
  }
  options.redaction = !no_redaction;
  options.apps = SplitNames(apps);
  if (task_option->count() > 0) {
    options.action = CollectOptions::Action::kTask;
    if (!IsTaskId(options.task_id)) Refuse(parsed, "--task: not the id of a task");
  } else if (apps_option->count() == 0) {
    Refuse(parsed, "--apps is missing: name the applications, or write --apps \"\" for none");
  } else if (const auto wrong = WrongName(options.apps)) {
    Refuse(parsed, *wrong);
  } else if (dry_option->count() > 0) {
    options.action = CollectOptions::Action::kDryRun;
  } else if (!options.out.empty()) {
    options.action = CollectOptions::Action::kWrite;
  } else {
    Refuse(parsed, "say where the archive goes, --out FILE, or list what it would take, --dry-run");
  }
  return parsed;
}

}  // namespace TARVO::SupportForm
