/// Child processes of tests.
#pragma once

#include <gmock/gmock.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <iosfwd>
#include <set>

namespace test_support {

constexpr std::chrono::milliseconds kDeadline = std::chrono::seconds(60);

/// How a process ended.
struct Ending {
  bool in_time = false;  ///< It ended before the deadline.
  int exit_status = -1;  ///< -1 when a signal ended it.
  int signal = 0;        ///< The signal that ended it.
};

void PrintTo(const Ending& ending, std::ostream* out);

MATCHER_P(ExitedWith, status, "") { return arg.in_time && arg.exit_status == status; }
MATCHER_P(KilledBy, signal_number, "") { return arg.in_time && arg.signal == signal_number; }

/// What a child exits with, also by the daemon's own _exit(), when an EXPECT or ASSERT failed in it.
constexpr int kExpectationFailed = 99;

/// A forked process with a process group of its own. Nothing of it is left when the object is gone.
class ChildProcess {
 public:
  /// Starts a child that runs `body` and exits with its result. No core file is written for it, SIGPIPE has
  /// its default disposition in it, an uncaught exception aborts it, and it is ended by SIGKILL should the
  /// test process die.
  explicit ChildProcess(const std::function<int()>& body);

  /// Kills what is left of the group.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  void Signal(int signal_number) const;

  /// Waits for the child's end and reaps it.
  Ending WaitForEnd(std::chrono::milliseconds deadline = kDeadline);

 private:
  pid_t pid_;
  bool reaped_ = false;
};

/// Runs `body` in a child, to its end.
Ending RunInChild(const std::function<int()>& body, std::chrono::milliseconds deadline = kDeadline);

/// Makes orphans of the test process's descendants its own children, until the process ends.
void AdoptOrphans();

/// Waits for the end of `pid`, a child or an adopted orphan, and reaps it.
Ending WaitForProcess(pid_t pid, std::chrono::milliseconds deadline = kDeadline);

/// The numbers of the descriptors that `pid` holds open.
std::set<int> OpenDescriptors(pid_t pid);

}  // namespace test_support
