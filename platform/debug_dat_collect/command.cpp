#include "command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include "file_util.h"
#include "program_path.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {
namespace {

/// How often the end of a command is looked for while it keeps silent.
constexpr std::int64_t kLookMs = 20;

/// Owns what posix_spawn() is told.
class SpawnPlan {
 public:
  SpawnPlan(int output_fd, bool with_errors, pid_t group) {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
    posix_spawn_file_actions_addchdir_np(&actions_, "/");
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
    posix_spawnattr_setpgroup(&attributes_, group);
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
    std::vector<std::string> environment = {"PATH=" + TrustedFolders(request.programs), "LC_ALL=C"};
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

/// Copies a command's output from the pipe to a file, up to a limit, or so that its end stays.
class OutputCopy {
 public:
  OutputCopy(UniqueFd from, int to, const CommandRequest& request)
      : from_(std::move(from)),
        to_(to),
        limit_(request.output_limit),
        end_only_(request.output == Output::kEndNoErrors) {}

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
      Keep({buffer.data(), static_cast<std::size_t>(count)});
    }
  }

  /// Waits for more, but no longer than that.
  void Wait(std::int64_t milliseconds) const {
    if (ended_) return SleepMs(milliseconds);
    pollfd wait = {from_.get(), POLLIN, 0};
    poll(&wait, 1, static_cast<int>(milliseconds));
  }

  [[nodiscard]] bool over() const { return over_; }
  [[nodiscard]] bool begin_lost() const { return begin_lost_; }
  [[nodiscard]] int write_error() const { return write_error_; }

 private:
  void Keep(std::string_view bytes) {
    if (end_only_) {
      if (written_ + bytes.size() > 2 * limit_) DropBegin();
    } else if (bytes.size() > limit_ - written_) {
      over_ = true;
      bytes = bytes.substr(0, AtMost(limit_ - written_, bytes.size()));
    }
    if (!WriteAll(to_, bytes)) write_error_ = errno;
    written_ += bytes.size();
  }

  /// Moves the last `limit_` bytes of the file to its beginning: the file never holds much more than twice as much.
  void DropBegin() {
    const std::uint64_t kept = std::min(written_, limit_);
    const std::uint64_t begin = written_ - kept;
    std::array<char, 65536> buffer;
    std::uint64_t done = 0;
    errno = EIO;  // for a read or write that is short
    while (done < kept) {
      const ssize_t count =
          pread(to_, buffer.data(), AtMost(kept - done, buffer.size()), static_cast<off_t>(begin + done));
      if (count <= 0 ||
          pwrite(to_, buffer.data(), static_cast<std::size_t>(count), static_cast<off_t>(done)) != count) {
        break;
      }
      done += static_cast<std::uint64_t>(count);
    }
    if (done < kept || ftruncate(to_, static_cast<off_t>(kept)) != 0 || lseek(to_, 0, SEEK_END) < 0) {
      write_error_ = errno;
    }
    begin_lost_ = begin_lost_ || begin > 0;
    written_ = kept;
  }

  UniqueFd from_;
  int to_;
  std::uint64_t limit_;
  bool end_only_;
  std::uint64_t written_ = 0;  ///< Bytes in the file.
  bool ended_ = false;         ///< Nobody has the pipe's other end any more.
  bool over_ = false;          ///< There was more than the limit.
  bool begin_lost_ = false;    ///< Something was dropped.
  int write_error_ = 0;        ///< errno of a failed write.
};

/// The leader of a command's process group: a process that kills the whole group when this process ends, however
/// that happens, or when the object goes. While it is there, the group's number can't be given to others.
class Guardian {
 public:
  Guardian() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    const UniqueFd read_end(ends[0]);
    write_end_ = UniqueFd(ends[1]);
    pid_ = fork();
    if (pid_ == 0) Watch(ends[0]);
    // Here and there: the group must be there before anything is started in it, and before this process can end.
    if (pid_ > 0) setpgid(pid_, pid_);
  }
  Guardian(const Guardian&) = delete;
  Guardian& operator=(const Guardian&) = delete;
  ~Guardian() {
    if (pid_ <= 0) return;
    kill(-pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }

  /// The group's number; not positive, with errno set, when there is none.
  [[nodiscard]] pid_t group() const { return pid_; }

 private:
  /// Only what is safe in a process forked from one with several threads.
  [[noreturn]] static void Watch(int read_fd) {
    setpgid(0, 0);
    // Neither the pipe's other end stays open, nor the task's lock, by which a killed task would look alive.
    dup2(read_fd, STDIN_FILENO);
    close_range(STDIN_FILENO + 1, ~0U, 0);
    setpriority(PRIO_PROCESS, 0, 0);  // where it may; what is busy is not to put off the group's end
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) < 0 && errno == EINTR) {
    }
    kill(0, SIGKILL);
    _exit(1);
  }

  UniqueFd write_end_;  ///< Its being closed is what the guardian waits for.
  pid_t pid_ = -1;
};

/// Whether the process has ended. It stays to be reaped.
bool HasEnded(pid_t pid) {
  siginfo_t info = {};
  return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == pid;
}

/// Kills the group, its guardian too, and reaps the command.
int KillGroupAndReap(pid_t group, pid_t pid) {
  kill(-group, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

CommandResult WaitForEnd(pid_t group, pid_t pid, const CommandRequest& request, OutputCopy& output) {
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
  const int status = KillGroupAndReap(group, pid);
  output.Drain();
  const bool begin_lost = output.begin_lost();
  if (output.write_error() != 0) return {CommandResult::End::kNotStored, output.write_error(), begin_lost};
  if (timed_out) return {CommandResult::End::kTimeLimit, 0, begin_lost};
  if (output.over()) return {CommandResult::End::kOutputLimit, 0, begin_lost};
  if (WIFSIGNALED(status)) return {CommandResult::End::kSignalled, WTERMSIG(status), begin_lost};
  return {CommandResult::End::kExited, WEXITSTATUS(status), begin_lost};
}

}  // namespace

std::string CommandResult::Text() const {
  switch (end) {
    case End::kNotStarted:
      return "not started: " + (distrust.empty() ? ErrorText(code) : distrust);
    case End::kExited:
      return "exit status " + std::to_string(code);
    case End::kSignalled:
      return "ended by signal " + std::to_string(code);
    case End::kTimeLimit:
      return "killed at its time limit";
    case End::kNotStored:
      return "its output can't be stored: " + ErrorText(code);
    case End::kOutputLimit:
      return "killed because its output passed the limit; the output is cut there";
  }
  return {};
}

CommandResult RunCommand(const CommandRequest& request, int output_fd) {
  const auto not_started = [](int error) { return CommandResult{CommandResult::End::kNotStarted, error}; };
  const ProgramPath program = FindProgram(request.argv.front(), request.programs);
  if (program.distrust) return {CommandResult::End::kNotStarted, EPERM, false, program.distrust.Line()};
  if (program.path.empty()) return not_started(ENOENT);
  const Guardian guardian;  // before the pipe, so that it holds no end of it
  if (guardian.group() <= 0) return not_started(errno);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return not_started(errno);
  UniqueFd write_end(ends[1]);
  OutputCopy output(UniqueFd(ends[0]), output_fd, request);
  if (fcntl(ends[0], F_SETFL, O_NONBLOCK) != 0) return not_started(errno);

  pid_t pid = -1;
  const int error = SpawnPlan(write_end.get(), request.output == Output::kBegin, guardian.group())
                        .Spawn(pid, program.path, request);
  if (error != 0) return not_started(error);
  write_end.Close();
  return WaitForEnd(guardian.group(), pid, request, output);
}

}  // namespace TARVO::SupportForm
