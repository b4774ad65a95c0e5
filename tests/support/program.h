/// Programs that tests start, and a look at other processes through /proc.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "child_process.h"
#include "temporary_folder.h"

namespace test_support {

/// Environment variables that a program gets beyond the test's own.
using Environment = std::map<std::string, std::string>;

/// A started program, ended with the object. Its standard output and error go to a file.
class Program {
 public:
  /// @throws std::system_error when it can't be started.
  Program(const std::vector<std::string>& argv, const std::string& output_file,
          const Environment& extra = {});
  [[nodiscard]] pid_t pid() const { return process_.pid(); }
  void Signal(int signal_number) const { process_.Signal(signal_number); }
  [[nodiscard]] std::string Output() const { return ReadFile(output_file_); }

  /// Waits until it has written a line that starts so.
  /// @return the rest of that line; empty when none came in time.
  [[nodiscard]] std::string WaitForLine(const std::string& start) const;

  /// Waits for its end.
  /// @return its exit status; 128 and the signal's number when a signal ended it; -1 when it did not end in
  /// time.
  [[nodiscard]] int Wait(std::chrono::milliseconds limit = kPatience);

 private:
  std::string output_file_;
  ChildProcess process_;
  int status_ = -1;  ///< As Wait() returns it.
};

/// Reaps every adopted orphan that has ended, but none in `spared`.
void ReapOrphans(const std::set<pid_t>& spared);

struct ProcessState {
  char state = 0;  ///< As /proc/PID/stat has it, 'Z' for a zombie; 0 when there is no such process.
  pid_t parent = 0;
  int exit_code = 0;  ///< Of a zombie: a status as waitpid() returns it.
};

ProcessState LookAt(pid_t pid);
/// Whether it is gone, or a zombie without a thread that still runs.
bool HasEnded(pid_t pid);
std::vector<pid_t> AllProcesses();
std::vector<pid_t> ChildrenOf(pid_t parent);

}  // namespace test_support
