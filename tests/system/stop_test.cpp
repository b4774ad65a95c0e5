#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>

#include "system_fixture.h"
#include "unread_server.h"

namespace {

using std::chrono::seconds;
using TarvoOrvane::Testing::UnreadServer;

constexpr char kInstantFile[] = "/run/sleep_shim/instant";

class StopTest : public SystemTest {
 protected:
  /// Makes every sleep() of daemons started with `environment_` end at once, until SleepForReal().
  static void SleepNot() { WriteFile(kInstantFile, ""); }
  static void SleepForReal() { std::filesystem::remove(kInstantFile); }

  /// The pauses that the worker made, in seconds, really or not.
  static std::vector<int> Pauses(const std::string& kind) {
    std::istringstream lines(ReadFile("/run/sleep_shim/sleeps"));
    std::vector<int> pauses;
    int pid = 0;
    int duration = 0;
    for (std::string how; lines >> pid >> duration >> how;) {
      if (how == kind) {
        pauses.push_back(duration);
      }
    }
    return pauses;
  }

  /// From a base of 256, a pause below 600 s is the one that leads to a base of 512.
  [[nodiscard]] static bool WaitForBase512() {
    return Eventually(
        [] {
          const std::vector<int> pauses = Pauses("instant");
          return std::any_of(pauses.begin(), pauses.end(),
                             [](int pause) { return pause >= 512 && pause < 600; });
        },
        seconds(60));
  }

  /// A daemon whose worker has failed often enough to be at a base of 512; nobody serves its address.
  void StartAtBase512() {
    SleepNot();
    WriteConfig(R"({"debug_dat_file_transmitter": {"grpc_server": {"url": "unix:)" + socket_ + R"("}}})");
    StartDaemon(environment_);
    ASSERT_TRUE(WaitForBase512()) << WholeLog();
    worker_ = WorkerOf(supervisor_);
  }

  const std::string socket_ = std::string(kTestFolder) + "/grpc.sock";
  const Environment environment_ = {
      {"LD_PRELOAD", SANITIZER_RUNTIME + LibraryFolder("") + "libsleep_shim.so"}};
};

TEST_F(StopTest, SigtermEndsTheIdleWorkerWithinASecond) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  EXPECT_TRUE(EndsBySigtermWithinASecond(worker_)) << WholeLog();
}

TEST_F(StopTest, SigtermEndsTheIdleWorkerAtABackOffBaseOf512WithinASecond) {
  ASSERT_NO_FATAL_FAILURE(StartAtBase512());
  ASSERT_NO_FATAL_FAILURE(StartService("unix:" + socket_));
  ASSERT_TRUE(Eventually([&] { return service_->Output().find("device connected") != std::string::npos; }))
      << WholeLog();
  SleepForReal();
  ASSERT_TRUE(EndsBySigtermWithinASecond(worker_)) << WholeLog();
  EXPECT_THAT(Pauses("real"), testing::Each(600)) << "the base was not 512";
  EXPECT_EQ(Pauses("real").size(), 1U) << "the failed Receive() is followed by its pause";
}

TEST_F(StopTest, SigtermEndsTheWorkerInAPauseOfTenMinutesWithinASecond) {
  ASSERT_NO_FATAL_FAILURE(StartAtBase512());
  SleepForReal();
  ASSERT_TRUE(Eventually([] { return !Pauses("real").empty(); })) << WholeLog();
  EXPECT_EQ(Pauses("real").front(), 600);
  EXPECT_TRUE(EndsBySigtermWithinASecond(worker_)) << WholeLog();
}

TEST_F(StopTest, SigtermEndsTheWorkerInAPauseOfTheFirstFailureWithinASecond) {
  WriteConfig(R"({"debug_dat_file_transmitter": {"grpc_server": {"url": "unix:)" + socket_ + R"("}}})");
  StartDaemon(environment_);
  worker_ = WorkerOf(supervisor_);
  ASSERT_TRUE(Eventually([] { return !Pauses("real").empty(); })) << WholeLog();
  EXPECT_TRUE(EndsBySigtermWithinASecond(worker_)) << WholeLog();
}

TEST_F(StopTest, SigtermEndsTheWorkerOfAServiceThatHangsWithinASecond) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  kill(service_->pid(), SIGSTOP);
  EXPECT_TRUE(EndsBySigtermWithinASecond(worker_)) << WholeLog();
}

TEST_F(StopTest, SigtermEndsTheWorkerInSendWithinASecond) {
  const UnreadServer server(UnreadServer::Act::kDeliversAfterHello, "ticket-1",
                            R"({"token": "the-token", "apps": []})");
  WriteConfig(R"({"debug_dat_file_transmitter": {"grpc_server": {"url": ")" + server.Url() + R"("}}})");
  StartDaemon();
  worker_ = WorkerOf(supervisor_);
  ASSERT_TRUE(WaitForLog(SyslogRole::kWorker, "Sent grpc response: 0")) << WholeLog();
  ASSERT_TRUE(EndsBySigtermWithinASecond(worker_)) << WholeLog();
  EXPECT_TRUE(WaitForLog(SyslogRole::kWorker, "Failed to send response, error: ")) << WholeLog();
  EXPECT_EQ(CountLog(SyslogRole::kWorker, "Prepare to receive grpc request"), 1U)
      << "Send() was over before the signal\n"
      << WholeLog();
}

TEST_F(StopTest, SigtermEndsTheIdleSupervisorWithStatus0) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  kill(supervisor_, SIGTERM);
  EXPECT_THAT(WaitForProcess(supervisor_), ExitedWith(0));
  EXPECT_EQ(ReadFile(kPidFile), std::to_string(supervisor_) + "\n") << "the file stays";
}

TEST_F(StopTest, TransmissionChildFinishesItsWorkAfterTheSupervisorsEnd) {
  DescribeApp("slow", {"sleep", "2"});
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const std::string id = SendTicket("slow");
  ASSERT_TRUE(WaitForLog(SyslogRole::kSupervisor, "Receive a request(")) << WholeLog();
  kill(supervisor_, SIGTERM);
  EXPECT_THAT(WaitForProcess(supervisor_), ExitedWith(0));
  EXPECT_TRUE(WaitForTicket(id, " reported: \"Success\"")) << WholeLog();
  EXPECT_TRUE(WaitForLog(SyslogRole::kChild, "Finish handling the request(")) << WholeLog();
  EXPECT_THAT(ArchivesOnDevice(), testing::IsEmpty());
}

}  // namespace
