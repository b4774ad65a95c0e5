#include "sandbox.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <functional>

#include "child_process.h"
#include "program.h"
#include "reader_program.h"

namespace TarvoOrvane::ArchiveReader {
namespace {

using test_support::ChildProcess;
using test_support::ExitedWith;
using test_support::HasEnded;
using test_support::KilledBy;
using test_support::RunInChild;
using test_support::StartProgram;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

constexpr int kNotSandboxed = 77;

/// A child that is in the sandbox, and then calls this.
test_support::Ending InSandbox(const std::function<long()>& call) {
  return RunInChild([&] {
    if (!EnterSandbox()) _exit(kNotSandboxed);
    call();
    syscall(SYS_exit_group, 0);
    return 0;
  });
}

struct CallCase {
  const char* name;
  long (*call)();
};

/// Each would be of use to somebody who has taken over the reader.
const CallCase kForbidden[] = {
    {"open a file", [] { return syscall(SYS_openat, AT_FDCWD, "/etc/passwd", O_RDONLY); }},
    {"make a file", [] { return syscall(SYS_openat, AT_FDCWD, "made", O_WRONLY | O_CREAT, 0600); }},
    {"make a socket", [] { return syscall(SYS_socket, AF_INET, SOCK_STREAM, 0); }},
    {"make a unix socket", [] { return syscall(SYS_socket, AF_UNIX, SOCK_STREAM, 0); }},
    {"run a program",
     [] {
       const char* const arguments[] = {"/bin/true", nullptr};
       return syscall(SYS_execve, arguments[0], arguments, nullptr);
     }},
    {"run a file that is open", [] { return syscall(SYS_execveat, 0, "", nullptr, nullptr, AT_EMPTY_PATH); }},
    {"fork", [] { return syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr); }},
    {"end the service", [] { return syscall(SYS_kill, getppid(), SIGTERM); }},
    {"look into the service", [] { return syscall(SYS_ptrace, 16, 1, nullptr, nullptr); }},
    {"delete", [] { return syscall(SYS_unlinkat, AT_FDCWD, "x", 0); }},
    {"have another descriptor", [] { return syscall(SYS_dup, 0); }},
    {"read another descriptor", [] { return syscall(SYS_read, 1, nullptr, 0); }},
    {"write another descriptor", [] { return syscall(SYS_write, 0, "", 0); }},
    {"load code",
     [] {
       return syscall(SYS_mmap, nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
     }},
    {"map a file", [] { return syscall(SYS_mmap, nullptr, 4096, PROT_READ, MAP_PRIVATE, 0, 0); }},
    {"make memory code", [] { return syscall(SYS_mprotect, nullptr, 0, PROT_EXEC); }},
    {"change its limits", [] { return syscall(SYS_prlimit64, 0, RLIMIT_CPU, nullptr, nullptr); }},
    {"have more rights", [] { return syscall(SYS_setuid, 0); }},
    {"have other namespaces", [] { return syscall(SYS_unshare, 0); }},
    {"outlive the service", [] { return syscall(SYS_prctl, PR_SET_PDEATHSIG, 0); }}};

TEST(SandboxTest, ForbiddenCallEndsTheProcess) {
  if (!kTightSandbox) GTEST_SKIP() << "this build's sandbox forbids nothing";
  for (const CallCase& row : kForbidden) EXPECT_THAT(InSandbox(row.call), KilledBy(SIGSYS)) << row.name;
}

TEST(SandboxTest, WhatTheReaderNeedsIsLeft) {
  EXPECT_THAT(InSandbox([] {
                std::string memory(std::size_t{32} << 20, 'x');
                memory.resize(std::size_t{64} << 20);
                return static_cast<long>(memory.size() + static_cast<std::size_t>(write(1, "", 0)));
              }),
              ExitedWith(0));
}

TEST(SandboxTest, MemoryHasALimit) {
  if (!kTightSandbox) GTEST_SKIP() << "this build's sandbox leaves all memory";
  EXPECT_THAT(InSandbox([] {
                void* memory =
                    mmap(nullptr, std::size_t{300} << 20, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                syscall(SYS_exit_group, memory == MAP_FAILED ? 5 : 6);
                return 0L;
              }),
              ExitedWith(5));
}

/// The program, waiting for an archive that does not come.
class WaitingReaderTest : public ::testing::Test {
 protected:
  WaitingReaderTest() {
    EXPECT_EQ(pipe2(input_, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(output_, O_CLOEXEC), 0);
  }
  ~WaitingReaderTest() override {
    for (const int fd : {input_[0], input_[1], output_[0], output_[1]}) close(fd);
  }
  [[nodiscard]] pid_t StartReader() const {
    return StartProgram({ARCHIVE_READER_PROGRAM, "list", "0", "9"}, {"SECRET=value"},
                        {input_[0], output_[1], -1});
  }
  static std::string Status(pid_t pid, const std::string& name) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
      if (line.rfind(name + ":\t", 0) == 0) return line.substr(name.size() + 2);
    }
    return "";
  }

  int input_[2] = {-1, -1};
  int output_[2] = {-1, -1};
};

TEST_F(WaitingReaderTest, HasGivenUpItsRightsBeforeItReads) {
  if (!kTightSandbox) GTEST_SKIP() << "this build's sandbox forbids nothing";
  const ChildProcess reader(StartReader());
  ASSERT_TRUE(test_support::Eventually([&] { return Status(reader.pid(), "Seccomp") == "2"; }));
  EXPECT_EQ(Status(reader.pid(), "NoNewPrivs"), "1");
  const std::string limits = test_support::ReadFile("/proc/" + std::to_string(reader.pid()) + "/limits");
  for (const char* line :
       {"Max cpu time +70 +70 ", "Max file size +0 +0 ", "Max core file size +0 +0 ", "Max open files +0 +0 ",
        "Max processes +0 +0 ", "Max address space +268435456 +268435456 "}) {
    EXPECT_THAT(limits, ::testing::ContainsRegex(line));
  }
  if (geteuid() != 0) return;  // others may not look at a process that gives up so much
  EXPECT_THAT(test_support::OpenDescriptors(reader.pid()), ElementsAre(0, 1, 2));
}

TEST_F(WaitingReaderTest, EndsWithTheProcessThatHasStartedIt) {
  test_support::AdoptOrphans();
  int told[2] = {-1, -1};
  ASSERT_EQ(pipe2(told, O_CLOEXEC), 0);
  ChildProcess service([&] {
    const pid_t reader = StartReader();
    static_cast<void>(write(told[1], &reader, sizeof(reader)));
    pause();
    return 0;
  });
  pid_t reader = -1;
  ASSERT_EQ(read(told[0], &reader, sizeof(reader)), static_cast<ssize_t>(sizeof(reader)));
  EXPECT_TRUE(test_support::Eventually([&] { return Status(reader, "NoNewPrivs") == "1"; }));
  EXPECT_FALSE(HasEnded(reader));
  service.Signal(SIGKILL);
  ASSERT_TRUE(test_support::Eventually([&] { return HasEnded(reader); }));
  EXPECT_THAT(test_support::WaitForProcess(reader), KilledBy(SIGKILL));
  close(told[0]);
  close(told[1]);
}

TEST_F(WaitingReaderTest, EndsWhenNobodyReadsWhatItWrites) {
  ChildProcess reader(StartReader());
  close(std::exchange(output_[0], -1));
  close(std::exchange(output_[1], -1));
  const std::string archive = test_support::MadeArchive(std::vector<test_support::TarEntry>{{"a"}});
  ASSERT_EQ(write(input_[1], archive.data(), archive.size()), static_cast<ssize_t>(archive.size()));
  close(std::exchange(input_[1], -1));
  EXPECT_THAT(reader.WaitForEnd(),
              ::testing::AnyOf(KilledBy(SIGPIPE), ExitedWith(static_cast<int>(ReaderEnd::kOutputFailed))));
}

}  // namespace
}  // namespace TarvoOrvane::ArchiveReader
