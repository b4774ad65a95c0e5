#include "service_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "daemon_run_fixture.h"
#include "notify_socket.h"

namespace DebugDatRun {
namespace {

using test_support::Eventually;
using test_support::NotifySocket;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

class ServiceManagerTest : public DaemonRunTest {
 protected:
  ServiceManager Manager() {
    setenv("NOTIFY_SOCKET", socket_.c_str(), 1);
    return ServiceManager();
  }
  void StartUnderManager(const std::string& ways) {
    Start(ways, [this] { setenv("NOTIFY_SOCKET", socket_.c_str(), 1); });
    ASSERT_TRUE(WaitForOutput("runs: supervisor ")) << Output();
  }

  const std::string socket_ = folder_.File("notify");
  NotifySocket manager_{socket_};
};

TEST_F(ServiceManagerTest, IsToldByTheProtocol) {
  ServiceManager manager = Manager();
  EXPECT_TRUE(manager.is_there());
  EXPECT_EQ(getenv("NOTIFY_SOCKET"), nullptr);
  manager.TellReady("running");
  manager.TellStatus("one");
  manager.TellStatus("one");
  manager.TellStatus("two");
  manager.TellReloading();
  manager.TellStarting("clearing", 3);
  manager.TellStopping("ending", 310);
  EXPECT_THAT(manager_.Messages(), ElementsAre("READY=1\nSTATUS=running", "STATUS=one", "STATUS=two",
                                               MatchesRegex("RELOADING=1\nMONOTONIC_USEC=[0-9]+"),
                                               "STATUS=clearing\nEXTEND_TIMEOUT_USEC=3000000",
                                               "STOPPING=1\nSTATUS=ending\nEXTEND_TIMEOUT_USEC=310000000"));
}

TEST(NoServiceManagerTest, IsNobodyToTell) {
  for (const std::string& name :
       {std::string("nonsense"), "/" + std::string(200, 'x'), std::string("/nowhere")}) {
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    const ServiceManager manager;
    EXPECT_FALSE(manager.is_there()) << name;
    manager.TellReady("running");
  }
}

TEST(NoServiceManagerTest, MayHaveASocketOutsideOfTheFileSystem) {
  const std::string name = "@debug_dat_run_test_" + std::to_string(getpid());
  NotifySocket socket(name);
  setenv("NOTIFY_SOCKET", name.c_str(), 1);
  ServiceManager().TellReady("running");
  EXPECT_THAT(socket.Messages(), ElementsAre("READY=1\nSTATUS=running"));
}

// ======== A whole run ========

TEST_F(ServiceManagerTest, HearsOfStartReloadAndStop) {
  ASSERT_NO_FATAL_FAILURE(StartUnderManager(""));
  ASSERT_TRUE(manager_.WaitFor("READY=1")) << Output();
  Signal(SIGHUP);
  ASSERT_TRUE(WaitForEvent("worker SIGHUP"));
  Signal(SIGTERM);
  EXPECT_THAT(End(), test_support::ExitedWith(kStopped));
  ASSERT_TRUE(manager_.WaitFor("STOPPING=1"));
  EXPECT_THAT(test_support::Joined(manager_.Messages()),
              testing::ContainsRegex("RELOADING=1\nMONOTONIC_USEC=[0-9]+\n--\nREADY=1\n"));
}

TEST_F(ServiceManagerTest, HearsNothingOfReadinessWhereTheWorkerDiesAtOnce) {
  Start("worker-aborts", [this] { setenv("NOTIFY_SOCKET", socket_.c_str(), 1); });
  EXPECT_THAT(End(), test_support::ExitedWith(kWrongConfiguration));
  EXPECT_THAT(test_support::Joined(manager_.Messages()), testing::Not(HasSubstr("READY=1")));
  EXPECT_THAT(manager_.Messages().back(),
              HasSubstr(paths_.configuration + " must name the notification server"))
      << "what people see of a service that failed";
}

TEST_F(ServiceManagerTest, HearsWhyItEndsAndWhatItWaitsFor) {
  ASSERT_NO_FATAL_FAILURE(StartUnderManager("serves"));
  Put("ticket");
  ASSERT_TRUE(WaitForEvent("child begins"));
  kill(Supervisor(), SIGKILL);
  EXPECT_TRUE(manager_.WaitFor("STOPPING=1\nSTATUS=the supervisor ("));
  EXPECT_TRUE(manager_.WaitFor("STATUS=ending, a ticket is still being served"));
  Put("release");
  EXPECT_THAT(End(), test_support::ExitedWith(kStartAgain));
}

TEST_F(ServiceManagerTest, HearsOfATicketsBeginAndEnd) {
  ASSERT_NO_FATAL_FAILURE(StartUnderManager("serves"));
  ASSERT_TRUE(manager_.WaitFor("READY=1")) << Output();
  Put("ticket");
  ASSERT_TRUE(WaitForEvent("child begins"));
  // The first ticket of all: the folder of the collections comes into being with it.
  std::filesystem::create_directories(paths_.collections + "/task");
  ASSERT_TRUE(manager_.WaitFor("STATUS=serving a ticket since "))
      << test_support::Joined(manager_.Messages());
  Put("release");
  ASSERT_TRUE(WaitForEvent("child ends"));
  ASSERT_TRUE(Eventually([&] {
    return manager_.Messages().back().rfind("STATUS=running, no TCP connection when looked at ", 0) == 0 ||
           manager_.Messages().back().rfind("STATUS=running, connected to a unix socket", 0) == 0 ||
           manager_.Messages().back() == "STATUS=running" ||
           manager_.Messages().back().rfind("STATUS=connected", 0) == 0;
  })) << test_support::Joined(manager_.Messages());
}

}  // namespace
}  // namespace DebugDatRun
