#include "command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "archive_writer.h"
#include "file_util.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {
namespace {

/// How often the end of a command is looked for while it keeps silent.
constexpr std::int64_t kLookMs = 20;

/// The program's path: as given with a slash in it, otherwise in the first of the folders that holds it.
/// Empty when none does. posix_spawnp() would search the caller's own PATH.
std::string FindProgram(const std::string& name, const std::string& folders) {
  if (name.find('/') != std::string::npos) return name;
  std::size_t begin = 0;
  while (begin <= folders.size()) {
    const std::size_t end = std::min(folders.find(':', begin), folders.size());
    std::string path = folders.substr(begin, end - begin) + "/" + name;
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0) {
      return path;
    }
    begin = end + 1;
  }
  return {};
}

/// Owns what posix_spawn() is told.
class SpawnPlan {
 public:
  SpawnPlan(int output_fd, bool with_errors) {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions_, output_fd, STDOUT_FILENO);
    if (with_errors) {
      posix_spawn_file_actions_adddup2(&actions_, output_fd, STDERR_FILENO);
    } else {
      posix_spawn_file_actions_addopen(&actions_, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    sigset_t signals;
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes_, &signals);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes_, &signals);
    posix_spawnattr_setpgroup(&attributes_, 0);
    posix_spawnattr_setflags(&attributes_,
                             POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;
  ~SpawnPlan() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }

  /// Returns 0 or an errno value.
  int Spawn(pid_t& pid, const std::string& program, const CommandRequest& request) {
    std::vector<std::string> arguments = request.argv;
    std::vector<std::string> environment = {"PATH=" + request.programs, "LC_ALL=C"};
    return posix_spawn(&pid, program.c_str(), &actions_, &attributes_, Pointers(arguments).data(),
                       Pointers(environment).data());
  }

 private:
  static std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
  }

  posix_spawn_file_actions_t actions_ = {};
  posix_spawnattr_t attributes_ = {};
};

/// Copies a command's output from the pipe to a file, up to a limit.
class OutputCopy {
 public:
  OutputCopy(UniqueFd from, int to, std::uint64_t limit) : from_(std::move(from)), to_(to), left_(limit) {}

  /// Copies what is there now. Stops at the limit.
  void Drain() {
    std::array<char, 65536> buffer;
    while (!ended_ && !over_ && write_error_ == 0) {
      const ssize_t count = read(from_.get(), buffer.data(), buffer.size());
      if (count < 0 && errno == EINTR) continue;
      if (count < 0 && errno == EAGAIN) return;
      if (count <= 0) {
        ended_ = true;
        return;
      }
      const auto taken = std::min<std::uint64_t>(left_, static_cast<std::uint64_t>(count));
      left_ -= taken;
      over_ = taken < static_cast<std::uint64_t>(count);
      if (!WriteAll(to_, {buffer.data(), taken})) write_error_ = errno;
    }
  }

  /// Waits for more, but no longer than that.
  void Wait(std::int64_t milliseconds) const {
    if (ended_) return SleepMs(milliseconds);
    pollfd wait = {from_.get(), POLLIN, 0};
    poll(&wait, 1, static_cast<int>(milliseconds));
  }

  [[nodiscard]] bool over() const { return over_; }
  [[nodiscard]] int write_error() const { return write_error_; }

 private:
  UniqueFd from_;
  int to_;
  std::uint64_t left_;
  bool ended_ = false;   ///< Nobody has the pipe's other end any more.
  bool over_ = false;    ///< There was more than the limit.
  int write_error_ = 0;  ///< errno of a failed write.
};

/// Whether the process has ended. It stays to be reaped, so that its group's number can't be given to others.
bool HasEnded(pid_t pid) {
  siginfo_t info = {};
  return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == pid;
}

/// Kills what is left of the group and reaps its first process.
int KillGroupAndReap(pid_t pid) {
  kill(-pid, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

CommandResult WaitForEnd(pid_t pid, const CommandRequest& request, OutputCopy& output) {
  const std::int64_t deadline = MonotonicMs() + request.time_limit_ms;
  bool timed_out = false;
  for (;;) {
    const bool ended = HasEnded(pid);  // before draining: all that an ended process wrote is in the pipe
    output.Drain();
    if (ended || output.over() || output.write_error() != 0) break;
    const std::int64_t left = deadline - MonotonicMs();
    timed_out = left <= 0;
    if (timed_out) break;
    output.Wait(std::min(left, kLookMs));
  }
  const int status = KillGroupAndReap(pid);
  output.Drain();
  if (timed_out) return {CommandResult::End::kTimeLimit, 0};
  if (output.over()) return {CommandResult::End::kOutputLimit, 0};
  if (WIFSIGNALED(status)) return {CommandResult::End::kSignalled, WTERMSIG(status)};
  return {CommandResult::End::kExited, WEXITSTATUS(status)};
}

}  // namespace

std::string CommandResult::Text() const {
  switch (end) {
    case End::kNotStarted:
      return "not started: " + ErrorText(code);
    case End::kExited:
      return "exit status " + std::to_string(code);
    case End::kSignalled:
      return "ended by signal " + std::to_string(code);
    case End::kTimeLimit:
      return "killed at its time limit";
    case End::kOutputLimit:
      return "killed because its output passed the limit; the output is cut there";
  }
  return {};
}

CommandResult RunCommand(const CommandRequest& request, int output_fd) {
  const std::string program = FindProgram(request.argv.front(), request.programs);
  if (program.empty()) return {CommandResult::End::kNotStarted, ENOENT};
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return {CommandResult::End::kNotStarted, errno};
  UniqueFd write_end(ends[1]);
  OutputCopy output(UniqueFd(ends[0]), output_fd, request.output_limit);
  if (fcntl(ends[0], F_SETFL, O_NONBLOCK) != 0) return {CommandResult::End::kNotStarted, errno};

  pid_t pid = -1;
  const int error = SpawnPlan(write_end.get(), request.with_errors).Spawn(pid, program, request);
  if (error != 0) return {CommandResult::End::kNotStarted, error};
  write_end.Close();
  const CommandResult result = WaitForEnd(pid, request, output);
  if (output.write_error() != 0) {
    throw ArchiveFailed("a command's output can't be stored: " + ErrorText(output.write_error()));
  }
  return result;
}

}  // namespace TARVO::SupportForm
