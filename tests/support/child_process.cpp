#include "child_process.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <ostream>
#include <system_error>
#include <utility>

namespace test_support {

namespace {

// A test program may link replacements of kill(), waitpid() and _exit(), which would record these calls.

void SendSignal(pid_t pid, int signal_number) { syscall(SYS_kill, pid, signal_number); }

/// Reaps the child, or one of the group where `type` is P_PGID, once it has ended.
bool Reap(idtype_t type, pid_t pid, siginfo_t& info) {
  while (waitid(type, static_cast<id_t>(pid), &info, WEXITED) != 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

[[noreturn]] void Exit(int status) {
  static_cast<void>(fflush(nullptr));
  reinterpret_cast<void (*)(int)>(dlsym(RTLD_DEFAULT, "_exit"))(status);
  abort();
}

/// An exception that leaves `body` ends the process, as one that leaves main() does; gtest would catch it.
[[noreturn]] void RunBody(const std::function<int()>& body, pid_t parent) noexcept {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) Exit(kExpectationFailed);
  const rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  struct sigaction by_default = {};
  by_default.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &by_default, nullptr);
  const int status = body();
  Exit(testing::Test::HasFailure() ? kExpectationFailed : status);
}

pid_t Fork(const std::function<int()>& body) {
  static_cast<void>(fflush(nullptr));
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) abort();
  if (pid == 0) RunBody(body, parent);
  setpgid(pid, pid);  // in both processes: neither waits for the other
  return pid;
}

/// What `work` throws must not leave the forked process: it would go on as a second test program.
std::string AnswerOf(const std::function<std::string()>& work) {
  try {
    return work();
  } catch (const std::exception& error) {
    return std::string("exception: ") + error.what();
  }
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

/// @return how many of the bytes came before the end or the deadline.
std::size_t ReadInTime(int fd, void* bytes, std::size_t size) {
  std::size_t have = 0;
  pollfd wait = {fd, POLLIN, 0};
  while (have < size && poll(&wait, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) == 1) {
    const ssize_t count = read(fd, static_cast<char*>(bytes) + have, size - have);
    if (count <= 0) break;
    have += static_cast<std::size_t>(count);
  }
  return have;
}

void AddStream(posix_spawn_file_actions_t& actions, int fd, int as) {
  if (fd >= 0) {
    posix_spawn_file_actions_adddup2(&actions, fd, as);
  } else {
    posix_spawn_file_actions_addopen(&actions, as, "/dev/null", O_RDWR, 0);
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

ChildProcess::ChildProcess(const std::function<int()>& body) : pid_(Fork(body)) {}

ChildProcess::~ChildProcess() {
  siginfo_t info = {};
  SendSignal(-pid_, SIGKILL);
  if (!reaped_) Reap(P_PID, pid_, info);
  // Orphans of the group that this process has adopted.
  while (Reap(P_PGID, pid_, info)) {
  }
}

void ChildProcess::Signal(int signal_number) const { SendSignal(pid_, signal_number); }

Ending ChildProcess::WaitForEnd(std::chrono::milliseconds deadline) {
  const Ending ending = WaitForProcess(pid_, deadline);
  reaped_ = reaped_ || ending.in_time;
  return ending;
}

Ending RunInChild(const std::function<int()>& body, std::chrono::milliseconds deadline) {
  return ChildProcess(body).WaitForEnd(deadline);
}

pid_t StartProgram(std::vector<std::string> argv, std::vector<std::string> environment,
                   const Streams& streams) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  AddStream(actions, streams.input, STDIN_FILENO);
  AddStream(actions, streams.output, STDOUT_FILENO);
  AddStream(actions, streams.error, STDERR_FILENO);
  // As from a service manager: what the test has inherited must not shift the program's descriptor numbers.
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, argv.at(0).c_str(), &actions, &attributes, Pointers(argv).data(),
                                 Pointers(environment).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::system_error(error, std::generic_category(), "can't start " + argv[0]);
  return pid;
}

CallerProcess::CallerProcess(const std::function<std::string()>& work,
                             const std::function<pid_t()>& fork_call) {
  int up[2];
  int down[2];
  if (pipe2(up, O_CLOEXEC) != 0 || pipe2(down, O_CLOEXEC) != 0) abort();
  static_cast<void>(fflush(nullptr));
  pid_ = fork_call();
  if (pid_ == 0) {
    setsid();
    close(up[0]);
    close(down[1]);
    std::string answer = AnswerOf(work);
    const std::size_t size = answer.size();  // goes first: what the code forked may keep the pipe open
    answer.insert(0, reinterpret_cast<const char*>(&size), sizeof(size));
    const bool told = write(up[1], answer.data(), answer.size()) == static_cast<ssize_t>(answer.size());
    close(up[1]);
    char byte = 0;
    Exit(told && read(down[0], &byte, 1) == 0 ? 0 : 1);
  }
  close(up[1]);
  close(down[0]);
  to_ = down[1];
  std::size_t size = 0;
  if (ReadInTime(up[0], &size, sizeof(size)) == sizeof(size)) {
    answer_.resize(size);
    answer_.resize(ReadInTime(up[0], answer_.data(), size));
  }
  close(up[0]);
}

void CallerProcess::End() {
  if (to_ < 0) return;
  close(std::exchange(to_, -1));
  siginfo_t info = {};
  Reap(P_PID, pid_, info);
}

Ending CallerProcess::EndBy(int signal_number) {
  SendSignal(pid_, signal_number);
  const Ending ending = WaitForProcess(pid_);
  close(std::exchange(to_, -1));
  return ending;
}

void AdoptOrphans() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

Ending WaitForProcess(pid_t pid, std::chrono::milliseconds deadline) {
  siginfo_t info = {};
  bool is_child = true;
  const bool ended = Eventually(
      [&] {
        is_child = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG) == 0;
        return !is_child || info.si_pid == pid;
      },
      deadline);
  if (!ended || !is_child) return {};
  if (info.si_code != CLD_EXITED) return {true, -1, info.si_status, info.si_code == CLD_DUMPED};
  return {true, info.si_status, 0};
}

std::set<int> OpenDescriptors(pid_t pid) {
  std::set<int> result;
  std::error_code gone;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", gone)) {
    result.insert(std::stoi(entry.path().filename()));
  }
  return result;
}

}  // namespace test_support
