/// What debug_dat_check says of a daemon that runs, or has in part ended.

#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>

#include "system_fixture.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr int kServerProblem = 4;
constexpr int kDaemonProblem = 6;

class CheckedDaemonTest : public SystemTest {
 protected:
  /// Asks for the one line.
  /// @return The exit status.
  int AskStatus() {
    Program check({BinaryPath("debug_dat_check"), "--status"}, std::string(kTestFolder) + "/check.out");
    const int status = check.Wait(std::chrono::seconds(60));
    answer_ = check.Output();
    return status;
  }

  [[nodiscard]] bool WaitForService(const std::string& text) const {
    return Eventually([&] { return service_->Output().find(text) != std::string::npos; });
  }

  std::string answer_;
};

TEST_F(CheckedDaemonTest, DeadWorkerAndDeadSupervisorAreTold) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  EXPECT_EQ(AskStatus(), 0);
  EXPECT_THAT(answer_, StartsWith("working: connected, runs since 20"));

  ASSERT_EQ(kill(worker_, SIGKILL), 0);
  EXPECT_TRUE(Eventually([&] { return AskStatus() == kDaemonProblem; })) << answer_;
  EXPECT_THAT(answer_, StartsWith("not working: its worker has ended"));

  ASSERT_EQ(kill(supervisor_, SIGKILL), 0);
  EXPECT_TRUE(Eventually([&] {
    return AskStatus() == kDaemonProblem && answer_.find("does not run") != std::string::npos;
  })) << answer_;
}

TEST_F(CheckedDaemonTest, ConnectionOverAUnixSocketIsTold) {
  ASSERT_NO_FATAL_FAILURE(StartService(std::string("unix:") + kTestFolder + "/grpc.sock"));
  WriteConfig();
  StartDaemon();
  ASSERT_TRUE(WaitForService("device connected")) << WholeLog();
  EXPECT_EQ(AskStatus(), 0);
  EXPECT_THAT(answer_, StartsWith("working: connected, runs since 20"));

  service_.reset();
  EXPECT_TRUE(Eventually([&] { return AskStatus() == kServerProblem; })) << answer_;
  EXPECT_THAT(answer_, StartsWith("not working: no connection to the notification server"));
}

TEST_F(CheckedDaemonTest, SecondDaemonIsTold) {
  ASSERT_NO_FATAL_FAILURE(StartService());
  WriteConfig();
  StartDaemon();
  std::filesystem::remove("/run/kestrix_debug_dat_transmitter.pid");
  StartDaemon();
  EXPECT_EQ(AskStatus(), kDaemonProblem);
  EXPECT_THAT(answer_, HasSubstr("two workers fight for one stream"));
}

TEST_F(CheckedDaemonTest, DaemonFromReplacedFilesIsTold) {
  const std::filesystem::path folder = std::string(kTestFolder) + "/lib";
  const std::filesystem::path library = folder / "libtarvocore.so";
  const std::filesystem::path installed = LibraryFolder("libtarvocore.so");
  std::filesystem::create_directory(folder);
  std::filesystem::copy_file(installed, library);
  ASSERT_NO_FATAL_FAILURE(StartService());
  WriteConfig();
  StartDaemon({{"LD_LIBRARY_PATH", folder.string()}});
  ASSERT_TRUE(WaitForService("device connected")) << WholeLog();
  EXPECT_EQ(AskStatus(), 0) << answer_;

  std::filesystem::copy_file(installed, folder / "new");
  std::filesystem::rename(folder / "new", library);
  EXPECT_EQ(AskStatus(), kDaemonProblem);
  EXPECT_THAT(answer_, HasSubstr("files that have been replaced"));
}

}  // namespace
