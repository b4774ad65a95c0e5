#pragma once

#include <string>
#include <vector>

namespace TARVO::SupportForm {

/// The command line of debug_dat_collect, as people type it and as those put it together who start a task.
/// What is asked for. Names of applications are valid, and there is what the action needs.
struct CollectOptions {
  enum class Action {
    kTask,        ///< The work of a task that the library has prepared.
    kConnection,  ///< A task that is handed over through the connection at standard input.
    kWrite,       ///< An archive at `out`.
    kDryRun,      ///< A list of what the archive would take.
    kList,        ///< A list of the descriptions that are there.
    kEnable,      ///< Makes ready descriptions count on this device,
    kDisable,     ///< or no longer.
  };
  Action action = Action::kDryRun;  ///< What the program does; the members below belong to one or the other.
  std::string task_id;              ///< Of kTask only: IsTaskId().
  /// Not of kTask and kConnection, which read them from standard input, and of kList. May be empty, but of kEnable and
  /// kDisable.
  std::vector<std::string> apps;
  std::string out;        ///< Of kWrite only: the file to be written, which must not exist.
  bool redaction = true;  ///< Off with --no-redaction, which tasks can't be given.
};

/// What to do with a command line: either run with the options, or print a text and exit.
struct ParsedOptions {
  CollectOptions options;  ///< Of use only where `run` is set.
  bool run = false;        ///< Whether there is work to do; otherwise `text` is all.
  int exit_status = 0;     ///< 0 after --help, 2 for wrong options; only where not run.
  std::string text;        ///< The help or the error; ends with a newline.
};

/// Takes the command line apart. Looks at nothing else: whether files exist is for others to see.
/// @param argv  The program's name first, as main() has it.
[[nodiscard]] ParsedOptions ParseOptions(int argc, const char* const* argv);

}  // namespace TARVO::SupportForm
