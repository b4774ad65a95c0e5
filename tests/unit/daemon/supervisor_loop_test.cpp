#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

#include "daemon_fixture.h"

using testing::StartsWith;

namespace {

ScriptedPlatform::SignalHandler installed_handler = nullptr;

/// Runs Run() in a child, with a worker that was never forked: its ends of the pipes stay with the test.
/// What would pass between the processes is played by the scripts, chiefly by what happens at each usleep().
class SupervisorLoopTest : public DaemonTest {
 protected:
  void SetUp() override {
    JoinByPipes();
    // SpawnWorker() gets the two pipes that the test has made already.
    platform_.pipe = [this, next = 0](int* ends) mutable {
      const bool to_worker = next++ == 0;
      ends[0] = to_worker ? worker_.toWorkerReadFd : main_.fromWorkerReadFd;
      ends[1] = to_worker ? main_.toWorkerWriteFd : worker_.fromWorkerWriteFd;
      return 0;
    };
    platform_.fork_ex = [](int) { return 4711; };
    platform_.close = [](int) { return 0; };  // the worker's ends stay usable for the test
    platform_.select = [](int count, fd_set* readable, fd_set*, fd_set*, timeval*) {
      RecordCall("select()");
      timeval at_once = {0, 0};
      return test_support::real::Select(count, readable, nullptr, nullptr, &at_once);
    };
  }

  void TearDown() override { platform_.close = nullptr; }

  /// What happens at each pass without a ticket, in turn; then SIGTERM.
  void AtEachPause(const std::vector<std::function<void()>>& events) {
    platform_.usleep = [events, next = std::size_t{0}](useconds_t) mutable {
      if (next < events.size()) {
        events[next++]();
      } else {
        Signal(SIGTERM);
      }
      return 0;
    };
  }

  /// Runs the supervisor until AtEachPause()'s SIGTERM. Records what follows the spawn.
  void Run() {
    EXPECT_THAT(RunInChild([] { return DebugDatTransmitterDaemon().Run() ? 0 : 1; }), ExitedWith(0));
  }

  std::vector<test_support::Event> EventsAfterSpawn() {
    std::vector<test_support::Event> events = log_.events();
    while (!events.empty() && events.front().text != "ReconfigureByDebugFlag()") events.erase(events.begin());
    return events;
  }

  void WorkerSends(const std::string& text) { Put(worker_.fromWorkerWriteFd, text); }
};

constexpr char kHandedTicket[] = R"({"apps":["a"],"token":"t"})";
constexpr char kReceivedFrame[] =
    R"(Receive a request({"apps":["a"],"token":"t"}) from the orvane server, start to transmit debug.dat file)";

// ---- Init and the handler ----

TEST_F(SupervisorLoopTest, InitInstallsOneHandlerForSighupAndSigterm) {
  std::vector<std::pair<int, ScriptedPlatform::SignalHandler>> installed;
  platform_.signal = [&](int number, ScriptedPlatform::SignalHandler handler) {
    installed.emplace_back(number, handler);
    return SIG_ERR;  // not looked at
  };
  EXPECT_TRUE(main_.Init());
  ASSERT_EQ(installed.size(), 2U);
  EXPECT_EQ(installed[0].first, 1);
  EXPECT_EQ(installed[1].first, 15);
  EXPECT_EQ(installed[0].second, installed[1].second);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(SupervisorLoopTest, UnexpectedSignalIsLoggedAndChangesNothing) {
  platform_.signal = [](int, ScriptedPlatform::SignalHandler handler) {
    installed_handler = handler;
    return SIG_DFL;
  };
  AtEachPause({[] { installed_handler(10); }, [] { installed_handler(15); }});
  Run();
  EXPECT_THAT(EventsAfterSpawn(),
              ElementsAre(Call("ReconfigureByDebugFlag()"), Call("select()"), Call("usleep(500000)"),
                          Error("Capture unexpected signal: 10"), Call("select()"), Call("usleep(500000)")));
}

// ---- The order of start and passes ----

TEST_F(SupervisorLoopTest, StartsInOrderAndReconfiguresOnceBeforeTheFirstPoll) {
  AtEachPause({});
  Run();
  EXPECT_THAT(log_.events(),
              ElementsAre(Call("signal(1)"), Call("signal(15)"), Call("TLIBCProcForkEx(65)"),
                          Call("ReconfigureByDebugFlag()"), Call("select()"), Call("usleep(500000)")));
}

TEST_F(SupervisorLoopTest, SigtermBeforeTheFirstPassEndsRunWithoutOne) {
  platform_.fork_ex = [](int) {
    Signal(SIGTERM);
    return 4711;
  };
  Run();
  EXPECT_THAT(log_.events(), ElementsAre(Call("signal(1)"), Call("signal(15)"), Call("TLIBCProcForkEx(65)")));
}

TEST_F(SupervisorLoopTest, PassesAreAlikeUntilSigtermWhichIsNoLine) {
  AtEachPause({[] {}, [] {}});
  Run();
  EXPECT_THAT(EventsAfterSpawn(), ElementsAre(Call("ReconfigureByDebugFlag()"),          //
                                              Call("select()"), Call("usleep(500000)"),  //
                                              Call("select()"), Call("usleep(500000)"),  //
                                              Call("select()"), Call("usleep(500000)")));
}

TEST_F(SupervisorLoopTest, SigtermInTheWaitEndsRunAfterThePass) {
  platform_.select = [](int, fd_set*, fd_set*, fd_set*, timeval*) {
    Signal(SIGTERM);
    errno = EINTR;
    return -1;
  };
  Run();
  EXPECT_THAT(EventsAfterSpawn(), ElementsAre(Call("ReconfigureByDebugFlag()"),
                                              Error("Failed to do select(), err=Interrupted system call\n"),
                                              Call("usleep(500000)")));
}

TEST_F(SupervisorLoopTest, SigtermWhileATicketIsTakenEndsRunBeforeTheNextPoll) {
  WorkerSends(kHandedTicket);
  platform_.fork = [] {
    Signal(SIGTERM);
    return 99;
  };
  Run();
  EXPECT_THAT(EventsAfterSpawn(), ElementsAre(Call("ReconfigureByDebugFlag()"), Call("select()"),
                                              Warning(kReceivedFrame), Call("TLIBCProcFork()")));
}

TEST_F(SupervisorLoopTest, SighupWhileATicketIsTakenReconfiguresBeforeTheNextPoll) {
  WorkerSends(kHandedTicket);
  platform_.fork = [] {
    Signal(SIGHUP);
    return 99;
  };
  AtEachPause({});
  platform_.waitpid = [](pid_t, int*, int) { return 0; };
  Run();
  EXPECT_THAT(EventsAfterSpawn(),
              ElementsAre(Call("ReconfigureByDebugFlag()"), Call("select()"), Warning(kReceivedFrame),
                          Call("TLIBCProcFork()"), Call("ReconfigureByDebugFlag()"), Call("usleep(500000)")));
}

TEST_F(SupervisorLoopTest, SigtermGoesBeforeASighupOfTheSamePass) {
  AtEachPause({[] {
    Signal(SIGHUP);
    Signal(SIGTERM);
  }});
  Run();
  EXPECT_THAT(EventsAfterSpawn(),
              ElementsAre(Call("ReconfigureByDebugFlag()"), Call("select()"), Call("usleep(500000)")));
}

TEST_F(SupervisorLoopTest, AnyNumberOfSighupsReconfiguresOncePerPass) {
  AtEachPause({[] {},
               [] {
                 for (int count = 0; count < 3; ++count) Signal(SIGHUP);
               },
               [] {}});
  Run();
  EXPECT_THAT(EventsAfterSpawn(),
              ElementsAre(Call("ReconfigureByDebugFlag()"),                                            //
                          Call("select()"), Call("usleep(500000)"),                                    //
                          Call("select()"), Call("usleep(500000)"),                                    //
                          Call("ReconfigureByDebugFlag()"), Call("select()"), Call("usleep(500000)"),  //
                          Call("select()"), Call("usleep(500000)")));
}

TEST_F(SupervisorLoopTest, SighupDuringTheReconfigurationIsClearedWithIt) {
  platform_.reconfigure = [] { Signal(SIGHUP); };
  AtEachPause({[] {}});
  Run();
  EXPECT_THAT(log_.CallsOf("ReconfigureByDebugFlag"), ElementsAre("ReconfigureByDebugFlag()"));
}

TEST_F(SupervisorLoopTest, ExceptionOfTheReconfigurationEndsTheSupervisor) {
  platform_.reconfigure = [] { throw std::runtime_error("flag"); };
  EXPECT_THAT(RunInChild([] { return DebugDatTransmitterDaemon().Run() ? 0 : 1; }), KilledBy(SIGABRT));
  EXPECT_THAT(EventsAfterSpawn(), ElementsAre(Call("ReconfigureByDebugFlag()")));
}

// ---- Tickets ----

TEST_F(SupervisorLoopTest, AfterATicketTheLoopPollsAgainAtOnce) {
  WorkerSends(kHandedTicket);
  platform_.fork = [] { return 99; };
  platform_.waitpid = [](pid_t, int*, int) { return 99; };
  AtEachPause({});
  Run();
  EXPECT_THAT(EventsAfterSpawn(),
              ElementsAre(Call("ReconfigureByDebugFlag()"), Call("select()"), Warning(kReceivedFrame),
                          Call("TLIBCProcFork()"), Warning("Notify worker process"), Call("select()"),
                          Call("usleep(500000)")));
}

TEST_F(SupervisorLoopTest, RefusedTicketIsAFailureAndAlsoPolledAfterAtOnce) {
  WorkerSends(R"({"apps":[]})");
  AtEachPause({});
  Run();
  EXPECT_THAT(EventsAfterSpawn(),
              ElementsAre(Call("ReconfigureByDebugFlag()"), Call("select()"),
                          Error(R"(Something wrong for the ticket information: {"apps":[]})"),
                          Error("Failed to send debug file"), Call("select()"), Call("usleep(500000)")));
  EXPECT_THAT(TakeFrames(worker_.toWorkerReadFd), ElementsAre(R"({"success":true})"));
}

TEST_F(SupervisorLoopTest, MalformedMessageIsDroppedAndTheLoopPausesAndGoesOn) {
  WorkerSends("nonsense");
  WorkerSends(R"({"apps":[]})");
  AtEachPause({[] {}});
  Run();
  EXPECT_THAT(EventsAfterSpawn(),
              ElementsAre(Call("ReconfigureByDebugFlag()"), Call("select()"),
                          Error("Failed to parse pipe data: nonsense"),
                          Error("Failed to receive message from worker process"), Call("usleep(500000)"),
                          Call("select()"), Error(StartsWith("Something wrong for the ticket information: ")),
                          Error("Failed to send debug file"), Call("select()"), Call("usleep(500000)")));
}

TEST_F(SupervisorLoopTest, NoTicketIsReadUntilTheRunningChildWasReapedAndTheWorkerTold) {
  WorkerSends(kHandedTicket);
  WorkerSends(kHandedTicket);
  platform_.fork = [pid = 99]() mutable { return pid++; };
  platform_.waitpid = [asked = 0](pid_t pid, int*, int) mutable {
    RecordCall("waitpid(" + std::to_string(pid) + ")");
    return ++asked < 3 ? 0 : pid;
  };
  AtEachPause({[] {}, [] {}});
  Run();
  EXPECT_THAT(EventsAfterSpawn(),
              ElementsAre(Call("ReconfigureByDebugFlag()"), Call("select()"), Warning(kReceivedFrame),
                          Call("TLIBCProcFork()"),                                                   //
                          Call("waitpid(99)"), Call("usleep(500000)"),                               //
                          Call("waitpid(99)"), Call("usleep(500000)"),                               //
                          Call("waitpid(99)"), Warning("Notify worker process"), Call("select()"),   //
                          Warning(kReceivedFrame), Call("TLIBCProcFork()"),                          //
                          Call("waitpid(100)"), Warning("Notify worker process"), Call("select()"),  //
                          Call("usleep(500000)")));
}

TEST_F(SupervisorLoopTest, ChildThatCannotBeAskedForHoldsUpEveryFurtherTicket) {
  WorkerSends(kHandedTicket);
  WorkerSends(kHandedTicket);
  platform_.fork = [] { return 99; };
  platform_.waitpid = [](pid_t, int*, int) {
    errno = ECHILD;
    return -1;
  };
  AtEachPause({[] {}, [] {}, [] {}});
  Run();
  EXPECT_EQ(log_.CallsOf("TLIBCProcFork").size(), 1U);
  EXPECT_EQ(log_.CallsOf("usleep").size(), 4U);
  EXPECT_EQ(TakeAll(worker_.toWorkerReadFd), "");
}

// ---- When the spawn failed ----

TEST_F(SupervisorLoopTest, FailedForkLeavesASilentLoop) {
  for (const int result : {-1, -2}) {
    log_.Clear();
    platform_.fork_ex = [=](int) { return result; };
    AtEachPause({[] {}, [] {}});
    Run();
    EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to fork()")));
    EXPECT_EQ(log_.CallsOf("usleep").size(), 3U);
  }
}

TEST_F(SupervisorLoopTest, FailedPipeAbortsAtTheFirstWait) {
  platform_.pipe = [](int*) {
    errno = EMFILE;
    return -1;
  };
  EXPECT_THAT(RunInChild([] { return DebugDatTransmitterDaemon().Run() ? 0 : 1; }), KilledBy(SIGABRT));
  EXPECT_THAT(log_.events(), ElementsAre(Call("signal(1)"), Call("signal(15)"),
                                         Error("Failed to do pipe(), err=Too many open files"),
                                         Call("ReconfigureByDebugFlag()"), Call("abort()")));
}

// All that two passes do stands here too, as in the tests of tickets above: their order is what is tested.
TEST_F(SupervisorLoopTest, WorkerThatHasGoneIsLoggedInEveryPassAndNotStartedAgain) {
  test_support::real::Close(worker_.fromWorkerWriteFd);
  worker_.fromWorkerWriteFd = -1;
  AtEachPause({[] {}});
  Run();
  EXPECT_THAT(EventsAfterSpawn(),
              ElementsAre(Call("ReconfigureByDebugFlag()"), Call("select()"),
                          Error("Unexpected error, expected count: 2048, real count: 0"),
                          Error("Failed to receive message from worker process"), Call("usleep(500000)"),
                          Call("select()"), Error("Unexpected error, expected count: 2048, real count: 0"),
                          Error("Failed to receive message from worker process"), Call("usleep(500000)")));
}

}  // namespace
