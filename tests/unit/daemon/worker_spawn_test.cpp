#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "daemon_fixture.h"

namespace {

/// Descriptors are numbers only here: pipe() yields 101, 102 and then 103, 104.
class WorkerSpawnTest : public DaemonTest {
 protected:
  void SetUp() override {
    platform_.pipe = [this](int* ends) {
      EXPECT_EQ(ends[0], -1);
      EXPECT_EQ(ends[1], -1);
      RecordCall("pipe()");
      if (++pipes_ == failing_pipe_) {
        errno = EMFILE;
        return -1;
      }
      ends[0] = 99 + 2 * pipes_;
      ends[1] = 100 + 2 * pipes_;
      return 0;
    };
    platform_.fork_ex = [this](int) {
      at_fork_ = Descriptors();
      return fork_result_;
    };
    platform_.close = [this](int fd) {
      RecordCall("close(" + std::to_string(fd) + ")");
      errno = EIO;
      return fd == failing_close_ ? -1 : 0;
    };
    platform_.fcntl = [this](int fd, int command, long argument) {
      if (command == F_GETFL) return 0;
      EXPECT_EQ(command, F_SETFL);
      EXPECT_EQ(argument, O_NONBLOCK);
      RecordCall("nonblocking(" + std::to_string(fd) + ")");
      errno = EBADF;
      return fd == failing_fcntl_ ? -1 : 0;
    };
  }

  void TearDown() override {
    platform_.close = [](int) { return 0; };  // the numbers are nobody's
    for (int* const fd :
         {&main_.fromWorkerReadFd, &main_.toWorkerWriteFd, &main_.toWorkerReadFd, &main_.fromWorkerWriteFd}) {
      *fd = -1;
    }
    platform_.close = nullptr;
  }

  std::vector<int> Descriptors() const {
    return {main_.toWorkerReadFd, main_.toWorkerWriteFd, main_.fromWorkerReadFd, main_.fromWorkerWriteFd};
  }

  std::vector<int> at_fork_;  ///< Descriptors() when the worker was forked.
  int pipes_ = 0;
  int failing_pipe_ = 0;
  int failing_fcntl_ = 0;
  int failing_close_ = 0;
  int fork_result_ = 4711;
};

TEST_F(WorkerSpawnTest, SupervisorKeepsItsEndsNonBlocking) {
  EXPECT_TRUE(main_.SpawnWorker());
  EXPECT_THAT(log_.events(),
              ElementsAre(Call("pipe()"), Call("pipe()"), Call("TLIBCProcForkEx(65)"), Call("close(101)"),
                          Call("close(104)"), Call("nonblocking(103)"), Call("nonblocking(102)")));
  EXPECT_THAT(at_fork_, ElementsAre(101, 102, 103, 104));
  EXPECT_THAT(Descriptors(), ElementsAre(-1, 102, 103, -1));
  EXPECT_FALSE(main_.transmitterRunning);
}

TEST_F(WorkerSpawnTest, EndThatTheSupervisorCannotCloseHoldsNothingUp) {
  failing_close_ = 101;
  EXPECT_TRUE(main_.SpawnWorker());
  EXPECT_THAT(log_.events(),
              ElementsAre(Call("pipe()"), Call("pipe()"), Call("TLIBCProcForkEx(65)"), Call("close(101)"),
                          Error("Failed to do close(), err=Input/output error"), Call("close(104)"),
                          Call("nonblocking(103)"), Call("nonblocking(102)")));
  EXPECT_THAT(Descriptors(), ElementsAre(101, 102, 103, -1));
}

TEST_F(WorkerSpawnTest, EndThatTheWorkerCannotCloseHoldsNothingUp) {
  fork_result_ = 0;
  failing_close_ = 103;
  EXPECT_TRUE(main_.SpawnWorker());
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to do close(), err=Input/output error"), testing::_,
                                        Error("Failed to get grpc server url")));
  EXPECT_THAT(Descriptors(), ElementsAre(101, -1, 103, 104));
}

TEST_F(WorkerSpawnTest, AnyPositiveResultOfTheForkIsTheSupervisors) {
  fork_result_ = 1;
  EXPECT_TRUE(main_.SpawnWorker());
  EXPECT_THAT(Descriptors(), ElementsAre(-1, 102, 103, -1));
}

TEST_F(WorkerSpawnTest, SecondEndIsNotTriedWhereTheFirstCannotBeMadeNonBlocking) {
  failing_fcntl_ = 103;
  EXPECT_FALSE(main_.SpawnWorker());
  EXPECT_THAT(log_.events(), ElementsAre(Call("pipe()"), Call("pipe()"), Call("TLIBCProcForkEx(65)"),
                                         Call("close(101)"), Call("close(104)"), Call("nonblocking(103)"),
                                         Error("Failed to do fcntl(), err=Bad file descriptor"),
                                         Error("Failed to set file descriptor as non-blocking")));
}

TEST_F(WorkerSpawnTest, SecondEndThatCannotBeMadeNonBlockingIsAFailureToo) {
  failing_fcntl_ = 102;
  EXPECT_FALSE(main_.SpawnWorker());
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to do fcntl(), err=Bad file descriptor"),
                                        Error("Failed to set file descriptor as non-blocking")));
}

TEST_F(WorkerSpawnTest, FailedForkLeavesAllFourEndsOpen) {
  for (const int result : {-1, -2}) {
    log_.Clear();
    pipes_ = 0;
    fork_result_ = result;
    EXPECT_FALSE(main_.SpawnWorker());
    EXPECT_THAT(log_.events(), ElementsAre(Call("pipe()"), Call("pipe()"), Call("TLIBCProcForkEx(65)"),
                                           Error("Failed to fork()")));
    EXPECT_THAT(Descriptors(), ElementsAre(101, 102, 103, 104));
  }
}

TEST_F(WorkerSpawnTest, FailedFirstPipeIsTheOnlyOneTried) {
  failing_pipe_ = 1;
  EXPECT_FALSE(main_.SpawnWorker());
  EXPECT_THAT(log_.events(),
              ElementsAre(Call("pipe()"), Error("Failed to do pipe(), err=Too many open files")));
  EXPECT_THAT(Descriptors(), ElementsAre(-1, -1, -1, -1));
}

TEST_F(WorkerSpawnTest, FailedPipeIsLoggedAlikeByTheLogger) {
  test_support::ScriptedPlatform::UseLogger(true);
  failing_pipe_ = 1;
  EXPECT_FALSE(main_.SpawnWorker());
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to do pipe(), err=Too many open files")));
}

TEST_F(WorkerSpawnTest, FailedSecondPipeLeavesTheFirstOpenAndUnrecorded) {
  failing_pipe_ = 2;
  EXPECT_FALSE(main_.SpawnWorker());
  EXPECT_THAT(log_.events(), ElementsAre(Call("pipe()"), Call("pipe()"),
                                         Error("Failed to do pipe(), err=Too many open files")));
  EXPECT_THAT(Descriptors(), ElementsAre(-1, -1, -1, -1));
}

TEST_F(WorkerSpawnTest, WorkerKeepsItsEndsNonBlockingAndRuns) {
  fork_result_ = 0;  // RunWorker() returns: there is no service configuration
  EXPECT_TRUE(main_.SpawnWorker());
  const std::vector<test_support::Event> events = log_.events();
  ASSERT_GT(events.size(), 9U);
  EXPECT_THAT(std::vector<test_support::Event>(events.begin(), events.begin() + 7),
              ElementsAre(Call("pipe()"), Call("pipe()"), Call("TLIBCProcForkEx(65)"), Call("close(103)"),
                          Call("close(102)"), Call("nonblocking(104)"), Call("nonblocking(101)")));
  EXPECT_THAT(events.back(), Error("Failed to get grpc server url"));
  EXPECT_THAT(Descriptors(), ElementsAre(101, -1, -1, 104));
}

// As in the supervisor, with the two other ends: which of them is closed or tried is all that these tests are about.

TEST_F(WorkerSpawnTest, WorkerDoesNotRunWhereItsFirstEndCannotBeMadeNonBlocking) {
  fork_result_ = 0;
  failing_fcntl_ = 104;
  EXPECT_FALSE(main_.SpawnWorker());
  EXPECT_THAT(log_.events(), ElementsAre(Call("pipe()"), Call("pipe()"), Call("TLIBCProcForkEx(65)"),
                                         Call("close(103)"), Call("close(102)"), Call("nonblocking(104)"),
                                         Error("Failed to do fcntl(), err=Bad file descriptor"),
                                         Error("Failed to set file descriptor as non-blocking")));
}

TEST_F(WorkerSpawnTest, WorkerDoesNotRunWhereItsSecondEndCannotBeMadeNonBlocking) {
  fork_result_ = 0;
  failing_fcntl_ = 101;
  EXPECT_FALSE(main_.SpawnWorker());
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to do fcntl(), err=Bad file descriptor"),
                                        Error("Failed to set file descriptor as non-blocking")));
}

}  // namespace
