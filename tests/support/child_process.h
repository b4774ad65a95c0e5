/// Child processes of tests: forked to run a piece of code, or started from a program's file.
#pragma once

#include <gmock/gmock.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <iosfwd>
#include <set>
#include <string>
#include <vector>

#include "eventually.h"

namespace test_support {

/// How a process ended.
struct Ending {
  bool in_time = false;  ///< It ended before the deadline.
  int exit_status = -1;  ///< -1 when a signal ended it.
  int signal = 0;        ///< The signal that ended it.
  bool dumped = false;   ///< It left a core file.
};

void PrintTo(const Ending& ending, std::ostream* out);

MATCHER_P(ExitedWith, status, "") { return arg.in_time && arg.exit_status == status; }
MATCHER_P(KilledBy, signal_number, "") { return arg.in_time && arg.signal == signal_number; }

/// What a child exits with, also by the daemon's own _exit(), when an EXPECT or ASSERT failed in it.
constexpr int kExpectationFailed = 99;

/// A child with a process group of its own. Nothing of it is left when the object is gone.
class ChildProcess {
 public:
  /// Forks a child that runs `body` and exits with its result. No core file is written for it, SIGPIPE has
  /// its default disposition in it, an uncaught exception aborts it, and it is ended by SIGKILL should the
  /// test process die.
  explicit ChildProcess(const std::function<int()>& body);

  /// Takes over a child that was started otherwise and leads its process group.
  explicit ChildProcess(pid_t pid) : pid_(pid) {}

  /// Kills what is left of the group.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  void Signal(int signal_number) const;

  /// Waits for the child's end and reaps it.
  Ending WaitForEnd(std::chrono::milliseconds deadline = kPatience);

 private:
  const pid_t pid_;
  bool reaped_ = false;
};

/// Runs `body` in a child, to its end.
Ending RunInChild(const std::function<int()>& body, std::chrono::milliseconds deadline = kPatience);

/// What a started program reads and writes; -1 for /dev/null. It inherits no other descriptor.
struct Streams {
  int input = -1;
  int output = STDOUT_FILENO;
  int error = STDERR_FILENO;
};

/// Starts a program as the leader of a process group. The descriptors stay the caller's.
/// @param environment  "NAME=value" entries; all of its environment.
/// @throws std::system_error when it can't be started.
pid_t StartProgram(std::vector<std::string> argv, std::vector<std::string> environment,
                   const Streams& streams);

/// A forked process that runs one piece of code, which the constructor waits for, then stays until the object goes.
/// Its session is its own: whoever runs the tests keeps their priority when a task lowers that of its session.
class CallerProcess {
 public:
  /// @param fork_call  How it is forked; fork() unless that is what is tested.
  explicit CallerProcess(const std::function<std::string()>& work,
                         const std::function<pid_t()>& fork_call = fork);
  ~CallerProcess() { End(); }
  CallerProcess(const CallerProcess&) = delete;
  CallerProcess& operator=(const CallerProcess&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  /// What the code returned, or "exception: " and the text of what it threw; what had come of it when its process
  /// ended or took too long.
  [[nodiscard]] const std::string& Answer() const { return answer_; }
  /// Lets the process end and waits for it.
  void End();
  /// Ends the process by a signal.
  Ending EndBy(int signal_number);

 private:
  pid_t pid_ = -1;
  int to_ = -1;  ///< -1 once it has ended.
  std::string answer_;
};

/// Makes orphans of the test process's descendants its own children, until the process ends.
void AdoptOrphans();

/// Waits for the end of `pid`, a child or an adopted orphan, and reaps it.
Ending WaitForProcess(pid_t pid, std::chrono::milliseconds deadline = kPatience);

/// The numbers of the descriptors that `pid` holds open.
std::set<int> OpenDescriptors(pid_t pid);

}  // namespace test_support
