/// Programs that the system tests start, and a look at other processes through /proc.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

constexpr std::chrono::milliseconds kPatience{
    60'000};  ///< For what takes well under a second when all is idle.

/// Looks every 20 ms until `condition` holds.
/// @return false when it did not within `limit`.
[[nodiscard]] bool Eventually(const std::function<bool()>& condition,
                              std::chrono::milliseconds limit = kPatience);

/// The file's content; empty when it can't be read.
std::string ReadFile(const std::string& path);
/// Makes the folders above it too.
void WriteFile(const std::string& path, const std::string& text);

/// Environment variables that a program gets beyond the test's own.
using Environment = std::map<std::string, std::string>;

/// A started program. Its standard output and error go to a file.
class Program {
 public:
  /// @throws std::system_error when it can't be started.
  Program(const std::vector<std::string>& argv, const std::string& output_file,
          const Environment& extra = {});
  /// Ends it by SIGKILL if it still runs.
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  [[nodiscard]] std::string Output() const { return ReadFile(output_file_); }

  /// Waits for its end.
  /// @return its exit status; 128 and the signal's number when a signal ended it; -1 when it did not end in
  /// time.
  [[nodiscard]] int Wait(std::chrono::milliseconds limit = kPatience);

 private:
  std::string output_file_;
  pid_t pid_ = -1;
  int status_ = -1;  ///< As Wait() returns it.
};

/// Waits for the end of a child or adopted orphan and reaps it.
/// @return as Program::Wait().
[[nodiscard]] int WaitForProcess(pid_t pid, std::chrono::milliseconds limit = kPatience);

/// Processes whose parent is gone become children of the test from now on, instead of process 1's.
void AdoptOrphans();
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
/// The numbers of the descriptors that the process holds open.
std::set<int> OpenDescriptors(pid_t pid);
