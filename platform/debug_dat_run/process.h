/// Processes, as /proc shows them and as a pidfd holds them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "unique_fd.h"

namespace DebugDatRun {

/// What /proc/PID/stat told at one moment.
struct ProcessFacts {
  pid_t pid = 0;
  std::string name;         ///< The first 15 bytes of its program's file name.
  char state = 0;           ///< 'Z' for a zombie.
  pid_t parent = 0;         ///< 0 where the parent is in another pid namespace.
  pid_t session = 0;        ///< The kernel gives the number to no other process while the session has one.
  std::uint64_t start = 0;  ///< In ticks since boot. With the id it stands for one process only.
};

/// @return Whether there is such a process; `facts` is left as it is otherwise.
[[nodiscard]] bool LookAt(pid_t pid, ProcessFacts& facts);

/// All that /proc shows, zombies included.
[[nodiscard]] std::vector<ProcessFacts> AllProcesses();

/// Those of `all` that `ancestor` has brought about, but for what others have adopted.
[[nodiscard]] std::vector<ProcessFacts> DescendantsOf(pid_t ancestor, const std::vector<ProcessFacts>& all);

/// As much of a program's file name as ProcessFacts::name has.
[[nodiscard]] std::string ProcessNameOf(const std::string& program);

/// How a process ended, for people: "status 1" or "SIGKILL".
/// @param status  As waitpid() returns it.
[[nodiscard]] std::string EndingText(int status);

/// A process that is kept in view by a pidfd, which can't come to mean another one.
class WatchedProcess {
 public:
  WatchedProcess() = default;

  /// Takes the process that was looked at into view.
  /// @return One that is not valid() where the process has gone since, also if another one has its id by now.
  [[nodiscard]] static WatchedProcess Open(const ProcessFacts& facts);

  [[nodiscard]] bool valid() const { return fd_.valid(); }
  [[nodiscard]] pid_t pid() const { return pid_; }
  /// Readable once the process has ended, reaped or not. Negative where none is watched.
  [[nodiscard]] int fd() const { return fd_.get(); }
  /// Whether it runs no more; it may be a zombie.
  [[nodiscard]] bool HasEnded() const;
  /// @return false, with errno set, where it can't be sent.
  bool Signal(int signal_number) const;

 private:
  WatchedProcess(pid_t pid, int fd) : pid_(pid), fd_(fd) {}

  pid_t pid_ = 0;
  TARVO::SupportForm::UniqueFd fd_;
};

}  // namespace DebugDatRun
