#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app_description.h"

namespace TARVO::SupportForm {

/// What of a command's output is kept.
enum class Output {
  kBegin,          ///< The beginning, of errors, too; a command that writes more is ended.
  kBeginNoErrors,  ///< The same without standard error.
  kEndNoErrors,    ///< The end, without standard error: for logs, whose newest lines come last.
};

/// A command whose output is an entry of the archive.
struct CommandEntry {
  std::string name;                      ///< The entry's.
  CommandDescription command;            ///< What is run, and its limits.
  Output output = Output::kEndNoErrors;  ///< What of it is kept.
};

/// A command to be run.
struct CommandRequest {
  std::vector<std::string> argv;  ///< Program and arguments; a program without a slash is looked up.
  std::string
      programs;  ///< Folders for the look-up, separated by colons; also the command's PATH. Those in which
                 ///< others can put programs don't count.
  std::int64_t time_limit_ms = 0;  ///< From its start; 0 ends it at once.
  std::uint64_t output_limit = 0;  ///< Bytes of output that are kept; of the end up to twice as many.
  Output output = Output::kBegin;
};

/// How a command ended.
struct CommandResult {
  enum class End {
    kNotStarted,   ///< `code` is an errno value.
    kExited,       ///< `code` is the exit status.
    kSignalled,    ///< `code` is the signal.
    kTimeLimit,    ///< Killed at its time limit.
    kOutputLimit,  ///< Killed because it wrote more than is kept.
    kNotStored,    ///< Killed because its output can't be stored; `code` is an errno value.
  };
  End end = End::kNotStarted;
  int code = 0;             ///< What `end` says of it.
  bool begin_lost = false;  ///< The output was longer than its kept end.
  std::string
      distrust{};  ///< Why it was not started, though it could have been: others can change the program.

  /// One line for people, "exit status 1".
  [[nodiscard]] std::string Text() const;
};

/// Runs a command without a shell and waits for it. It gets a process group and an environment of its own
/// (PATH and LC_ALL=C), the root as working folder, /dev/null as input, default signals. When it ends, or is over a
/// limit, its whole group is killed; so it is when the calling process ends meanwhile, however that happens. A
/// process that left the group is beyond reach, and its output is not waited for.
/// Used in the collector, whose thread waits meanwhile.
/// @param output_fd  A file that receives the output, empty before and open for reading, too; borrowed.
/// @return How it ended, a failure to start it included: there are no other failures.
[[nodiscard]] CommandResult RunCommand(const CommandRequest& request, int output_fd);

}  // namespace TARVO::SupportForm
