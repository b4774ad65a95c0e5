#include "task_process.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <new>
#include <sstream>

#include "api_error.h"
#include "file_util.h"
#include "support_log_fixture.h"
#include "task.h"
#include "task_folder.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {
namespace {

using testing::HasSubstr;

class TaskProcessTest : public SupportLogTest {
 protected:
  TaskProcessTest() { WriteText(folder_ / "lock", ""); }

  UniqueFd Lock() const {
    UniqueFd fd(open((folder_ / "lock").c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(flock(fd.get(), LOCK_EX | LOCK_NB), 0);
    return fd;
  }
  bool LockIsFree() const {
    const UniqueFd fd(open((folder_ / "lock").c_str(), O_RDWR | O_CLOEXEC));
    return flock(fd.get(), LOCK_SH | LOCK_NB) == 0;
  }

  /// The work of a test's task: writes what the kernel says about its process, then waits for `data_` to go.
  int Report() const {
    std::string text;
    for (int fd = 0; fd < 1024; ++fd) {
      char target[4096];
      const ssize_t length =
          readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof(target));
      if (length > 0) {
        text +=
            "fd " + std::to_string(fd) + " " + std::string(target, static_cast<std::size_t>(length)) + "\n";
      }
    }
    text += ReadText("/proc/self/status");
    text += "cwd " + fs::read_symlink("/proc/self/cwd").string() + "\n";
    text += "session " + std::to_string(getsid(0)) + "\n" + "group " + std::to_string(getpgid(0)) + "\n";
    text += "core " + CoreLimit() + "\n";
    text += "dumpable " + std::to_string(prctl(PR_GET_DUMPABLE)) + "\n";
    WriteText(folder_ / "report.new", text);
    fs::rename(folder_ / "report.new", folder_ / "report");
    return Eventually([&] { return !fs::exists(data_); }) ? 0 : 1;
  }
  static std::string CoreLimit() {
    std::istringstream lines(ReadText("/proc/self/limits"));
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind("Max core file size", 0) == 0) return line;
    }
    return {};
  }
  /// Why the task failed, once it has ended.
  std::string FailureOf(const std::function<int()>& work) const {
    {
      const UniqueFd lock = Lock();
      StartDetached(lock.get(), work);
    }
    EXPECT_TRUE(Eventually([&] { return LockIsFree(); }));
    const UniqueFd folder(open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return ReadFailure(folder.get());
  }
  std::string StartAndRead() {
    const UniqueFd lock = Lock();
    StartDetached(lock.get(), [this] { return Report(); });
    EXPECT_TRUE(Eventually([&] { return fs::exists(folder_ / "report"); }));
    return ReadText(folder_ / "report");
  }
  void LetGo() { fs::remove_all(data_); }
};

TEST_F(TaskProcessTest, HasTheLockAndTheNullDeviceAndNoOtherDescriptor) {
  int inherited[2];
  ASSERT_EQ(pipe(inherited), 0);
  openlog("test", LOG_NDELAY, LOG_DAEMON);
  const std::string report = StartAndRead();
  closelog();
  close(inherited[0]);
  close(inherited[1]);
  EXPECT_THAT(report, testing::StartsWith("fd 0 /dev/null\nfd 1 /dev/null\nfd 2 /dev/null\nfd 3 " +
                                          (folder_ / "lock").string() + "\nName:\tsupport_log\n"));
}

TEST_F(TaskProcessTest, HasTheSameDescriptorsWhereTheCallerHasClosedItsFirstThree) {
  std::string report;
  const CallerProcess caller([&] {
    for (int fd = 0; fd < 3; ++fd) close(fd);
    return StartAndRead();
  });
  EXPECT_THAT(caller.Answer(), HasSubstr("fd 0 /dev/null\nfd 1 /dev/null\nfd 2 /dev/null\nfd 3 " +
                                         (folder_ / "lock").string() + "\nName:"));
}

TEST_F(TaskProcessTest, HasDefaultSignalsWhateverTheCallerHasButForTheFileSizeLimitsWhichIsIgnored) {
  const CallerProcess caller([&] {
    EXPECT_NE(signal(SIGTERM, SIG_IGN), SIG_ERR);
    EXPECT_NE(signal(SIGPIPE, SIG_IGN), SIG_ERR);
    EXPECT_NE(signal(SIGRTMAX, SIG_IGN), SIG_ERR);
    EXPECT_NE(signal(SIGHUP, [](int) {}), SIG_ERR);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    return StartAndRead();
  });
  for (const char* name : {"SigBlk", "SigIgn", "SigCgt", "SigPnd", "ShdPnd"}) {
    const std::size_t at = caller.Answer().find(std::string("\n") + name + ":\t");
    ASSERT_NE(at, std::string::npos) << name;
    // Signals 32 and 33 are the C library's own, out of reach for a program.
    constexpr unsigned long long kLibrarySignals = 0x180000000;
    const unsigned long long expected = std::string(name) == "SigIgn" ? 1ULL << (SIGXFSZ - 1) : 0;
    EXPECT_EQ(std::stoull(caller.Answer().substr(at + 9), nullptr, 16) & ~kLibrarySignals, expected) << name;
  }
}

TEST_F(TaskProcessTest, HasItsOwnSessionMaskAndFolder) {
  const std::string report = StartAndRead();
  EXPECT_THAT(report, HasSubstr("\nUmask:\t0077\n"));
  EXPECT_THAT(report, HasSubstr("\ncwd /\n"));
  EXPECT_THAT(report, testing::Not(HasSubstr("\nsession " + std::to_string(getsid(0)) + "\n")));
  EXPECT_THAT(report, testing::Not(HasSubstr("\ngroup " + std::to_string(getpgid(0)) + "\n")));
}

TEST_F(TaskProcessTest, ItsMemoryIsNeitherDumpedNorLookedInto) {
  // By a caller whose own memory is: the task inherits what is not changed.
  const CallerProcess caller([&] {
    rlimit core = {};
    getrlimit(RLIMIT_CORE, &core);
    core.rlim_cur = core.rlim_max;
    EXPECT_TRUE(setrlimit(RLIMIT_CORE, &core) == 0 && prctl(PR_SET_DUMPABLE, 1) == 0);
    return StartAndRead();
  });
  EXPECT_THAT(caller.Answer(), testing::ContainsRegex("Max core file size +0 +0 "));
  EXPECT_THAT(caller.Answer(), HasSubstr("\ndumpable 0\n"));
}

TEST_F(TaskProcessTest, IsNobodysChildAndTheCallersMaskIsAsBefore) {
  sigset_t before;
  sigprocmask(SIG_BLOCK, nullptr, &before);
  const std::string report = StartAndRead();
  EXPECT_THAT(report, testing::Not(HasSubstr("\nPPid:\t" + std::to_string(getpid()) + "\n")));
  LetGo();
  EXPECT_TRUE(Eventually([&] { return LockIsFree(); }));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  sigset_t after;
  sigprocmask(SIG_BLOCK, nullptr, &after);
  for (int number = 1; number < NSIG; ++number) {
    EXPECT_EQ(sigismember(&before, number), sigismember(&after, number));
  }
}

TEST_F(TaskProcessTest, HoldsTheLockAsLongAsItRuns) {
  StartAndRead();  // The caller's own copy is closed by now.
  EXPECT_FALSE(LockIsFree());
  LetGo();
  EXPECT_TRUE(Eventually([&] { return LockIsFree(); }));
}

TEST_F(TaskProcessTest, WhatItsWorkThrowsIsRecordedAndLeavesTheProcessByNoOtherWay) {
  EXPECT_EQ(FailureOf([]() -> int { throw std::bad_alloc(); }), "memory ran out");
}

TEST_F(TaskProcessTest, ThatItCannotBeSetUpIsRecorded) {
  const CallerProcess caller([&] {
    const rlimit too_few = {kTaskLockFd + 1, kTaskLockFd + 1};
    const UniqueFd folder(open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const UniqueFd lock = Lock();
    setrlimit(RLIMIT_NOFILE, &too_few);
    StartDetached(lock.get(), [] { return 0; });
    return std::string();
  });
  EXPECT_TRUE(Eventually([&] { return LockIsFree(); }));
  EXPECT_THAT(ReadText(folder_ / "lock"), HasSubstr("can't be set up: Too many open files"));
}

TEST_F(TaskProcessTest, EndsAtItsLimitThoughItHangsWhereNoSignalHandlerRuns) {
  const std::string failure = FailureOf([] {
    EndAfter(1);
    // NOLINTNEXTLINE(clang-analyzer-security.insecureAPI.vfork): its danger is what the test is about
    if (vfork() == 0) {  // until this child has ended, only a signal that ends the process reaches it
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (;;) pause();
    }
    return 0;
  });
  EXPECT_THAT(failure, HasSubstr("took too long: it was ended after 1 seconds"));
}

TEST_F(TaskProcessTest, OtherChildrenOfTheCallerAreNotReaped) {
  test_support::ChildProcess other([] { return 7; });
  StartAndRead();
  EXPECT_THAT(other.WaitForEnd(), test_support::ExitedWith(7));
}

TEST_F(TaskProcessTest, StartsWhereTheCallerIgnoresTheEndOfItsChildren) {
  const CallerProcess caller([&] {
    EXPECT_NE(signal(SIGCHLD, SIG_IGN), SIG_ERR);
    return StartAndRead();
  });
  EXPECT_THAT(caller.Answer(), HasSubstr("Name:\tsupport_log\n"));
}

}  // namespace
}  // namespace TARVO::SupportForm
