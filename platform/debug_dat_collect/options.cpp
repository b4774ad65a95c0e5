#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
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
    "  debug_dat_collect --enable nginx,postgresql\n"
    "\n"
    "An application NAME is described by /usr/tarvo/etc/support_form_log.d/NAME.json. That may be a link to "
    "a\n"
    "ready description, which --enable makes and --disable removes. Run it as root, as the daemon does; any\n"
    "other user gets what that user may read. Exit status: 0 once what was asked for is done, 1 when it "
    "could\n"
    "not be done, 2 for a wrong command line.";

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
std::optional<std::string> WrongName(const std::string& option, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (!IsAppName(name)) {
      std::string text = option;
      text.append(": \"").append(name).append("\" is no application's name; ");
      return text.append("those are up to 64 of A-Z, a-z, 0-9, '.', '_', '-'");
    }
  }
  return std::nullopt;
}

/// The command line as CLI11 knows it, and the values that it fills in.
class CommandLine {
 public:
  CommandLine() {
    dry_run_->excludes(out_)->excludes(no_redaction_);
    for (auto* option : {apps_, out_, dry_run_, no_redaction_}) task_->excludes(option);
    app_.set_version_flag("--version", "debug_dat_collect " DDT_VERSION);
    app_.footer(kFooter);
  }

  /// @return whether it is a command line; else the help or the error is in `parsed`.
  bool Parse(int argc, const char* const* argv, ParsedOptions& parsed) {
    try {
      app_.parse(argc, argv);
      parsed.run = true;
    } catch (const CLI::ParseError& error) {
      std::ostringstream text;
      parsed.exit_status = app_.exit(error, text, text) == 0 ? 0 : kUsageError;
      parsed.text = text.str();
    }
    return parsed.run;
  }

  void TakeInto(ParsedOptions& parsed) const {
    CollectOptions& options = parsed.options;
    options.task_id = task_id_value_;
    options.out = out_value_;
    options.redaction = no_redaction_->count() == 0;
    if (const CLI::Option* alone = NotAlone()) {
      Refuse(parsed, "--" + alone->get_lnames().front() + " goes with no other option");
    } else if (task_->count() > 0) {
      options.action = Action::kTask;
      if (!IsTaskId(options.task_id)) Refuse(parsed, "--task: not the id of a task");
    } else if (connection_->count() > 0) {
      options.action = Action::kConnection;
    } else if (list_->count() > 0) {
      options.action = Action::kList;
    } else if (enable_->count() + disable_->count() > 0) {
      options.action = enable_->count() > 0 ? Action::kEnable : Action::kDisable;
      TakeNames(parsed, *(enable_->count() > 0 ? enable_ : disable_));
    } else if (apps_->count() == 0) {
      Refuse(parsed, "--apps is missing: name the applications, or write --apps \"\" for none");
    } else {
      TakeArchive(parsed);
    }
  }

 private:
  using Action = CollectOptions::Action;

  /// An option that has to be the only one and is not; null where there is none.
  [[nodiscard]] const CLI::Option* NotAlone() const {
    const auto all = {apps_, out_, dry_run_, no_redaction_, task_, connection_, list_, enable_, disable_};
    const auto is_given = [](const CLI::Option* option) { return option->count() > 0; };
    if (std::count_if(all.begin(), all.end(), is_given) < 2) return nullptr;
    const auto alone = {connection_, list_, enable_, disable_};
    const auto* const found = std::find_if(alone.begin(), alone.end(), is_given);
    return found == alone.end() ? nullptr : *found;
  }

  void TakeArchive(ParsedOptions& parsed) const {
    if (dry_run_->count() == 0 && out_value_.empty()) {
      return Refuse(parsed, "say where the archive goes, --out FILE, or list what it would take, --dry-run");
    }
    parsed.options.action = dry_run_->count() > 0 ? Action::kDryRun : Action::kWrite;
    TakeNames(parsed, *apps_);
  }

  void TakeNames(ParsedOptions& parsed, const CLI::Option& option) const {
    parsed.options.apps = SplitNames(names_value_);
    if (parsed.options.apps.empty() && &option != apps_) Refuse(parsed, option.get_name() + ": names none");
    if (const auto wrong = WrongName(option.get_name(), parsed.options.apps)) Refuse(parsed, *wrong);
  }

  std::string names_value_;  ///< Of the one option that has been given names.
  std::string out_value_;
  std::string task_id_value_;
  CLI::App app_{"Makes the debug archive that a support ticket would get, or tells what would be in it.",
                "debug_dat_collect"};
  CLI::Option* apps_ = app_.add_option("--apps", names_value_,
                                       "Applications, separated by commas; \"\" for the system's data alone");
  CLI::Option* out_ =
      app_.add_option("--out", out_value_, "File to write, mode 0600; a file that exists is not replaced");
  CLI::Option* dry_run_ =
      app_.add_flag("--dry-run", "List what would be taken; nothing is read, run or written");
  CLI::Option* no_redaction_ =
      app_.add_flag("--no-redaction",
                    "Leave secrets unmasked, all but the values of \"token\" members: the file "
                    "is not fit to leave the device");
  CLI::Option* list_ =
      app_.add_flag("--list", "List the descriptions that count on this device, and the ready ones");
  CLI::Option* enable_ = app_.add_option(
      "--enable", names_value_, "Ready descriptions, separated by commas, that are to count on this device");
  CLI::Option* disable_ = app_.add_option("--disable", names_value_, "The same, that are to count no longer");
  // Not shown: the ways in which the library and a service manager start a task.
  CLI::Option* task_ = app_.add_option("--task", task_id_value_)->group("");
  CLI::Option* connection_ = app_.add_flag("--connection")->group("");
};

}  // namespace

ParsedOptions ParseOptions(int argc, const char* const* argv) {
  ParsedOptions parsed;
  CommandLine line;
  if (line.Parse(argc, argv, parsed)) line.TakeInto(parsed);
  return parsed;
}

}  // namespace TARVO::SupportForm
