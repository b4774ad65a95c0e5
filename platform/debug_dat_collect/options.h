#pragma once

#include <string>
#include <vector>

namespace TARVO::SupportForm {

/// The command line of debug_dat_collect, of people's and of the one by which the library starts a task.
/// What is asked for. Names of applications are valid, and there is what the action needs.
struct CollectOptions {
  enum class Action {
    kTask,    ///< The work of a task that the library has prepared.
    kWrite,   ///< An archive at `out`.
    kDryRun,  ///< A list of what the archive would take.
  };
  Action action = Action::kDryRun;
  std::string task_id;            ///< Of kTask only: IsTaskId().
  std::vector<std::string> apps;  ///< Not of kTask, which reads them from standard input. May be empty.
  std::string out;                ///< Of kWrite only: the file to be written, which must not exist.
  bool redaction = true;          ///< Off with --no-redaction, which tasks can't be given.
};

/// What to do with a command line: either run with the options, or print a text and exit.
struct ParsedOptions {
  CollectOptions options;
  bool run = false;
  int exit_status = 0;  ///< 0 after --help, 2 for wrong options; only where not run.
  std::string text;     ///< The help or the error; ends with a newline.
};

/// Takes the command line apart. Looks at nothing else: whether files exist is for others to see.
/// @param argv  The program's name first, as main() has it.
[[nodiscard]] ParsedOptions ParseOptions(int argc, const char* const* argv);

}  // namespace TARVO::SupportForm
