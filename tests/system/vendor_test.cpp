#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <sstream>

#include "steerable_server.h"
#include "system_fixture.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/// One of the three platform libraries is another maker's; it lies first on LD_LIBRARY_PATH.
class VendorTest : public SystemTest {
 protected:
  static Environment With(const std::string& library) {
    return {{"LD_LIBRARY_PATH", LibraryFolder("vendor/" + library)}};
  }

  /// Starts service and daemon, and has the daemon serve one ticket with that library of the other maker's.
  void ServeTicketWith(const std::string& library, const std::string& apps) {
    ASSERT_NO_FATAL_FAILURE(StartService());
    WriteConfig();
    StartDaemon(With(library));
    ticket_ = SendTicket(apps);
    ASSERT_TRUE(WaitForTicket(ticket_, " reported: \"Success\"")) << WholeLog();
    ASSERT_TRUE(WaitForLog(SyslogRole::kSupervisor, "Notify worker process")) << WholeLog();
  }

  /// What the other maker's library was called for, "NAME" by each call.
  static std::vector<std::string> CallsBy(pid_t pid) {
    std::istringstream lines(ReadFile("/run/vendor/calls"));
    std::vector<std::string> names;
    pid_t caller = 0;
    for (std::string name; lines >> name >> caller;) {
      if (caller == pid) {
        names.push_back(name);
      }
    }
    return names;
  }

  /// The platform libraries that the process has in use, by their paths.
  static std::vector<std::string> PlatformLibrariesOf(pid_t pid) {
    std::istringstream lines(ReadFile("/proc/" + std::to_string(pid) + "/maps"));
    std::set<std::string> paths;
    for (std::string line; std::getline(lines, line);) {
      const std::string path = line.find('/') == std::string::npos ? "" : line.substr(line.find('/'));
      if (path.rfind(LibraryFolder(""), 0) == 0) {
        paths.insert(path.substr(LibraryFolder("").size()));
      }
    }
    return {paths.begin(), paths.end()};
  }

  std::string ticket_;  ///< The one that was served.
};

// This library keeps no descriptor, so the supervisor's socket to syslog has the lowest number there is.
TEST_F(VendorTest, AnotherMakersCoreLibraryServesTheDaemon) {
  DescribeApp("demo", {"echo", "demo"});
  ASSERT_NO_FATAL_FAILURE(ServeTicketWith("tarvocore", "demo"));
  EXPECT_THAT(PlatformLibrariesOf(supervisor_),
              testing::UnorderedElementsAre("vendor/tarvocore/libtarvocore.so", "libtarvoorvane.so",
                                            "libwebapi-Pelk5.so"));
  EXPECT_THAT(ArchivesOnDevice(), IsEmpty());
  EXPECT_THAT(CallsBy(supervisor_),
              testing::ElementsAre("TLIBCProcPidFileCreate", "TLIBCProcForkEx(65)", "TLIBCProcFork"));
  EXPECT_THAT(ReadFile("/run/vendor/calls"), HasSubstr("TLIBCFileExist"));
}

TEST_F(VendorTest, AnotherMakersWebApiRunnerServesTheDaemon) {
  ASSERT_NO_FATAL_FAILURE(ServeTicketWith("webapi-Pelk5", "one,two"));
  EXPECT_THAT(PlatformLibrariesOf(supervisor_),
              testing::UnorderedElementsAre("libtarvocore.so", "libtarvoorvane.so",
                                            "vendor/webapi-Pelk5/libwebapi-Pelk5.so"));
  EXPECT_EQ(ReadFile(ReceivedArchive(ticket_)), "another maker's archive of one two");
  EXPECT_FALSE(std::filesystem::exists("/run/vendor/debug.dat"));
  const std::string calls = ReadFile("/run/vendor/calls");
  EXPECT_THAT(calls, StartsWith("Exec(TARVO.Core.SupportForm.Log,1,collect,admin)"));
  EXPECT_THAT(calls, HasSubstr("\nExec(TARVO.Core.SupportForm.Log,1,status,admin)"));
}

TEST_F(VendorTest, AnotherMakersSupportServiceLibraryServesTheDaemon) {
  DescribeApp("demo", {"echo", "demo"});
  SteerableServer css_server(
      {HttpAnswer("200 OK", R"({"success": true})"), HttpAnswer("200 OK", R"({"success": true})")});
  WriteConfig(
      R"({"debug_dat_file_transmitter": {"grpc_server": {"url": "anything"}, "css_server": {"url": ")" +
      css_server.Url() + R"("}}})");
  StartDaemon(With("tarvoorvane"));
  worker_ = WorkerOf(supervisor_);
  EXPECT_THAT(PlatformLibrariesOf(supervisor_),
              testing::UnorderedElementsAre("libtarvocore.so", "libwebapi-Pelk5.so",
                                            "vendor/tarvoorvane/libtarvoorvane.so"));
  WriteFile("/run/vendor/ticket.new", "the-token\ndemo\n");
  std::filesystem::rename("/run/vendor/ticket.new", "/run/vendor/ticket");
  ASSERT_TRUE(Eventually([] {
    return ReadFile("/run/vendor/log").find("Notify worker process") != std::string::npos;
  })) << WholeLog()
      << ReadFile("/run/vendor/log");

  const std::vector<ReceivedRequest> requests = css_server.Requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].Header("AUTH-TOKEN"), "the-token");
  EXPECT_THAT(requests[0].body, HasSubstr("VENDOR-0001"));
  EXPECT_THAT(requests[0].body, HasSubstr("\x28\xb5\x2f\xfd"))
      << "no zstd stream: the archive is not the host platform's";
  EXPECT_THAT(requests[1].body, HasSubstr(R"("status":"Success")"));
  EXPECT_THAT(ArchivesOnDevice(), IsEmpty());

  const std::vector<std::string> workers = CallsBy(worker_);
  for (const char* call : {"ReconfigureByDebugFlag", "FastSupportClient(anything)", "Receive", "Send(0)"}) {
    EXPECT_THAT(workers, Contains(call));
  }
  EXPECT_THAT(CallsBy(supervisor_), testing::ElementsAre("ReconfigureByDebugFlag"));
  // All three processes see the logger that the library made.
  const std::string log = ReadFile("/run/vendor/log");
  EXPECT_THAT(log, HasSubstr("Prepare to receive grpc request"));
  EXPECT_THAT(log, HasSubstr("Receive a request({\"apps\":[\"demo\"],\"token\":\"the-token\"})"));
  EXPECT_THAT(log, HasSubstr("Finish handling the request("));
  EXPECT_THAT(syslog_->Lines(), IsEmpty()) << WholeLog();
}

TEST_F(VendorTest, TheTemplateForMakersServesTheDaemon) {
  SteerableServer css_server(
      {HttpAnswer("200 OK", R"({"success": true})"), HttpAnswer("200 OK", R"({"success": true})")});
  WriteConfig(
      R"({"debug_dat_file_transmitter": {"grpc_server": {"url": "/run/tickets"}, "css_server": {"url": ")" +
      css_server.Url() + R"("}}})");
  StartDaemon(With("template"));
  ASSERT_TRUE(Eventually([] { return std::filesystem::is_fifo("/run/tickets"); })) << WholeLog();
  EXPECT_THAT(
      PlatformLibrariesOf(supervisor_),
      testing::UnorderedElementsAre("vendor/template/libtarvocore.so", "vendor/template/libtarvoorvane.so",
                                    "vendor/template/libwebapi-Pelk5.so"));

  WriteFile("/run/tickets", "the-token mail web\n");

  ASSERT_TRUE(WaitForLog(SyslogRole::kSupervisor, "Notify worker process")) << WholeLog();
  const std::vector<ReceivedRequest> requests = css_server.Requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].Header("AUTH-TOKEN"), "the-token");
  EXPECT_THAT(requests[0].body, HasSubstr("Here stands what your device has of mail.\n"
                                          "Here stands what your device has of web.\n"));
  EXPECT_THAT(requests[1].body, HasSubstr(R"("status":"Success")"));
  EXPECT_EQ(ReadFile("/run/tickets.answers"), "accepted\n");
  for (const auto& entry : std::filesystem::directory_iterator("/var/tmp")) {
    EXPECT_THAT(entry.path().string(), testing::Not(HasSubstr(".debug.dat")));
  }
}

}  // namespace
