#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "system_fixture.h"

namespace {

using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;

class StartTest : public SystemTest {
 protected:
  /// Starts the daemon once more.
  /// @return the exit status of the process that became the daemon; -1 when it runs on.
  static int StartAgain() {
    const std::vector<pid_t> before = ChildrenOf(getpid());
    Program start({BinaryPath("debug_dat_transmitter")}, std::string(kTestFolder) + "/again.out");
    EXPECT_EQ(start.Wait(), 0);
    pid_t again = 0;
    EXPECT_TRUE(Eventually([&] {
      for (const pid_t pid : ChildrenOf(getpid())) {
        again = std::find(before.begin(), before.end(), pid) == before.end() ? pid : again;
      }
      return again != 0;
    }));
    return WaitForProcess(again).exit_status;
  }
};

TEST_F(StartTest, SecondStartFailsWithItsLineAndExitStatus1WhileTheFirstRunsOn) {
  DescribeApp("demo", {"true"});
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const std::string pid_file = ReadFile(kPidFile);
  EXPECT_EQ(StartAgain(), 1);
  EXPECT_TRUE(WaitForLog(SyslogRole::kOther, std::string("Failed to write pid file=") + kPidFile))
      << WholeLog();

  EXPECT_EQ(ReadFile(kPidFile), pid_file);
  const std::string id = SendTicket("demo");
  EXPECT_TRUE(WaitForTicket(id, " reported: \"Success\"")) << WholeLog();
}

TEST_F(StartTest, ArgumentsAreIgnored) {
  Program start({BinaryPath("debug_dat_transmitter"), "--help", "x"},
                std::string(kTestFolder) + "/daemon.out");
  EXPECT_EQ(start.Wait(), 0);
  ASSERT_TRUE(Eventually([] { return ReadFile(kPidFile).find('\n') != std::string::npos; })) << WholeLog();
  supervisor_ = std::stoi(ReadFile(kPidFile));
  worker_ = WorkerOf(supervisor_);
  EXPECT_EQ(start.Output(), "");
  kill(worker_, SIGTERM);
  kill(supervisor_, SIGTERM);
  EXPECT_THAT(WaitForProcess(supervisor_), ExitedWith(0));
}

TEST_F(StartTest, AfterTheSupervisorsEndANewStartSucceedsThoughTheOldWorkerSurvives) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const pid_t former = supervisor_;
  EXPECT_EQ(kill(former, SIGTERM), 0);
  EXPECT_THAT(WaitForProcess(former), ExitedWith(0));
  EXPECT_EQ(LookAt(worker_).parent, getpid()) << "the old worker is gone, which is what this test is about";

  StartDaemon();
  EXPECT_NE(supervisor_, former);
  EXPECT_GT(WorkerOf(supervisor_), 0);
  EXPECT_THAT(LogOf(SyslogRole::kOther), testing::Not(Contains(HasSubstr("Failed to write pid file"))));
}

TEST_F(StartTest, WithoutAConfigurationTheWorkerAbortsAndTheSupervisorReadsEndOfFile) {
  StartDaemon();
  ASSERT_TRUE(WaitForLog(SyslogRole::kWorker, "Failed to get grpc server url")) << WholeLog();
  EXPECT_THAT(LogOf(SyslogRole::kWorker),
              Contains(HasSubstr(std::string("Failed to read conf from: [") + kServiceConfig + "]")));
  ASSERT_TRUE(WaitForLog(SyslogRole::kSupervisor, "Failed to receive message from worker process"))
      << WholeLog();
  EXPECT_THAT(LogOf(SyslogRole::kSupervisor),
              Contains(EndsWith("Unexpected error, expected count: 2048, real count: 0")));

  const pid_t worker = WorkerOf(supervisor_);
  EXPECT_EQ(LookAt(worker).state, 'Z');
  const int status = LookAt(worker).exit_code;
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(WTERMSIG(status), SIGABRT);
  EXPECT_FALSE(WCOREDUMP(status));
  EXPECT_NE(LookAt(supervisor_).state, 'Z') << "the supervisor runs on";
}

TEST_F(StartTest, PidFileHoldsTheSupervisorsId) {
  const pid_t supervisor = StartDaemon();
  EXPECT_EQ(ReadFile(kPidFile), std::to_string(supervisor) + "\n");
  EXPECT_EQ(ReadFile("/proc/" + std::to_string(supervisor) + "/comm"), "debug_dat_trans\n");
  EXPECT_EQ(getsid(supervisor), getsid(WorkerOf(supervisor))) << "they are one daemon's processes";
}

TEST_F(StartTest, SighupSwitchesTheLogFileOnAndOffWithTheFlagFile) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  WriteFile(kDebugFlag, "");
  kill(supervisor_, SIGHUP);
  EXPECT_TRUE(WaitForLog(SyslogRole::kSupervisor, std::string("Log lines go to ") + kDebugLog)) << WholeLog();
  DescribeApp("demo", {"true"});
  const std::string first = SendTicket("demo");
  ASSERT_TRUE(WaitForTicket(first, " reported: \"Success\"")) << WholeLog();
  ASSERT_TRUE(Eventually([] {
    return ReadFile(kDebugLog).find("Notify worker process") != std::string::npos;
  })) << ReadFile(kDebugLog)
      << WholeLog();
  EXPECT_EQ(CountLog(SyslogRole::kSupervisor, "Receive a request("), 0U) << "it went to syslog as well";
  EXPECT_THAT(ReadFile(kDebugLog), HasSubstr("[" + std::to_string(supervisor_) + "] warning: debug_dat_"));
  struct stat status = {};
  ASSERT_EQ(stat(kDebugLog, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);

  EXPECT_EQ(unlink(kDebugFlag), 0);
  kill(supervisor_, SIGHUP);
  // It looks at its flag before it looks for a ticket, so the ticket's lines are in syslog again.
  const std::string second = SendTicket("demo");
  ASSERT_TRUE(WaitForTicket(second, " reported: \"Success\"")) << WholeLog();
  EXPECT_TRUE(WaitForLog(SyslogRole::kSupervisor, "Notify worker process")) << WholeLog();
}

}  // namespace
