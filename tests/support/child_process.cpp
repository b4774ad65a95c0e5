#include "child_process.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <ostream>
#include <string>
#include <thread>

#include "scripted_platform.h"

namespace test_support {

namespace {

/// An exception that leaves `body` ends the process, as one that leaves main() does; gtest would catch it.
[[noreturn]] void RunBody(const std::function<int()>& body, pid_t parent) noexcept {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) real::Exit(kExpectationFailed);
  const rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  struct sigaction by_default = {};
  by_default.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &by_default, nullptr);
  const int status = body();
  static_cast<void>(fflush(nullptr));
  real::Exit(testing::Test::HasFailure() ? kExpectationFailed : status);
}

/// Whether `pid` ends in time. It stays to be reaped.
bool Ends(pid_t pid, std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (true) {
    siginfo_t info = {};
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0) return false;
    if (info.si_pid == pid) return true;
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

}  // namespace

void PrintTo(const Ending& ending, std::ostream* out) {
  if (!ending.in_time) {
    *out << "not ended by the deadline";
  } else if (ending.signal != 0) {
    *out << "killed by signal " << ending.signal;
  } else {
    *out << "exited with " << ending.exit_status;
  }
}

ChildProcess::ChildProcess(const std::function<int()>& body) {
  static_cast<void>(fflush(nullptr));
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ < 0) abort();
  if (pid_ == 0) RunBody(body, parent);
  setpgid(pid_, pid_);  // in both processes: neither waits for the other
}

ChildProcess::~ChildProcess() {
  real::Kill(-pid_, SIGKILL);
  if (!reaped_) real::Waitpid(pid_, nullptr, 0);
  // Orphans of the group that this process has adopted.
  while (real::Waitpid(-pid_, nullptr, 0) > 0) {
  }
}

void ChildProcess::Signal(int signal_number) const { real::Kill(pid_, signal_number); }

Ending ChildProcess::WaitForEnd(std::chrono::milliseconds deadline) {
  const Ending ending = WaitForProcess(pid_, deadline);
  reaped_ = reaped_ || ending.in_time;
  return ending;
}

Ending RunInChild(const std::function<int()>& body, std::chrono::milliseconds deadline) {
  return ChildProcess(body).WaitForEnd(deadline);
}

void AdoptOrphans() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

Ending WaitForProcess(pid_t pid, std::chrono::milliseconds deadline) {
  int status = 0;
  if (!Ends(pid, deadline) || real::Waitpid(pid, &status, 0) != pid) return {};
  if (WIFSIGNALED(status)) return {true, -1, WTERMSIG(status)};
  return {true, WEXITSTATUS(status), 0};
}

std::set<int> OpenDescriptors(pid_t pid) {
  std::set<int> result;
  const std::filesystem::path folder = "/proc/" + std::to_string(pid) + "/fd";
  std::error_code gone;
  for (const auto& entry : std::filesystem::directory_iterator(folder, gone)) {
    result.insert(std::stoi(entry.path().filename()));
  }
  return result;
}

}  // namespace test_support
