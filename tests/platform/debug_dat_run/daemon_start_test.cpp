#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "daemon_run_fixture.h"

namespace DebugDatRun {
namespace {

using test_support::ExitedWith;
using testing::HasSubstr;
using testing::Not;

class StartOfTheDaemonTest : public DaemonRunTest {};

TEST_F(StartOfTheDaemonTest, NamesBothProcesses) {
  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  EXPECT_THAT(Output(), HasSubstr("supervisor " + std::to_string(Supervisor()) + ", worker " +
                                  std::to_string(Worker())));
}

TEST_F(StartOfTheDaemonTest, FollowsALinkToThePidFile) {
  paths_.pid_file = folder_.File("link");
  std::filesystem::create_symlink(folder_.File("pid"), paths_.pid_file);
  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
}

TEST_F(StartOfTheDaemonTest, GivesItDefaultSignalsWhateverItsOwnAre) {
  Start("", [] {
    static_cast<void>(signal(SIGPIPE, SIG_IGN));
    static_cast<void>(signal(SIGHUP, SIG_IGN));
    static_cast<void>(signal(SIGCHLD, SIG_IGN));
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    setenv("NOTIFY_SOCKET", "/nowhere", 1);
  });
  ASSERT_TRUE(WaitForOutput("runs: supervisor ")) << Output();
  EXPECT_THAT(Events(), HasSubstr("launcher SigBlk:\t0000000000000000 "));
  EXPECT_THAT(Events(), HasSubstr("launcher SigIgn:\t0000000000000000 "));
  EXPECT_THAT(Events(), HasSubstr("launcher NOTIFY_SOCKET is not set"));
}

TEST_F(StartOfTheDaemonTest, ThatFailsAtOnceIsToldAndTriedAgain) {
  Start("fails-at-once");
  EXPECT_THAT(End(), ExitedWith(kStartAgain));
  EXPECT_THAT(Output(), HasSubstr("fake_daemon did not start: status 3"));
}

TEST_F(StartOfTheDaemonTest, OfAProgramThatIsNotThereIsAWrongConfiguration) {
  options_.daemon = folder_.File("nothing");
  Start("");
  EXPECT_THAT(End(), ExitedWith(kWrongConfiguration));
  EXPECT_THAT(Output(), HasSubstr("can't start " + options_.daemon + ": No such file or directory"));
}

TEST_F(StartOfTheDaemonTest, ThatWritesNoPidFileIsToldWithTheFilesName) {
  Start("writes-no-pid-file");
  EXPECT_THAT(End(), ExitedWith(kStartAgain));
  EXPECT_THAT(Output(), HasSubstr("the daemon has ended (status 1) before " + paths_.pid_file + " named it"));
}

TEST_F(StartOfTheDaemonTest, WhoseSupervisorDiesIsTold) {
  Start("supervisor-aborts");
  EXPECT_THAT(End(), ExitedWith(kStartAgain));
  EXPECT_THAT(Output(), HasSubstr("SIGABRT"));
}

TEST_F(StartOfTheDaemonTest, WhoseSupervisorDiesBeforeItWasSeenEndsTheWorker) {
  limits_.look = 500;
  Start("dies-behind-its-worker");
  EXPECT_THAT(End(), ExitedWith(kStartAgain));
  EXPECT_THAT(Output(),
              HasSubstr("the supervisor (" + std::to_string(Supervisor()) + ") has ended: SIGABRT"));
  EXPECT_THAT(Events(), HasSubstr("worker SIGTERM"));
}

TEST_F(StartOfTheDaemonTest, WithoutAWorkerIsToldAndTheSupervisorEnded) {
  limits_.start = 200;
  Start("no-worker");
  EXPECT_THAT(End(), ExitedWith(kStartAgain));
  EXPECT_THAT(Output(), HasSubstr("the supervisor has no worker"));
  EXPECT_THAT(Events(), HasSubstr("supervisor SIGTERM"));
}

TEST_F(StartOfTheDaemonTest, WhoseWorkerAbortsTellsOfTheAddressAndIsNotTriedAgain) {
  Start("worker-aborts");
  EXPECT_THAT(End(), ExitedWith(kWrongConfiguration));
  EXPECT_THAT(Output(), HasSubstr(") has ended: SIGABRT"));
  EXPECT_THAT(Output(), HasSubstr(paths_.configuration + " must name the notification server"));
}

TEST_F(StartOfTheDaemonTest, WhoseWorkerEndsOtherwiseIsTriedAgain) {
  Start("worker-exits");
  EXPECT_THAT(End(), ExitedWith(kStartAgain));
  EXPECT_THAT(Output(), HasSubstr(") has ended: status 7"));
  EXPECT_THAT(Output(), Not(HasSubstr("must name the notification server")));
}

TEST_F(StartOfTheDaemonTest, KeepsASighupUntilTheDaemonCanTakeIt) {
  Start("is-slow");
  ASSERT_TRUE(test_support::Eventually([&] { return Supervisor() > 0; }));
  Signal(SIGHUP);
  // Only once the run has taken the signal may the daemon go on.
  ASSERT_TRUE(test_support::Eventually([&] {
    return test_support::ReadFile("/proc/" + std::to_string(run_->pid()) + "/status")
               .find("ShdPnd:\t0000000000000000") != std::string::npos;
  }));
  Put("go");
  EXPECT_TRUE(WaitForEvent("worker SIGHUP")) << Events();
  EXPECT_TRUE(WaitForEvent("supervisor SIGHUP")) << Events();
  EXPECT_EQ(test_support::LookAt(Supervisor()).parent, run_->pid());
}

TEST_F(StartOfTheDaemonTest, IsBrokenOffBySigterm) {
  Start("is-slow");
  ASSERT_TRUE(test_support::Eventually([&] { return Supervisor() > 0; }));
  Signal(SIGTERM);
  EXPECT_THAT(End(), ExitedWith(kStopped)) << Output();
}

// ======== After a run that was killed ========

TEST_F(StartOfTheDaemonTest, EndsWhatAnEarlierRunHasLeft) {
  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  const pid_t supervisor = Supervisor();
  const pid_t worker = Worker();
  Signal(SIGKILL);
  ASSERT_THAT(run_->WaitForEnd(), test_support::KilledBy(SIGKILL));
  ASSERT_EQ(test_support::LookAt(supervisor).parent, getpid()) << "it has outlived its run";
  static_cast<void>(folder_.Write("output", ""));

  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  EXPECT_THAT(Output(), HasSubstr("processes of an earlier start of the daemon are left: "));
  EXPECT_TRUE(test_support::HasEnded(supervisor));
  EXPECT_TRUE(test_support::HasEnded(worker));
  EXPECT_NE(Supervisor(), supervisor);
  test_support::ReapOrphans({});
  Signal(SIGTERM);
  EXPECT_THAT(End(), ExitedWith(kStopped));
}

TEST_F(StartOfTheDaemonTest, EndsAWorkerWhoseSupervisorIsGone) {
  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  const pid_t supervisor = Supervisor();
  const pid_t worker = Worker();
  Signal(SIGKILL);
  ASSERT_THAT(run_->WaitForEnd(), test_support::KilledBy(SIGKILL));
  kill(supervisor, SIGKILL);
  ASSERT_TRUE(test_support::Eventually([&] { return test_support::HasEnded(supervisor); }));
  test_support::ReapOrphans({worker});
  static_cast<void>(folder_.Write("output", ""));

  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  EXPECT_TRUE(test_support::HasEnded(worker)) << Output();
}

TEST_F(StartOfTheDaemonTest, KillsWhatAnEarlierRunHasLeftAndDoesNotEnd) {
  ASSERT_NO_FATAL_FAILURE(StartAndWait("ignores-term"));
  const pid_t supervisor = Supervisor();
  Signal(SIGKILL);
  ASSERT_THAT(run_->WaitForEnd(), test_support::KilledBy(SIGKILL));
  static_cast<void>(folder_.Write("output", ""));

  limits_.end = 100;
  options_.stop_seconds = 0;
  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  EXPECT_TRUE(test_support::HasEnded(supervisor));
}

TEST_F(StartOfTheDaemonTest, IsNotWaitedForWhereSigtermComesWhileTheEarlierRunEnds) {
  ASSERT_NO_FATAL_FAILURE(StartAndWait("ignores-term"));
  Signal(SIGKILL);
  ASSERT_THAT(run_->WaitForEnd(), test_support::KilledBy(SIGKILL));
  Start("");
  ASSERT_TRUE(WaitForOutput("processes of an earlier start of the daemon are left: "));
  Signal(SIGTERM);
  EXPECT_THAT(run_->WaitForEnd(), ExitedWith(kStopped));
}

TEST_F(StartOfTheDaemonTest, LeavesAProcessAloneWhoseIdAnOldPidFileHolds) {
  const test_support::ChildProcess bystander([] {
    setsid();
    while (true) pause();
    return 0;
  });
  static_cast<void>(folder_.Write("pid", std::to_string(bystander.pid()) + "\n"));
  ASSERT_NO_FATAL_FAILURE(StartAndWait(""));
  EXPECT_FALSE(test_support::HasEnded(bystander.pid()));
}

}  // namespace
}  // namespace DebugDatRun
