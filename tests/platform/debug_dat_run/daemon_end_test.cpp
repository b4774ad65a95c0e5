#include <csignal>
#include <thread>

#include "daemon_run_fixture.h"

namespace DebugDatRun {
namespace {

using test_support::ExitedWith;
using test_support::KilledBy;
using testing::HasSubstr;
using testing::Not;

class EndOfTheDaemonTest : public DaemonRunTest {
 protected:
  /// Starts a daemon that serves a ticket, and waits until it does.
  void StartWithTicket(const std::string& ways = "") {
    ASSERT_NO_FATAL_FAILURE(StartAndWait("serves " + ways));
    Put("ticket");
    ASSERT_TRUE(WaitForEvent("child begins")) << Events();
  }
};

TEST_F(EndOfTheDaemonTest, BySigtermIsPassedToBothProcessesAndIsNoFailure) {
  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  Signal(SIGTERM);
  EXPECT_THAT(End(), ExitedWith(kStopped));
  EXPECT_THAT(Events(), HasSubstr("supervisor SIGTERM"));
  EXPECT_THAT(Events(), HasSubstr("worker SIGTERM"));
  EXPECT_THAT(Output(), Not(HasSubstr("ended")));
}

TEST_F(EndOfTheDaemonTest, BySigintIsTheSame) {
  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  Signal(SIGINT);
  EXPECT_THAT(End(), ExitedWith(kStopped));
  EXPECT_THAT(Events(), HasSubstr("worker SIGTERM"));
}

TEST_F(EndOfTheDaemonTest, SighupIsPassedToBothProcesses) {
  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  Signal(SIGHUP);
  EXPECT_TRUE(WaitForEvent("supervisor SIGHUP"));
  EXPECT_TRUE(WaitForEvent("worker SIGHUP"));
}

// The supervisor's end below mirrors the worker's: the two are told apart, so neither stands for the other.

TEST_F(EndOfTheDaemonTest, DeadWorkerIsToldWithItsEndAndEndsTheSupervisor) {
  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  const std::string worker = std::to_string(Worker());
  kill(Worker(), SIGKILL);
  EXPECT_THAT(End(), ExitedWith(kStartAgain));
  EXPECT_THAT(Output(), HasSubstr("the worker (" + worker + ") has ended: SIGKILL"));
  EXPECT_THAT(Events(), HasSubstr("supervisor SIGTERM"));
}

TEST_F(EndOfTheDaemonTest, WorkerThatWasToldToEndBySomebodyElseIsTheSame) {
  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  kill(Worker(), SIGTERM);
  EXPECT_THAT(End(), ExitedWith(kStartAgain));
  EXPECT_THAT(Output(), HasSubstr(") has ended: status 0"));
}

TEST_F(EndOfTheDaemonTest, DeadSupervisorIsToldWithItsEndAndEndsTheWorker) {
  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  const std::string supervisor = std::to_string(Supervisor());
  kill(Supervisor(), SIGUSR2);
  EXPECT_THAT(End(), ExitedWith(kStartAgain));
  EXPECT_THAT(Output(), HasSubstr("the supervisor (" + supervisor + ") has ended: SIGUSR2"));
  EXPECT_THAT(Events(), HasSubstr("worker SIGTERM"));
}

TEST_F(EndOfTheDaemonTest, SupervisorThatWasToldToEndBySomebodyElseIsStartedAgain) {
  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  kill(Supervisor(), SIGTERM);
  EXPECT_THAT(End(), ExitedWith(kStartAgain));
  EXPECT_THAT(Output(), HasSubstr(") has ended: status 0"));
}

TEST_F(EndOfTheDaemonTest, ProcessesThatIgnoreSigtermAreKilled) {
  limits_.end = 200;
  ASSERT_NO_FATAL_FAILURE(StartAndWait("ignores-term"));
  Signal(SIGTERM);
  EXPECT_THAT(End(), ExitedWith(kStopped));
  EXPECT_THAT(Output(), HasSubstr("the daemon does not end by SIGTERM; it is killed"));
}

// ======== While a ticket is served ========

TEST_F(EndOfTheDaemonTest, TicketIsServedToItsEnd) {
  ASSERT_NO_FATAL_FAILURE(StartWithTicket());
  Signal(SIGTERM);
  ASSERT_TRUE(WaitForOutput("a ticket is still being served; it has 300 s to end")) << Output();
  Put("release");
  EXPECT_THAT(End(), ExitedWith(kStopped));
  EXPECT_THAT(Events(), HasSubstr("child ends"));
}

TEST_F(EndOfTheDaemonTest, TicketIsServedToItsEndAlsoAfterTheWorkersDeath) {
  ASSERT_NO_FATAL_FAILURE(StartWithTicket());
  kill(Worker(), SIGKILL);
  ASSERT_TRUE(WaitForOutput("a ticket is still being served")) << Output();
  Put("release");
  EXPECT_THAT(End(), ExitedWith(kStartAgain));
  EXPECT_THAT(Events(), HasSubstr("child ends"));
}

TEST_F(EndOfTheDaemonTest, TicketIsServedToItsEndAlsoAfterTheSupervisorsDeath) {
  ASSERT_NO_FATAL_FAILURE(StartWithTicket());
  kill(Supervisor(), SIGKILL);
  ASSERT_TRUE(WaitForOutput("a ticket is still being served")) << Output();
  Put("release");
  EXPECT_THAT(End(), ExitedWith(kStartAgain));
  EXPECT_THAT(Events(), HasSubstr("child ends"));
}

TEST_F(EndOfTheDaemonTest, TicketIsCutShortAtItsLimitAndItsCollectionWithIt) {
  options_.stop_seconds = 0;
  ASSERT_NO_FATAL_FAILURE(StartWithTicket());
  Signal(SIGTERM);
  EXPECT_THAT(End(), ExitedWith(kStopped));
  EXPECT_THAT(Output(), HasSubstr("a ticket is still being served after 0 s; it is cut short"));
  EXPECT_THAT(Events(), Not(HasSubstr("child ends")));
}

TEST_F(EndOfTheDaemonTest, TicketIsCutShortByASecondSignal) {
  ASSERT_NO_FATAL_FAILURE(StartWithTicket());
  Signal(SIGTERM);
  ASSERT_TRUE(WaitForOutput("a ticket is still being served")) << Output();
  Signal(SIGINT);
  EXPECT_THAT(End(), ExitedWith(kStopped));
  EXPECT_THAT(Events(), Not(HasSubstr("child ends")));
}

TEST_F(EndOfTheDaemonTest, FirstSignalAfterAFailureDoesNotCutTheTicketShort) {
  ASSERT_NO_FATAL_FAILURE(StartWithTicket());
  kill(Worker(), SIGKILL);
  ASSERT_TRUE(WaitForOutput("a ticket is still being served")) << Output();
  Signal(SIGTERM);
  ASSERT_TRUE(test_support::Eventually([&] { return !Events().empty(); }));
  Put("release");
  EXPECT_THAT(End(), ExitedWith(kStopped)) << "it was told to stop";
  EXPECT_THAT(Events(), HasSubstr("child ends"));
}

// ======== While nothing happens ========

TEST_F(EndOfTheDaemonTest, NothingWakesTheRunWhileNothingHappens) {
  limits_.settle = 0;
  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  const auto switches = [&] {
    const std::string status = test_support::ReadFile("/proc/" + std::to_string(run_->pid()) + "/status");
    return std::stoi(status.substr(status.find("\nvoluntary_ctxt_switches:") + 25));
  };
  // Once it has come to rest.
  EXPECT_TRUE(test_support::Eventually([&] {
    const int before = switches();
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    return switches() == before;
  }));
}

}  // namespace
}  // namespace DebugDatRun
