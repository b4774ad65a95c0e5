#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "daemon_fixture.h"

int DaemonMain();  // main.cpp's main()

using test_support::Ending;

namespace {

constexpr char kPidFileCall[] = "TLIBCProcPidFileCreate(/var/run/kestrix_debug_dat_transmitter.pid)";

/// Runs the program's entry in a child. The supervisor's first pause brings SIGTERM.
class MainTest : public DaemonTest {
 protected:
  void SetUp() override {
    platform_.fork_ex = [](int) { return 4711; };
    platform_.usleep = [](useconds_t) {
      Signal(SIGTERM);
      return 0;
    };
    platform_.pipe = [next = 101](int* ends) mutable {
      ends[0] = next++;
      ends[1] = next++;
      return 0;
    };
    platform_.fcntl = [](int, int, long) { return 0; };
    platform_.select = [](int, fd_set*, fd_set*, fd_set*, timeval*) { return 0; };
  }

  Ending Run() {
    return RunInChild([this] {
      platform_.close = [](int fd) {
        RecordCall("close(" + std::to_string(fd) + ")");
        return 0;
      };
      const int status = DaemonMain();
      platform_.close = nullptr;
      return status;
    });
  }
};

TEST_F(MainTest, BecomesADaemonRecordsItsIdAndSupervisesUntilSigterm) {
  EXPECT_THAT(Run(), ExitedWith(0));
  EXPECT_THAT(log_.events(), ElementsAre(Call("daemon(0, 0)"), Call(kPidFileCall), Call("signal(1)"),
                                         Call("signal(15)"), Call("TLIBCProcForkEx(65)"), Call("close(101)"),
                                         Call("close(104)"), Call("ReconfigureByDebugFlag()"),
                                         Call("usleep(500000)"), Call("close(103)"), Call("close(102)")))
      << "the pid file stays";
}

TEST_F(MainTest, FailureToBecomeADaemonEndsWithStatusOne) {
  for (const int result : {-1, 1}) {
    log_.Clear();
    platform_.daemon = [=](int, int) {
      errno = ENOSYS;
      return result;
    };
    EXPECT_THAT(Run(), ExitedWith(1));
    EXPECT_THAT(
        log_.events(),
        ElementsAre(Call("daemon(0, 0)"),
                    test_support::Error("Failed to daemonize, errno=" + std::to_string(ENOSYS), "main.cpp")));
  }
}

TEST_F(MainTest, FailureToWriteThePidFileEndsWithStatusOne) {
  for (const int result : {-1, -2}) {
    log_.Clear();
    platform_.pid_file_create = [=](const char*) { return result; };
    EXPECT_THAT(Run(), ExitedWith(1));
    EXPECT_THAT(
        log_.events(),
        ElementsAre(Call("daemon(0, 0)"), Call(kPidFileCall),
                    test_support::Error("Failed to write pid file=/var/run/kestrix_debug_dat_transmitter.pid",
                                        "main.cpp")));
  }
}

TEST_F(MainTest, PidFileResultThatIsNotNegativeIsNoFailure) {
  platform_.pid_file_create = [](const char*) { return 1; };
  EXPECT_THAT(Run(), ExitedWith(0));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(MainTest, WhatTheSupervisorReturnsIsIgnored) {
  platform_.run = [] { return false; };
  EXPECT_THAT(Run(), ExitedWith(0));
  EXPECT_THAT(log_.events(), ElementsAre(Call("daemon(0, 0)"), Call(kPidFileCall)));
}

TEST_F(MainTest, FailuresGoToTheLogAndNeverToATerminal) {
  const std::string terminal = platform_.folder() / "terminal";
  platform_.daemon = [](int, int) { return -1; };
  for (const bool use_logger : {false, true}) {
    log_.Clear();
    EXPECT_THAT(RunInChild([&] {
                  test_support::ScriptedPlatform::UseLogger(use_logger);
                  const int file = creat(terminal.c_str(), 0600);
                  dup2(file, STDOUT_FILENO);
                  dup2(file, STDERR_FILENO);
                  return DaemonMain();
                }),
                ExitedWith(1));
    EXPECT_THAT(log_.lines(), ElementsAre(testing::Field(&test_support::Event::via_logger, use_logger)));
    EXPECT_EQ(std::filesystem::file_size(terminal), 0U);
  }
}

TEST_F(MainTest, FailureOfTheSupervisorsStartStillEndsWithStatusZero) {
  platform_.fork_ex = [](int) { return -1; };
  EXPECT_THAT(Run(), ExitedWith(0));
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to fork()")));
}

}  // namespace
