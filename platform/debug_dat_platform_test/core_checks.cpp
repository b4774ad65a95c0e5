#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <sstream>

#include "checks.h"
#include "unique_fd.h"

namespace DebugDatPlatformTest {
namespace {

constexpr int kWorkersFlags = 0x41;  // what the daemon passes

using TARVO::SupportForm::UniqueFd;

/// A pipe whose ends a child inherits.
struct Pipe {
  Pipe() {
    std::array<int, 2> ends = {-1, -1};
    if (pipe(ends.data()) != 0) throw CannotTell("there is no pipe");
    reader = UniqueFd(ends[0]);
    writer = UniqueFd(ends[1]);
  }

  UniqueFd reader;
  UniqueFd writer;
};

std::string ReadText(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

using ForkCall = std::function<int()>;

/// The child tells its id over a pipe, and ends with `kChildsStatus`.
void CheckFork(const ForkCall& fork_call) {
  constexpr int kChildsStatus = 7;
  const pid_t parent = getpid();
  Pipe pipe;
  const int result = fork_call();
  if (getpid() != parent) {
    const std::array<pid_t, 2> told = {getpid(), result};
    static_cast<void>(!write(pipe.writer.get(), told.data(), sizeof(told)));
    _exit(kChildsStatus);
  }
  pipe.writer.Close();
  std::array<pid_t, 2> told = {};
  const bool was_told = read(pipe.reader.get(), told.data(), sizeof(told)) == sizeof(told);
  Expect(was_told, "no child wrote into the pipe that it should have inherited");
  Expect(told[1] == 0, "the child got " + std::to_string(told[1]) + " and not 0");
  Expect(result == told[0],
         "the parent got " + std::to_string(result) + ", but its child's id is " + std::to_string(told[0]));
  int status = 0;
  Expect(waitpid(result, &status, 0) == result, "the caller can't wait for the child: it is another's");
  Expect(WIFEXITED(status) && WEXITSTATUS(status) == kChildsStatus, "the child's exit status got lost");
}

/// From now on this process can't fork, as where there are too many processes.
void ForbidForks() {
  sock_filter program[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
#ifdef __NR_fork
                           BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_fork, 3, 0),
                           BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_vfork, 2, 0),
#endif
                           BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone, 1, 0),
                           BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone3, 0, 1),
                           BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN),
                           BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog filter = {std::size(program), program};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
    throw CannotTell("this system can't be made to refuse a fork");
  }
}

void CheckRefusedFork(const ForkCall& fork_call) {
  ForbidForks();
  const int result = fork_call();
  Expect(result < 0, "where the system refuses to fork the result was " + std::to_string(result));
}

using PidFileCreate = int (*)(const char*);

void CheckPidFile(PidFileCreate create, const ScratchFolder& scratch) {
  const std::string path = scratch.NewPath("pid");
  const int result = create(path.c_str());
  Expect(result >= 0, "the result for a new file was " + std::to_string(result));
  const std::string text = ReadText(path);
  std::istringstream words(text);
  pid_t pid = 0;
  Expect(words >> pid && pid == getpid(), "the file holds '" + text.substr(0, text.find('\n')) +
                                              "' and not the caller's id, " + std::to_string(getpid()));
}

void CheckPidFileFailure(PidFileCreate create, const ScratchFolder& scratch) {
  const int result = create(scratch.NewPath("missing/pid").c_str());
  Expect(result < 0, "the result was " + std::to_string(result) + " where the folder is missing");
}

/// A process that has made the pid file, and stays until the object goes.
class Daemon {
 public:
  Daemon(PidFileCreate create, const std::string& path) : pid_(fork()) {
    if (pid_ < 0) throw CannotTell("there is no process for a daemon");
    if (pid_ == 0) {
      const int result = create(path.c_str());
      static_cast<void>(!write(pipe_.writer.get(), &result, sizeof(result)));
      for (;;) pause();
    }
    pipe_.writer.Close();
    if (read(pipe_.reader.get(), &result_, sizeof(result_)) != sizeof(result_)) result_ = -1;
  }
  ~Daemon() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  /// What it got for the pid file.
  [[nodiscard]] int result() const { return result_; }

 private:
  Pipe pipe_;  ///< First: the process that is made next writes to it.
  pid_t pid_;
  int result_ = -1;
};

void CheckSecondDaemon(PidFileCreate create, const ScratchFolder& scratch) {
  const std::string path = scratch.NewPath("pid");
  const Daemon first(create, path);
  Expect(first.result() >= 0, "the first daemon was refused");
  const std::string text = ReadText(path);
  const Daemon second(create, path);
  Expect(second.result() < 0,
         "a second daemon got " + std::to_string(second.result()) + " for the first one's file");
  Expect(ReadText(path) == text, "the second daemon has changed the first one's file");
}

void CheckDeadDaemon(PidFileCreate create, const ScratchFolder& scratch) {
  const std::string path = scratch.NewPath("pid");
  { const Daemon dead(create, path); }
  const Daemon next(create, path);
  Expect(next.result() >= 0, "the file of a daemon that has been killed keeps the next one from starting");
}

using FileExist = int (*)(const char*);

void CheckExists(FileExist exist, const ScratchFolder& scratch) {
  const std::string path = scratch.NewPath("debug.dat");
  WriteText(path, "an archive");
  const int result = exist(path.c_str());
  Expect(result == 1, "the result for an archive that is there was " + std::to_string(result));
}

void CheckMissing(FileExist exist, const ScratchFolder& scratch) {
  Expect(exist(scratch.NewPath("debug.dat").c_str()) != 1, "it was 1 for a path at which nothing is");
  Expect(exist("") != 1, "it was 1 for the empty path, which the daemon asks for where there is no archive");
}

void CheckUnlinked(FileExist exist, const ScratchFolder& scratch) {
  const std::string path = scratch.NewPath("debug.dat");
  WriteText(path, "an archive");
  static_cast<void>(exist(path.c_str()));
  unlink(path.c_str());
  Expect(exist(path.c_str()) != 1, "it was 1 for an archive that has been deleted since");
}

std::vector<Check> ForkChecks(const Platform& platform) {
  const ForkCall fork_plain = [&platform] { return platform.Get<int (*)()>(Symbol::kFork)(); };
  const ForkCall fork_ex = [&platform] { return platform.Get<int (*)(int)>(Symbol::kForkEx)(kWorkersFlags); };
  const std::string three_ways = " has to return what fork() does, for a child of the caller's";
  return {
      {"fork",
       "0 in the child, its id in the parent",
       "TLIBCProcFork()" + three_ways,
       {Symbol::kFork},
       [=] { CheckFork(fork_plain); }},
      {"fork-refused",
       "negative where there is no child",
       "TLIBCProcFork()" + three_ways,
       {Symbol::kFork},
       [=] { CheckRefusedFork(fork_plain); }},
      {"fork-ex",
       "the same with the worker's flags, 0x41",
       "TLIBCProcForkEx()" + three_ways,
       {Symbol::kForkEx},
       [=] { CheckFork(fork_ex); }},
      {"fork-ex-refused",
       "the same with the worker's flags, 0x41",
       "TLIBCProcForkEx()" + three_ways,
       {Symbol::kForkEx},
       [=] { CheckRefusedFork(fork_ex); }},
  };
}

std::vector<Check> PidFileChecks(const Platform& platform, const ScratchFolder& scratch) {
  const auto pid_file = [&](void (*check)(PidFileCreate, const ScratchFolder&)) {
    return [&, check] { check(platform.Get<PidFileCreate>(Symbol::kPidFileCreate), scratch); };
  };
  return {
      {"pid-file",
       "it holds the caller's id",
       "TLIBCProcPidFileCreate() has to write getpid() in decimal",
       {Symbol::kPidFileCreate},
       pid_file(&CheckPidFile)},
      {"pid-file-failure",
       "negative where no file can be made",
       "TLIBCProcPidFileCreate() has to return a negative value where it could not write the file",
       {Symbol::kPidFileCreate},
       pid_file(&CheckPidFileFailure)},
      {"pid-file-second",
       "a second daemon is refused",
       "TLIBCProcPidFileCreate() has to fail while another process holds the file: two daemons would serve "
       "tickets",
       {Symbol::kPidFileCreate},
       pid_file(&CheckSecondDaemon)},
      {"pid-file-dead",
       "a dead daemon's file keeps nobody away",
       "Who holds the file has to be told by a lock, which ends with its process, and not by its being there",
       {Symbol::kPidFileCreate},
       pid_file(&CheckDeadDaemon)},
  };
}

std::vector<Check> FileExistChecks(const Platform& platform, const ScratchFolder& scratch) {
  const auto file = [&](void (*check)(FileExist, const ScratchFolder&)) {
    return [&, check] { check(platform.Get<FileExist>(Symbol::kFileExist), scratch); };
  };
  return {
      {"file-exists",
       "1 for an archive",
       "TLIBCFileExist() has to return 1 for what exists, or archives are left lying",
       {Symbol::kFileExist},
       file(&CheckExists)},
      {"file-missing",
       "not 1 where nothing is",
       "TLIBCFileExist() has to return another value than 1 there",
       {Symbol::kFileExist},
       file(&CheckMissing)},
      {"file-unlinked",
       "not 1 for what was deleted",
       "TLIBCFileExist() has to look each time",
       {Symbol::kFileExist},
       file(&CheckUnlinked)},
  };
}

}  // namespace

std::vector<Check> CoreChecks(const Platform& platform, const ScratchFolder& scratch) {
  std::vector<Check> checks;
  for (const auto& group :
       {ForkChecks(platform), PidFileChecks(platform, scratch), FileExistChecks(platform, scratch)}) {
    checks.insert(checks.end(), group.begin(), group.end());
  }
  return checks;
}

}  // namespace DebugDatPlatformTest
