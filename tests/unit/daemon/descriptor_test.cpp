#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

#include "daemon_fixture.h"

namespace {

class DescriptorTest : public DaemonTest {
 protected:
  void SetUp() override { ASSERT_EQ(real::Pipe(ends_), 0); }
  void TearDown() override {
    for (const int end : ends_) {
      if (end >= 0) real::Close(end);
    }
  }

  int ends_[2] = {-1, -1};
};

// ---- SetNonBlocking ----

TEST_F(DescriptorTest, SetNonBlockingAddsTheFlagToTheOthers) {
  ASSERT_EQ(real::Fcntl(ends_[1], F_SETFL, O_WRONLY | O_DIRECT), 0);
  EXPECT_TRUE(main_.SetNonBlocking(ends_[1]));
  EXPECT_EQ(real::Fcntl(ends_[1], F_GETFL, 0), O_WRONLY | O_DIRECT | O_NONBLOCK);
  EXPECT_THAT(log_.events(), IsEmpty());
}

TEST_F(DescriptorTest, SetNonBlockingReportsTheErrorOnBothLogPaths) {
  int bad = 999;
  for (const bool use_logger : {false, true}) {
    ScriptedPlatform::UseLogger(use_logger);
    EXPECT_FALSE(main_.SetNonBlocking(bad));
  }
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to do fcntl(), err=Bad file descriptor"),
                                        Error("Failed to do fcntl(), err=Bad file descriptor")));
}

TEST_F(DescriptorTest, OnlyMinusOneFromSettingTheFlagsIsAFailure) {
  platform_.fcntl = [](int fd, int command, long argument) {
    RecordCall("fcntl(" + std::to_string(fd) + ", " + std::to_string(command) + ", " +
               std::to_string(argument) + ")");
    return command == F_GETFL ? -1 : 3;
  };
  int fd = 7;
  EXPECT_TRUE(main_.SetNonBlocking(fd));
  EXPECT_THAT(log_.events(), ElementsAre(Call("fcntl(7, " + std::to_string(F_GETFL) + ", 0)"),
                                         Call("fcntl(7, " + std::to_string(F_SETFL) + ", -1)")));
}

// ---- CloseDescriptor ----

TEST_F(DescriptorTest, ClosedDescriptorReadsMinusOneAndIsClosedOnce) {
  const int number = ends_[0];
  main_.CloseDescriptor(ends_[0]);
  EXPECT_EQ(ends_[0], -1);
  EXPECT_EQ(real::Fcntl(number, F_GETFD, 0), -1);
  platform_.close = [](int) {
    ADD_FAILURE() << "closed again";
    return 0;
  };
  main_.CloseDescriptor(ends_[0]);
  EXPECT_THAT(log_.lines(), IsEmpty());
  platform_.close = nullptr;
}

TEST_F(DescriptorTest, DescriptorZeroIsClosedToo) {
  platform_.close = [](int fd) {
    RecordCall("close(" + std::to_string(fd) + ")");
    return 0;
  };
  int fd = 0;
  main_.CloseDescriptor(fd);
  EXPECT_EQ(fd, -1);
  EXPECT_THAT(log_.calls(), ElementsAre("close(0)"));
}

TEST_F(DescriptorTest, DescriptorThatCannotBeClosedKeepsItsNumber) {
  int bad = 999;
  for (const bool use_logger : {false, true}) {
    ScriptedPlatform::UseLogger(use_logger);
    main_.CloseDescriptor(bad);
    EXPECT_EQ(bad, 999);
  }
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to do close(), err=Bad file descriptor"),
                                        Error("Failed to do close(), err=Bad file descriptor")));
}

TEST_F(DescriptorTest, DestructorClosesTheFourInFieldOrderPastAFailure) {
  platform_.close = [](int fd) {
    RecordCall("close(" + std::to_string(fd) + ")");
    errno = EIO;
    return fd == 102 ? -1 : 0;
  };
  {
    DebugDatTransmitterDaemon daemon;
    daemon.fromWorkerReadFd = 101;
    daemon.toWorkerWriteFd = 102;
    daemon.toWorkerReadFd = 103;
    daemon.fromWorkerWriteFd = 104;
  }
  EXPECT_THAT(log_.events(), ElementsAre(Call("close(101)"), Call("close(102)"),
                                         Error("Failed to do close(), err=Input/output error"),
                                         Call("close(103)"), Call("close(104)")));
}

TEST_F(DescriptorTest, ExceptionInTheDestructorEndsTheProcess) {
  EXPECT_THAT(RunInChild([this] {
                ScriptedPlatform::UseLogger(true);
                platform_.log = [](int, const std::string&) { throw std::runtime_error("logger"); };
                platform_.close = [](int) { return -1; };
                try {
                  DebugDatTransmitterDaemon daemon;
                  daemon.fromWorkerReadFd = 101;
                } catch (const std::runtime_error&) {
                  return 1;
                }
                return 0;
              }),
              KilledBy(SIGABRT));
}

TEST_F(DescriptorTest, DestructorClosesNothingWhereNothingIsOpen) {
  platform_.close = [](int) {
    ADD_FAILURE() << "closed";
    return 0;
  };
  { const DebugDatTransmitterDaemon daemon; }
  platform_.close = nullptr;
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// ---- WaitReadable ----

TEST_F(DescriptorTest, WaitLastsHalfASecondAndLogsNothing) {
  EXPECT_FALSE(main_.WaitReadable(ends_[0]));
  EXPECT_THAT(log_.events(), ElementsAre(Call("select(" + std::to_string(ends_[0]) + ", 0, 500000)")));
}

TEST_F(DescriptorTest, WaitForDescriptorThatStaysSilentReallyTimesOut) {
  platform_.select = nullptr;
  EXPECT_FALSE(main_.WaitReadable(ends_[0]));
  EXPECT_THAT(log_.events(), IsEmpty());
}

TEST_F(DescriptorTest, WaitLooksAtTheGivenDescriptorOnly) {
  platform_.select = [this](int count, fd_set* readable, fd_set*, fd_set*, timeval*) {
    EXPECT_EQ(count, ends_[0] + 1);
    for (int fd = 0; fd < FD_SETSIZE; ++fd) EXPECT_EQ(FD_ISSET(fd, readable) != 0, fd == ends_[0]) << fd;
    return 1;
  };
  EXPECT_TRUE(main_.WaitReadable(ends_[0]));
}

TEST_F(DescriptorTest, DataMakesADescriptorReadable) {
  Put(ends_[1], "x", 1);
  EXPECT_TRUE(main_.WaitReadable(ends_[0]));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(DescriptorTest, EndOfFileMakesADescriptorReadable) {
  main_.CloseDescriptor(ends_[1]);
  EXPECT_TRUE(main_.WaitReadable(ends_[0]));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(DescriptorTest, WaitThatFailsIsLoggedWithItsNewlineOnBothLogPaths) {
  platform_.select = [](int, fd_set*, fd_set*, fd_set*, timeval*) {
    errno = EBADF;
    return -1;
  };
  for (const bool use_logger : {false, true}) {
    ScriptedPlatform::UseLogger(use_logger);
    EXPECT_FALSE(main_.WaitReadable(ends_[0]));
  }
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to do select(), err=Bad file descriptor\n"),
                                        Error("Failed to do select(), err=Bad file descriptor\n")));
}

TEST_F(DescriptorTest, SignalThatInterruptsTheWaitIsLoggedAsItsFailure) {
  platform_.select = nullptr;
  const test_support::Ending ending = RunInChild([this] {
    main_.Init();
    const itimerval soon = {{0, 20000}, {0, 20000}};
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    setitimer(ITIMER_REAL, &soon, nullptr);
    return main_.WaitReadable(ends_[0]) ? 1 : 0;
  });
  EXPECT_THAT(ending, test_support::ExitedWith(0));
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to do select(), err=Interrupted system call\n")));
}

TEST_F(DescriptorTest, WaitOnANumberThatSelectCannotTakeAborts) {
  for (const int number : {-1, FD_SETSIZE, FD_SETSIZE + 1}) {
    log_.Clear();
    EXPECT_THAT(RunInChild([&] {
                  int fd = number;
                  main_.WaitReadable(fd);
                  return 0;
                }),
                KilledBy(SIGABRT));
    EXPECT_THAT(log_.events(), ElementsAre(Call("abort()"))) << number;
  }
}

TEST_F(DescriptorTest, WaitTakesTheLowestAndTheHighestNumberThatSelectCanTake) {
  platform_.select = [](int count, fd_set* readable, fd_set*, fd_set*, timeval*) {
    return FD_ISSET(count - 1, readable) != 0 ? 1 : 0;
  };
  for (int number : {0, FD_SETSIZE - 1}) EXPECT_TRUE(main_.WaitReadable(number)) << number;
}

}  // namespace
