#pragma once

#include <string>
#include <vector>

namespace TARVO::SupportForm {

/// What the command line of debug_dat_collect asks for.
struct CollectOptions {
  enum class Action {
    kTask,    ///< The work of a task that the library has prepared.
    kWrite,   ///< An archive at `out`.
    kDryRun,  ///< A list of what the archive would take.
  };
  Action action = Action::kDryRun;
  std::string task_id;
  std::vector<std::string> apps;
  std::string out;
  bool redaction = true;
};

/// What to do with a command line: either run with the options, or print a text and exit.
struct ParsedOptions {
  CollectOptions options;
  bool run = false;
  int exit_status = 0;  ///< 0 after --help, 2 for wrong options; only where not run.
  std::string text;     ///< The help or the error; ends with a newline.
};

[[nodiscard]] ParsedOptions ParseOptions(int argc, const char* const* argv);

}  // namespace TARVO::SupportForm
