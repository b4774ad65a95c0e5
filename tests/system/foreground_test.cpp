/// The road of the daemon under debug_dat_run: what its manager, its operator and the service see.

#include <unistd.h>

#include <csignal>
#include <sstream>

#include "foreground_fixture.h"
#include "notify_socket.h"

namespace {

using test_support::Joined;
using test_support::NotifySocket;
using testing::HasSubstr;

class ForegroundTest : public ForegroundFixture {
 protected:
  /// Sends a ticket whose collection waits for OpenGate(), and waits until it does.
  std::string SendTicketAndWaitForGate() {
    std::string id = SendTicket("gated");
    EXPECT_TRUE(WaitForGate()) << Everything();
    return id;
  }

  [[nodiscard]] bool WaitForRunToSay(const std::string& text) const {
    return Eventually([&] { return run_->Output().find(text) != std::string::npos; });
  }

  /// Kilobytes that the process has for itself alone.
  static long PrivateMemory(pid_t pid) {
    std::istringstream lines(ReadFile("/proc/" + std::to_string(pid) + "/smaps_rollup"));
    long sum = 0;
    for (std::string word; lines >> word;) {
      const bool is_counted = word.rfind("Private_", 0) == 0 && word != "Private_Hugetlb:";
      long kilobytes = 0;
      if (is_counted && lines >> kilobytes) sum += kilobytes;
    }
    return sum;
  }

  /// Starts debug_dat_run again, as a manager does, and waits until the device has connected.
  void StartAgain() {
    const std::size_t before = Connections();
    StartRun();
    ASSERT_TRUE(WaitForConnections(before + 1)) << Everything();
    ASSERT_TRUE(Eventually([&] { return FindProcesses(); })) << Everything();
  }
};

TEST_F(ForegroundTest, TellsItsManagerOfTheWholeRoadAndLeavesNothing) {
  const std::string path = std::string(kTestFolder) + "/notify";
  NotifySocket manager(path);
  ASSERT_NO_FATAL_FAILURE(StartAllInForeground({}, {{"NOTIFY_SOCKET", path}}));
  ASSERT_TRUE(manager.WaitFor("READY=1")) << Everything();
  EXPECT_TRUE(manager.WaitFor("STATUS=connected, as seen at ")) << Joined(manager.Messages());
  if (std::string(SANITIZER_RUNTIME).empty()) {
    EXPECT_LE(PrivateMemory(run_->pid()), 512);
  }
  const std::string id = SendTicketAndWaitForGate();
  EXPECT_TRUE(manager.WaitFor("STATUS=serving a ticket since ")) << Joined(manager.Messages());
  OpenGate();
  EXPECT_TRUE(WaitForTicket(id, " reported: \"Success\"")) << Everything();
  ASSERT_TRUE(Eventually([&] { return manager.Messages().back().rfind("STATUS=connected", 0) == 0; }))
      << Joined(manager.Messages());
  run_->Signal(SIGTERM);
  EXPECT_EQ(run_->Wait(), 0) << Everything();
  EXPECT_TRUE(manager.WaitFor("STOPPING=1"));
  EXPECT_TRUE(WaitForNothingElse());
}

TEST_F(ForegroundTest, DeadWorkerEndsTheDaemonAndTheNextStartServes) {
  ASSERT_NO_FATAL_FAILURE(StartAllInForeground());
  kill(worker_, SIGKILL);
  EXPECT_EQ(run_->Wait(), 1) << Everything();
  EXPECT_THAT(run_->Output(), HasSubstr("the worker (" + std::to_string(worker_) + ") has ended: SIGKILL"));
  EXPECT_TRUE(WaitForNothingElse());
  ASSERT_NO_FATAL_FAILURE(StartAgain());
  EXPECT_TRUE(WaitForTicket(SendTicket("demo"), " reported: \"Success\"")) << Everything();
}

TEST_F(ForegroundTest, DeadSupervisorEndsTheDaemon) {
  ASSERT_NO_FATAL_FAILURE(StartAllInForeground());
  kill(supervisor_, SIGKILL);
  EXPECT_EQ(run_->Wait(), 1) << Everything();
  EXPECT_THAT(run_->Output(),
              HasSubstr("the supervisor (" + std::to_string(supervisor_) + ") has ended: SIGKILL"));
  EXPECT_TRUE(WaitForNothingElse());
}

TEST_F(ForegroundTest, TicketIsServedToItsEndWhenTheWorkerDies) {
  ASSERT_NO_FATAL_FAILURE(StartAllInForeground());
  const std::string id = SendTicketAndWaitForGate();
  kill(worker_, SIGKILL);
  EXPECT_TRUE(WaitForRunToSay("a ticket is still being served; it has 300 s to end")) << Everything();
  OpenGate();
  EXPECT_EQ(run_->Wait(), 1) << Everything();
  EXPECT_THAT(TicketEvents(id), HasSubstr(" reported: \"Success\"")) << Everything();
  EXPECT_TRUE(WaitForNothingElse());
}

TEST_F(ForegroundTest, TicketIsServedToItsEndWhenTheDaemonIsStopped) {
  ASSERT_NO_FATAL_FAILURE(StartAllInForeground());
  const std::string id = SendTicketAndWaitForGate();
  run_->Signal(SIGTERM);
  EXPECT_TRUE(WaitForRunToSay("a ticket is still being served; it has 300 s to end")) << Everything();
  OpenGate();
  EXPECT_EQ(run_->Wait(), 0) << Everything();
  EXPECT_THAT(TicketEvents(id), HasSubstr(" reported: \"Success\"")) << Everything();
  EXPECT_TRUE(WaitForNothingElse());
}

TEST_F(ForegroundTest, TicketBeyondTheStopLimitIsCutShortWithAllItsProcesses) {
  ASSERT_NO_FATAL_FAILURE(StartAllInForeground({"--stop-limit", "0"}));
  static_cast<void>(SendTicketAndWaitForGate());
  run_->Signal(SIGTERM);
  EXPECT_EQ(run_->Wait(), 0) << Everything();
  EXPECT_THAT(run_->Output(), HasSubstr("it is cut short"));
  EXPECT_TRUE(WaitForNothingElse());
}

TEST_F(ForegroundTest, WithoutAnAddressNamesTheFileAndIsNotStartedAgain) {
  WriteConfig(R"({"debug_dat_file_transmitter": {}})");
  StartRun();
  EXPECT_EQ(run_->Wait(), 78) << Everything();
  EXPECT_THAT(run_->Output(), HasSubstr(std::string(kServiceConfig) + " must name the notification server"));
  EXPECT_TRUE(WaitForNothingElse());
}

TEST_F(ForegroundTest, SighupReachesBothProcesses) {
  ASSERT_NO_FATAL_FAILURE(StartAllInForeground());
  WriteFile(kDebugFlag, "");
  run_->Signal(SIGHUP);
  // The supervisor acts at once, the worker after its next ticket: from then on their lines go to the file.
  EXPECT_TRUE(WaitForTicket(SendTicket("demo"), " reported: \"Success\"")) << Everything();
  EXPECT_TRUE(Eventually([] {
    const std::string log = ReadFile(kDebugLog);
    return log.find("Receive a request(") != std::string::npos &&
           log.find("Prepare to receive grpc request") != std::string::npos;
  })) << ReadFile(kDebugLog)
      << Everything();
}

TEST_F(ForegroundTest, WhatAKilledRunHasLeftIsEndedByTheNextOne) {
  ASSERT_NO_FATAL_FAILURE(StartAllInForeground());
  const pid_t supervisor = supervisor_;
  const pid_t worker = worker_;
  run_->Signal(SIGKILL);
  ASSERT_EQ(run_->Wait(), 128 + SIGKILL);
  ASSERT_FALSE(HasEnded(supervisor));
  ASSERT_NO_FATAL_FAILURE(StartAgain());
  EXPECT_THAT(run_->Output(), HasSubstr("processes of an earlier start of the daemon are left: "));
  EXPECT_TRUE(HasEnded(supervisor));
  EXPECT_TRUE(HasEnded(worker));
  EXPECT_TRUE(WaitForNothingElse({supervisor_, worker_}));
}

TEST_F(ForegroundTest, SecondRunLeavesTheFirstOneAlone) {
  ASSERT_NO_FATAL_FAILURE(StartAllInForeground());
  Program second({BinaryPath("debug_dat_run")}, std::string(kTestFolder) + "/second.out");
  EXPECT_EQ(second.Wait(), 1);
  EXPECT_THAT(second.Output(),
              HasSubstr("another debug_dat_run (" + std::to_string(run_->pid()) + ") runs the daemon"));
  EXPECT_FALSE(HasEnded(worker_));
}

// ======== In a container ========

TEST_F(ForegroundTest, ShowsTheDaemonsLogOnStandardErrorWithoutTokens) {
  syslog_.reset();  // nobody listens at /dev/log
  ASSERT_NO_FATAL_FAILURE(StartAllInForeground({"--log-to-stderr"}));
  EXPECT_TRUE(WaitForTicket(SendTicket("demo"), " reported: \"Success\""));
  EXPECT_TRUE(
      Eventually([&] { return run_->Output().find("Finish handling the request(") != std::string::npos; }));
  EXPECT_THAT(run_->Output(), HasSubstr("warning debug_dat_transmitter[" + std::to_string(worker_) +
                                        "]: debug_dat_transmitter.cpp:"));
  EXPECT_THAT(run_->Output(), HasSubstr("\"token\":\"***\""));
  run_->Signal(SIGTERM);
  EXPECT_EQ(run_->Wait(), 0);
  EXPECT_NE(access("/dev/log", F_OK), 0);
  syslog_ = std::make_unique<SyslogListener>();
}

TEST_F(ForegroundTest, LeavesTheSystemsLogAlone) {
  StartRun({"--log-to-stderr"});
  EXPECT_EQ(run_->Wait(), 78);
  EXPECT_THAT(run_->Output(), HasSubstr("another program takes the log lines at /dev/log already"));
}

TEST_F(ForegroundTest, AsProcessOneReapsEverythingAndTakesItsSignals) {
  ASSERT_NO_FATAL_FAILURE(StartService());
  WriteConfig();
  run_ = std::make_unique<Program>(
      std::vector<std::string>{"unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc",
                               BinaryPath("debug_dat_run")},
      std::string(kTestFolder) + "/run.out");
  ASSERT_TRUE(WaitForConnections(1)) << Everything();
  const std::vector<pid_t> inits = ChildrenOf(run_->pid());
  ASSERT_EQ(inits.size(), 1U);
  const std::string may_end = std::string(kTestFolder) + "/orphan_may_end";
  Program orphan({"nsenter", "--target", std::to_string(inits[0]), "--mount", "--pid", "sh", "-c",
                  "while ! test -e " + may_end + "; do sleep 0.05; done & echo left behind"},
                 std::string(kTestFolder) + "/orphan.out");
  EXPECT_EQ(orphan.Wait(), 0) << orphan.Output();
  EXPECT_TRUE(Eventually([&] { return ChildrenOf(inits[0]).size() > 1; })) << "nobody adopted it";
  WriteFile(may_end, "");
  EXPECT_TRUE(Eventually([&] { return ChildrenOf(inits[0]).size() == 1; })) << "it was not reaped";
  kill(inits[0], SIGHUP);
  kill(inits[0], SIGUSR1);  // which would end any other process
  kill(inits[0], SIGTERM);
  EXPECT_EQ(run_->Wait(), 0) << Everything();
}

}  // namespace
