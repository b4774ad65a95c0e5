#include "platform/core.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;

constexpr int kDeadlineMs = 10'000;

/// A process forked by a test. It runs one piece of code, which the constructor waits for,
/// then stays until it is told to end.
class Process {
 public:
  /// @param work  Runs in the new process; its result is what Answer() gives.
  /// @param fork_call  How the process is forked.
  explicit Process(const std::function<int()>& work, const std::function<int()>& fork_call = fork) {
    int up[2];
    int down[2];
    if (pipe2(up, O_CLOEXEC) != 0 || pipe2(down, O_CLOEXEC) != 0) abort();
    pid_ = fork_call();
    if (pid_ == 0) {
      close(up[0]);
      close(down[1]);
      const int answer = work();
      char byte = 0;
      const bool told = write(up[1], &answer, sizeof(answer)) == sizeof(answer);
      _exit(told && read(down[0], &byte, 1) == 0 ? 0 : 1);
    }
    close(up[1]);
    close(down[0]);
    to_ = down[1];
    pollfd wait = {up[0], POLLIN, 0};
    if (poll(&wait, 1, kDeadlineMs) == 1 && read(up[0], &answer_, sizeof(answer_)) != sizeof(answer_))
      answer_ = -1000;
    close(up[0]);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() { End(); }

  /// What the process's work returned; -1000 when it gave no answer in time.
  [[nodiscard]] int Answer() const { return answer_; }

  /// Lets the process end and waits for it.
  void End() {
    if (to_ < 0) return;
    close(to_);
    to_ = -1;
    waitpid(pid_, nullptr, 0);
  }

  void Kill() {
    kill(pid_, SIGKILL);
    End();
  }

  [[nodiscard]] pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int answer_ = -1000;
  int to_ = -1;
};

std::string Content(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void Write(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

bool HasOpen(const fs::path& path) {
  struct stat wanted = {};
  if (stat(path.c_str(), &wanted) != 0) return false;
  for (int fd = 0; fd < 1024; ++fd) {
    struct stat status = {};
    if (fstat(fd, &status) == 0 && status.st_dev == wanted.st_dev && status.st_ino == wanted.st_ino)
      return true;
  }
  return false;
}

class TarvoCoreTest : public testing::Test {
 protected:
  TarvoCoreTest() {
    std::string name = (fs::temp_directory_path() / "tarvocore_test.XXXXXX").string();
    folder_ = mkdtemp(name.data());
    pid_file_ = folder_ / "daemon.pid";
  }
  ~TarvoCoreTest() override { fs::remove_all(folder_); }

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

  fs::path folder_;
  fs::path pid_file_;
};

TEST_F(TarvoCoreTest, PidFileHoldsTheCallersIdAndANewline) {
  const Process daemon(Creation());
  ASSERT_EQ(daemon.Answer(), 0);
  EXPECT_EQ(Content(pid_file_), std::to_string(daemon.pid()) + "\n");
  struct stat status = {};
  ASSERT_EQ(stat(pid_file_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07133U, 0U) << "not executable, written by nobody else";
}

TEST_F(TarvoCoreTest, PidFileOfALiveHolderIsRefusedAndLeftAsItIs) {
  const Process daemon(Creation());
  ASSERT_EQ(daemon.Answer(), 0);
  const Process second(Creation());
  EXPECT_TRUE(second.Answer() == -EAGAIN || second.Answer() == -EACCES);
  EXPECT_EQ(Content(pid_file_), std::to_string(daemon.pid()) + "\n");
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
  first.Kill();
  const Process second(Creation());
  EXPECT_EQ(second.Answer(), 0);
  EXPECT_EQ(Content(pid_file_), std::to_string(second.pid()) + "\n");
}

TEST_F(TarvoCoreTest, PidFileIsRewrittenInPlace) {
  Write(pid_file_, "a much longer content than any process id\nand a second line\n");
  struct stat before = {};
  ASSERT_EQ(stat(pid_file_.c_str(), &before), 0);
  const Process daemon(Creation());
  ASSERT_EQ(daemon.Answer(), 0);
  struct stat after = {};
  ASSERT_EQ(stat(pid_file_.c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(Content(pid_file_), std::to_string(daemon.pid()) + "\n");
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
  daemon.Kill();
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

TEST_F(TarvoCoreTest, PidFileThatIsALinkIsRefusedAndItsTargetUntouched) {
  Write(folder_ / "target", "precious");
  fs::create_symlink(folder_ / "target", pid_file_);
  const Process daemon(Creation());
  EXPECT_EQ(daemon.Answer(), -ELOOP);
  EXPECT_EQ(Content(folder_ / "target"), "precious");
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
  Write(folder_ / "file", "");
  fs::create_symlink(folder_ / "nowhere", folder_ / "dangling");
  EXPECT_EQ(TLIBCFileExist((folder_ / "file").c_str()), 1);
  EXPECT_EQ(TLIBCFileExist(folder_.c_str()), 1);
  EXPECT_EQ(TLIBCFileExist((folder_ / "dangling").c_str()), 1);
  EXPECT_EQ(TLIBCFileExist((folder_ / "nowhere").c_str()), 0);
  EXPECT_EQ(TLIBCFileExist(""), 0);
  EXPECT_EQ(TLIBCFileExist(nullptr), 0);
}

}  // namespace
