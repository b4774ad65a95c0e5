#include "platform/core.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "child_process.h"
#include "eventually.h"
#include "shared_memory.h"
#include "temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using test_support::Eventually;
using test_support::ReadFile;
using test_support::WriteFile;

/// A process whose code returns a number.
class Process : public test_support::CallerProcess {
 public:
  explicit Process(const std::function<int()>& work, const std::function<int()>& fork_call = fork)
      : CallerProcess([&] { return std::to_string(work()); }, fork_call) {}

  /// What the code returned; -1000 when it gave no answer in time.
  [[nodiscard]] int Answer() const {
    return CallerProcess::Answer().empty() ? -1000 : std::stoi(CallerProcess::Answer());
  }
};

/// A process that waits for the gate, a pipe, to be closed before it runs its code, and then stays.
class AtOnce {
 public:
  AtOnce(const int (&gate)[2], const std::function<int()>& work)
      : process_([&] {
          char byte = 0;
          close(gate[1]);
          if (read(gate[0], &byte, 1) != 0) return 1;
          answer_->value = work();
          answer_->given = true;
          for (;;) pause();
        }) {}

  /// What the code returned; -1000 when it gave no answer in time.
  [[nodiscard]] int Answer() const {
    return Eventually([this] { return answer_->given.load(); }) ? answer_->value.load() : -1000;
  }
  [[nodiscard]] pid_t pid() const { return process_.pid(); }

 private:
  struct Given {
    std::atomic<int> value;
    std::atomic<bool> given;
  };

  const test_support::Shared<Given> answer_;  ///< Before the process, which has to share it.
  const test_support::ChildProcess process_;
};

bool HasOpen(const fs::path& path) {
  struct stat wanted = {};
  if (stat(path.c_str(), &wanted) != 0) return false;
  for (int fd = 0; fd < 1024; ++fd) {
    struct stat status = {};
    if (fstat(fd, &status) == 0 && status.st_dev == wanted.st_dev && status.st_ino == wanted.st_ino) {
      return true;
    }
  }
  return false;
}

constexpr uid_t kNobody = 65534;

/// As the processes of an ordinary user are, whoever runs the test. What changed its user can't be traced.
void BecomeOrdinaryUser() {
  if (geteuid() == 0 &&
      (setresgid(kNobody, kNobody, kNobody) != 0 || setresuid(kNobody, kNobody, kNobody) != 0)) {
    abort();
  }
  if (prctl(PR_SET_DUMPABLE, 1) != 0) abort();
}

/// All locks that a reader can have. They last as long as the process.
int LockForReading(const fs::path& path) {
  struct flock lock = {};
  lock.l_type = F_RDLCK;
  const int first = open(path.c_str(), O_RDONLY);
  const int second = open(path.c_str(), O_RDONLY);
  return fcntl(first, F_SETLK, &lock) == 0 && fcntl(second, F_OFD_SETLK, &lock) == 0 &&
                 flock(first, LOCK_EX) == 0
             ? 0
             : -errno;
}

int LockForWriting(const fs::path& path) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  return fcntl(open(path.c_str(), O_RDWR), F_SETLK, &lock) == 0 ? 0 : -errno;
}

bool MayLookInto(pid_t pid, const std::string& file) {
  const int fd = open(("/proc/" + std::to_string(pid) + "/" + file).c_str(), O_RDONLY | O_CLOEXEC);
  char byte = 0;
  const bool may = fd >= 0 && (read(fd, &byte, 1) == 1 || file == "mem");
  close(fd);
  return may;
}

class TarvoCoreTest : public testing::Test {
 protected:
  /// Creates the pid file. Returns 0, or the negative errno; -999 for a failure that isn't negative.
  int Create() {
    errno = 0;
    const int result = TLIBCProcPidFileCreate(pid_file_.c_str());
    if (result >= 0) return 0;
    return errno > 0 ? -errno : -999;
  }
  std::function<int()> Creation() {
    return [this] { return Create(); };
  }
  /// A process of an ordinary user that has locked the pid file.
  [[nodiscard]] Process AnotherUserWith(int (*lock)(const fs::path&)) {
    return Process([this, lock] {
      BecomeOrdinaryUser();
      return lock(pid_file_);
    });
  }
  void MakePidFile(mode_t mode) const {
    WriteFile(pid_file_, "1\n");
    fs::permissions(pid_file_, static_cast<fs::perms>(mode));
  }
  /// Lets an ordinary user into the folder, and lets them write there.
  void LetOthersIn() const { fs::permissions(folder_, static_cast<fs::perms>(0777)); }

  const test_support::TemporaryFolder temporary_;
  const fs::path folder_ = temporary_.path();
  fs::path pid_file_ = folder_ / "daemon.pid";
};

TEST_F(TarvoCoreTest, PidFileHoldsTheCallersIdAndANewline) {
  const Process daemon(Creation());
  ASSERT_EQ(daemon.Answer(), 0);
  EXPECT_EQ(ReadFile(pid_file_), std::to_string(daemon.pid()) + "\n");
  struct stat status = {};
  ASSERT_EQ(stat(pid_file_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(TarvoCoreTest, PidFileOfALiveHolderIsRefusedAndLeftAsItIs) {
  const Process daemon(Creation());
  ASSERT_EQ(daemon.Answer(), 0);
  const Process second(Creation());
  EXPECT_TRUE(second.Answer() == -EAGAIN || second.Answer() == -EACCES);
  EXPECT_EQ(ReadFile(pid_file_), std::to_string(daemon.pid()) + "\n");
}

TEST_F(TarvoCoreTest, RefusedSecondProcessDoesNotDropTheHoldersLock) {
  const Process daemon(Creation());
  ASSERT_EQ(daemon.Answer(), 0);
  { const Process second(Creation()); }
  const Process third(Creation());
  EXPECT_LT(third.Answer(), 0);
}

TEST_F(TarvoCoreTest, PidFileOfAnEndedHolderIsTaken) {
  Process first(Creation());
  ASSERT_EQ(first.Answer(), 0);
  first.EndBy(SIGKILL);
  const Process second(Creation());
  EXPECT_EQ(second.Answer(), 0);
  EXPECT_EQ(ReadFile(pid_file_), std::to_string(second.pid()) + "\n");
}

TEST_F(TarvoCoreTest, PidFileIsAFreshOneOfTheOwnersAlone) {
  WriteFile(pid_file_, "a much longer content than any process id\nand a second line\n");
  fs::permissions(pid_file_, static_cast<fs::perms>(0644));
  fs::create_hard_link(pid_file_, folder_ / "second name");
  const Process daemon([this] {
    umask(0);
    return Create();
  });
  ASSERT_EQ(daemon.Answer(), 0);
  struct stat status = {};
  ASSERT_EQ(stat(pid_file_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
  EXPECT_EQ(status.st_nlink, 1U);
  EXPECT_EQ(ReadFile(pid_file_), std::to_string(daemon.pid()) + "\n");
  EXPECT_THAT(ReadFile(folder_ / "second name"), testing::EndsWith("second line\n"));
  EXPECT_FALSE(fs::exists(folder_ / "daemon.pid.new"));
}

TEST_F(TarvoCoreTest, LocksOfOthersOnAPidFileThatTheyMightReadDoNotCount) {
  MakePidFile(0644);
  LetOthersIn();
  const Process neighbour = AnotherUserWith(LockForReading);
  ASSERT_EQ(neighbour.Answer(), 0);
  Process first(Creation());
  EXPECT_EQ(first.Answer(), 0);
  EXPECT_LT(Process(Creation()).Answer(), 0) << "the neighbour's lock must not hide the daemon's";
  first.EndBy(SIGKILL);
  EXPECT_EQ(Process(Creation()).Answer(), 0);
}

TEST_F(TarvoCoreTest, WriteLockOnAFileOfAnotherUserOrOneThatOthersMayWriteToDoesNotCount) {
  MakePidFile(0666);
  LetOthersIn();
  const Process neighbour = AnotherUserWith(LockForWriting);
  ASSERT_EQ(neighbour.Answer(), 0);
  EXPECT_EQ(Process(Creation()).Answer(), 0);

  fs::remove(pid_file_);
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  WriteFile(pid_file_, "1\n");
  ASSERT_EQ(chown(pid_file_.c_str(), kNobody, kNobody), 0);
  const Process other = AnotherUserWith(LockForWriting);
  ASSERT_EQ(other.Answer(), 0);
  EXPECT_EQ(Process(Creation()).Answer(), 0);
}

TEST_F(TarvoCoreTest, LockOfADaemonThatMadeItsFileReadableToAllCounts) {
  WriteFile(pid_file_, "1\n");
  fs::permissions(pid_file_, static_cast<fs::perms>(0644));
  const Process daemon([this] { return LockForWriting(pid_file_); });
  ASSERT_EQ(daemon.Answer(), 0);
  EXPECT_EQ(Process(Creation()).Answer(), -EAGAIN);
  EXPECT_EQ(ReadFile(pid_file_), "1\n");
}

TEST_F(TarvoCoreTest, WhatAStartThatWasCutShortLeftIsTaken) {
  WriteFile(folder_ / "daemon.pid.new", "123456789\n");
  fs::permissions(folder_ / "daemon.pid.new", static_cast<fs::perms>(0600));
  const Process daemon(Creation());
  EXPECT_EQ(daemon.Answer(), 0);
  EXPECT_EQ(ReadFile(pid_file_), std::to_string(daemon.pid()) + "\n");
  EXPECT_FALSE(fs::exists(folder_ / "daemon.pid.new"));
}

TEST_F(TarvoCoreTest, FileInItsWayThatOthersMayOpenIsRefusedAndLeftAlone) {
  WriteFile(folder_ / "daemon.pid.new", "precious");
  fs::permissions(folder_ / "daemon.pid.new", static_cast<fs::perms>(0644));
  EXPECT_EQ(Process(Creation()).Answer(), -EPERM);
  EXPECT_EQ(ReadFile(folder_ / "daemon.pid.new"), "precious");
  EXPECT_FALSE(fs::exists(pid_file_));
}

TEST_F(TarvoCoreTest, OfManyThatStartAtOnceExactlyOneRuns) {
  constexpr int kRounds = 30;
  constexpr int kStarters = 6;
  for (int round = 0; round < kRounds; ++round) {
    // In every third round there is what a start that was cut short left.
    if (round % 3 == 1) fs::rename(pid_file_, folder_ / "daemon.pid.new");
    int gate[2];
    ASSERT_EQ(pipe2(gate, O_CLOEXEC), 0);
    std::vector<std::unique_ptr<AtOnce>> starters;
    starters.reserve(kStarters);
    for (int i = 0; i < kStarters; ++i) starters.push_back(std::make_unique<AtOnce>(gate, Creation()));
    close(gate[0]);
    close(gate[1]);  // now they all begin
    std::string holder;
    int running = 0;
    for (const auto& starter : starters) {
      const int answer = starter->Answer();
      if (answer == 0) {
        ++running;
        holder = std::to_string(starter->pid()) + "\n";
      } else {
        EXPECT_TRUE(answer == -EAGAIN || answer == -EACCES) << answer;
      }
    }
    ASSERT_EQ(running, 1) << "round " << round;
    EXPECT_EQ(ReadFile(pid_file_), holder);
    EXPECT_FALSE(fs::exists(folder_ / "daemon.pid.new"));
  }
}

TEST_F(TarvoCoreTest, DaemonsLeaveNoCoreAndCannotBeLookedIntoByTheirUser) {
  LetOthersIn();
  using ForkCall = std::function<int()>;
  const std::pair<std::function<int()>, ForkCall> kinds[] = {
      {Creation(), fork},
      {[] { return 0; }, TLIBCProcFork},
      {[] { return 0; }, [] { return TLIBCProcForkEx(0x41); }}};
  for (const auto& [work, fork_call] : kinds) {
    // All of them run as the same ordinary user, and as one whose processes may be traced.
    const Process tracer([&, &made = work, &call = fork_call] {
      BecomeOrdinaryUser();
      rlimit core = {};
      if (chdir(folder_.c_str()) != 0 || getrlimit(RLIMIT_CORE, &core) != 0) return -1;
      core.rlim_cur = core.rlim_max;
      if (setrlimit(RLIMIT_CORE, &core) != 0) return -2;
      Process open_one([] { return 0; });
      if (!MayLookInto(open_one.pid(), "environ")) return -3;
      Process daemon(made, call);
      if (daemon.Answer() != 0) return -4;
      if (MayLookInto(daemon.pid(), "environ") || MayLookInto(daemon.pid(), "mem")) return -5;
      if (ptrace(PTRACE_SEIZE, daemon.pid(), nullptr, nullptr) == 0 || errno != EPERM) return -6;
      const test_support::Ending ending =
          daemon.EndBy(SIGQUIT);  // the address sanitizer takes SIGSEGV for its own
      return ending.signal == SIGQUIT && !ending.dumped ? 0 : -7;
    });
    EXPECT_EQ(tracer.Answer(), 0);
  }
  for (const auto& entry : fs::directory_iterator(folder_)) {
    EXPECT_EQ(entry.path().filename().string().find("core"), std::string::npos) << entry.path();
  }
}

TEST_F(TarvoCoreTest, SecondCallOfTheHolderFailsAndKeepsTheLock) {
  const Process daemon([this] { return Create() == 0 ? Create() : -998; });
  EXPECT_EQ(daemon.Answer(), -EALREADY);
  const Process second(Creation());
  EXPECT_LT(second.Answer(), 0);
  EXPECT_NE(second.Answer(), -998);
}

TEST_F(TarvoCoreTest, ForkedChildDoesNotInheritTheLock) {
  // The holder forks a child that stays, and ends: the child must not keep the file from the next holder.
  int alive[2];
  ASSERT_EQ(pipe2(alive, O_CLOEXEC), 0);
  Process daemon([&] {
    const int created = Create();
    const int worker = TLIBCProcForkEx(0x41);
    if (worker == 0) {
      char byte = 0;
      close(alive[1]);
      _exit(read(alive[0], &byte, 1) == 0 ? 0 : 1);
    }
    return worker > 0 ? created : worker;
  });
  ASSERT_EQ(daemon.Answer(), 0);
  daemon.EndBy(SIGKILL);
  const Process next(Creation());
  EXPECT_EQ(next.Answer(), 0);
  close(alive[0]);
  close(alive[1]);
}

TEST_F(TarvoCoreTest, LockSurvivesTheEndOfAForkedChild) {
  const Process daemon([this] {
    const int created = Create();
    const int child = TLIBCProcFork();
    if (child == 0) _exit(0);
    return child > 0 && waitpid(child, nullptr, 0) == child ? created : -997;
  });
  ASSERT_EQ(daemon.Answer(), 0);
  const Process second(Creation());
  EXPECT_LT(second.Answer(), 0);
}

TEST_F(TarvoCoreTest, ForkedChildHasNoDescriptorOfThePidFile) {
  for (const auto& fork_call :
       {std::function<int()>(TLIBCProcFork), std::function<int()>([] { return TLIBCProcForkEx(0x41); })}) {
    const Process daemon([&] {
      if (Create() != 0 || !HasOpen(pid_file_)) return -1;
      const Process child([&] { return HasOpen(pid_file_) ? 1 : 2; }, fork_call);
      return child.Answer();
    });
    EXPECT_EQ(daemon.Answer(), 2);
  }
}

TEST_F(TarvoCoreTest, ForkedChildMayHoldAPidFileOfItsOwn) {
  const Process daemon([this] {
    if (Create() != 0) return -1;
    pid_file_ = folder_ / "other.pid";
    const Process child(Creation(), TLIBCProcFork);
    return child.Answer();
  });
  EXPECT_EQ(daemon.Answer(), 0);
}

TEST_F(TarvoCoreTest, PidFileThatIsAnothersLinkIsRefusedAndItsTargetUntouched) {
  WriteFile(folder_ / "target", "precious");
  fs::create_symlink(folder_ / "target", pid_file_);
  const bool is_given = geteuid() != 0 || lchown(pid_file_.c_str(), kNobody, kNobody) == 0;
  ASSERT_TRUE(is_given);
  EXPECT_EQ(Process(Creation()).Answer(), -ELOOP);
  EXPECT_EQ(ReadFile(folder_ / "target"), "precious");
}

TEST_F(TarvoCoreTest, LinkInAFolderThatOthersMayWriteToIsRefused) {
  fs::create_symlink(folder_ / "target", pid_file_);
  fs::permissions(folder_, static_cast<fs::perms>(0777));
  EXPECT_EQ(Process(Creation()).Answer(), -ELOOP);
  EXPECT_FALSE(fs::exists(folder_ / "target"));
}

TEST_F(TarvoCoreTest, RootsLinkLeadsToThePidFileOfADaemonWithoutRootsRights) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can put the link there";
  fs::permissions(folder_, static_cast<fs::perms>(0755));
  const fs::path own = folder_ / "own";
  fs::create_directory(own);
  ASSERT_EQ(chown(own.c_str(), kNobody, kNobody), 0);
  fs::create_symlink("own/daemon.pid", pid_file_);
  const auto ordinary = [this] {
    BecomeOrdinaryUser();
    return Create();
  };
  for (int turn = 0; turn < 2; ++turn) {
    Process daemon(ordinary);
    ASSERT_EQ(daemon.Answer(), 0);
    EXPECT_EQ(ReadFile(own / "daemon.pid"), std::to_string(daemon.pid()) + "\n");
    EXPECT_TRUE(fs::is_symlink(pid_file_));
    EXPECT_EQ(Process(Creation()).Answer(), -EAGAIN) << "root's daemon must see the other's lock";
    daemon.EndBy(SIGKILL);

    Process by_hand(Creation());
    ASSERT_EQ(by_hand.Answer(), 0);
    EXPECT_EQ(Process(ordinary).Answer(), -EAGAIN) << "the other must see the lock of root's daemon";
    by_hand.EndBy(SIGKILL);
  }
}

TEST_F(TarvoCoreTest, PidFileThatIsAPipeIsRefusedAtOnce) {
  ASSERT_EQ(mkfifo(pid_file_.c_str(), 0600), 0);
  const Process daemon(Creation());
  EXPECT_EQ(daemon.Answer(), -EINVAL);
}

TEST_F(TarvoCoreTest, PidFileInAMissingFolderOrWithoutANameFails) {
  pid_file_ = folder_ / "missing" / "daemon.pid";
  EXPECT_EQ(Create(), -ENOENT);
  EXPECT_LT(TLIBCProcPidFileCreate(nullptr), 0);
  EXPECT_LT(TLIBCProcPidFileCreate(""), 0);
}

TEST_F(TarvoCoreTest, ForkAnswersZeroInTheChildAndTheChildsIdInTheParent) {
  for (const auto& fork_call :
       {std::function<int()>(TLIBCProcFork), std::function<int()>([] { return TLIBCProcForkEx(0); })}) {
    const Process child([] { return static_cast<int>(getpid()); }, fork_call);
    EXPECT_EQ(child.Answer(), child.pid());
  }
}

TEST_F(TarvoCoreTest, FileExistIsOneForAnythingThatIsThereAndZeroOtherwise) {
  WriteFile(folder_ / "file", "");
  fs::create_symlink(folder_ / "nowhere", folder_ / "dangling");
  EXPECT_EQ(TLIBCFileExist((folder_ / "file").c_str()), 1);
  EXPECT_EQ(TLIBCFileExist(folder_.c_str()), 1);
  EXPECT_EQ(TLIBCFileExist((folder_ / "dangling").c_str()), 1);
  EXPECT_EQ(TLIBCFileExist((folder_ / "nowhere").c_str()), 0);
  EXPECT_EQ(TLIBCFileExist(""), 0);
  EXPECT_EQ(TLIBCFileExist(nullptr), 0);
}

}  // namespace
