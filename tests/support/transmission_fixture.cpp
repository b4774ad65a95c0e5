#include "transmission_fixture.h"

#include <json/json.h>

#include <filesystem>
#include <set>
#include <sstream>

std::string Transmitter(const std::string& text) { return "E transmitter.cpp " + text; }

Lines Attempts(int times, int code, const std::string& what) {
  const std::string start =
      "curl_easy_perform() failed: CURLcode=[" + std::to_string(code) + "], what=[CurlPerform: ";
  return Lines(static_cast<std::size_t>(times), Transmitter(start + what + "]"));
}

Lines NotParsed(const std::string& answer) { return {Transmitter("Failed to parse server resp: " + answer)}; }

Lines NobodyThere() { return Attempts(5, 7, "Couldn't connect to server*") + NotParsed(""); }

Lines ChildLines(const Course& upload, const Course& report) {
  Lines lines = upload.lines;
  if (!upload.succeeds) {
    lines = lines + Lines{Transmitter("Failed to upload debug.dat file"),
                          Daemon("E Failed to upload debug.dat to CSS server"),
                          Daemon("E Failed to transmit debug.dat")};
  }
  lines = lines + report.lines;
  if (!report.succeeds) {
    const std::string result = upload.succeeds ? "0" : "2";
    lines = lines + Lines{Transmitter("Failed to update result to server"),
                          Daemon("E Failed to update result to CSS server"),
                          Daemon("E Failed to update '" + result + "' to server")};
  }
  return lines + Lines{Daemon("W Finish handling the request(*)")};
}

std::string UnusedUrl() {
  const SteerableServer server;
  return server.Url();
}

void TransmissionTest::SetUp() {
  FaultTest::SetUp();
  if (HasFatalFailure()) {
    return;
  }
  PauseShorter(20);
  ASSERT_NO_FATAL_FAILURE(StartService());
}

void TransmissionTest::StartDaemonWith(const std::string& webapi_library_folder) {
  StartDaemonFor(grpc_url_, {{"LD_LIBRARY_PATH", LibraryFolder(webapi_library_folder)},
                             {"LD_PRELOAD", SANITIZER_RUNTIME + LibraryFolder("libsleep_shim.so:") +
                                                LibraryFolder("libfault_shim.so:") +
                                                LibraryFolder("libcurl_limit_shim.so")}});
  // The worker has read the configuration then.
  ASSERT_TRUE(Eventually([&] { return service_->Output().find("device connected") != std::string::npos; }))
      << WholeLog();
}

std::string TransmissionTest::ConfigWith(const std::string& css_url) const {
  return R"({"debug_dat_file_transmitter": {"grpc_server": {"url": ")" + grpc_url_ +
         R"("}, "css_server": {"url": ")" + css_url + R"("}}})";
}

void TransmissionTest::TakeTicket(const std::string& app) {
  const std::string id = SendTicket(app);
  EXPECT_TRUE(WaitForTicket(id, " accepted")) << WholeLog();
}

Lines TransmissionTest::LinesUpToTheCompletion(std::size_t ticket) {
  EXPECT_TRUE(WaitForLog(SyslogRole::kSupervisor, "Notify worker process", ticket)) << WholeLog();
  // Not by its role: a child that has ended before its only line was looked at has none.
  std::set<pid_t> known = {supervisor_, worker_};
  for (const SyslogLine& line : syslog_->Lines()) {
    if (known.insert(line.pid).second && known.size() == 2 + ticket) {
      return LinesOf(line.pid);
    }
  }
  return {};
}

Lines TransmissionTest::StatusesOf(const std::vector<ReceivedRequest>& reports) {
  Lines statuses;
  for (const ReceivedRequest& report : reports) {
    Json::Value value;
    std::istringstream(report.body) >> value;
    statuses.push_back(value["status"].asString());
  }
  return statuses;
}

bool TransmissionTest::WaitForRequests(const std::string& path, std::size_t count) const {
  return Eventually([&] { return css_.RequestsFor(path).size() == count; });
}

void TransmissionTest::ExpectTheNextIsServedAndNothingLeft() {
  const std::set<int> supervisors = OpenDescriptors(supervisor_);
  const std::set<int> workers = OpenDescriptors(worker_);
  WriteConfig(ConfigWith(css_.Url()));
  ExpectNextTicketIsServed();
  ExpectNothingIsLeft();
  EXPECT_FALSE(std::filesystem::exists("/run/vendor/debug.dat"));
  EXPECT_EQ(OpenDescriptors(supervisor_), supervisors);
  EXPECT_EQ(OpenDescriptors(worker_), workers);
}
