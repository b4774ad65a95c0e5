#include "fault_fixture.h"

#include <fnmatch.h>
#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

// Where the shims, the other maker's library and the gated collection look while they run.
constexpr char kPauseScale[] = "/run/sleep_shim/scale";
constexpr char kPauseHold[] = "/run/sleep_shim/hold";
constexpr char kCurlClock[] = "/run/curl_limit_shim/clock";
constexpr char kVendorFolder[] = "/run/vendor";
constexpr char kGate[] = "/run/system_test/gate_is_open";
constexpr char kGateReached[] = "/run/system_test/gate_is_reached";

char LevelLetter(int level) { return "012EWN67"[level]; }

/// "LEVEL FILE TEXT" from "FILE:NUMBER TEXT"; "LEVEL TEXT" of a line without file and number.
std::string Describe(const SyslogLine& line) {
  const std::size_t colon = line.text.find(':');
  const std::size_t blank = line.text.find(' ');
  const std::string start = std::string(1, LevelLetter(line.level)) + ' ';
  const bool has_number = colon != std::string::npos && colon + 1 < blank && blank != std::string::npos;
  return start + (has_number ? line.text.substr(0, colon) + line.text.substr(blank) : line.text);
}

bool IsLine(const std::string& line, const std::string& pattern) {
  std::string escaped;
  for (const char c : pattern) {
    escaped += std::string("[?\\").find(c) == std::string::npos ? "" : "\\";
    escaped += c;
  }
  return fnmatch(escaped.c_str(), line.c_str(), FNM_EXTMATCH) == 0;
}

MATCHER_P(IsLineLike, pattern, "is like \"" + std::string(pattern) + '"') { return IsLine(arg, pattern); }

/// The folders of collection tasks, each with the files in it.
std::vector<std::string> TaskFolders() {
  std::vector<std::string> folders;
  std::error_code none;
  for (const auto& folder : fs::directory_iterator(kTaskFolder, none)) {
    folders.push_back(folder.path());
    for (const auto& file : fs::directory_iterator(folder, none)) {
      folders.back() += ' ' + file.path().filename().string();
    }
  }
  return folders;
}

}  // namespace

std::string Daemon(const std::string& line) {
  return line.substr(0, 2) + "debug_dat_transmitter.cpp" + line.substr(1);
}

Lines Daemon(const Lines& lines) {
  Lines result;
  for (const std::string& line : lines) {
    result.push_back(Daemon(line));
  }
  return result;
}

Lines operator+(Lines first, const Lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

testing::Matcher<std::string> LooksLike(const std::string& pattern) { return IsLineLike(pattern); }

testing::Matcher<Lines> AreLines(const Lines& patterns) {
  std::vector<testing::Matcher<std::string>> matchers;
  for (const std::string& pattern : patterns) {
    matchers.push_back(LooksLike(pattern));
  }
  return testing::ElementsAreArray(matchers);
}

void LetAttemptTimeOut() {
  const std::string passed = ReadFile(kCurlClock);
  const std::string next = std::string(kCurlClock) + ".new";
  WriteFile(next, std::to_string((passed.empty() ? 0 : std::stol(passed)) + 1800));
  fs::rename(next, kCurlClock);
}

void FaultTest::SetUp() {
  SystemTest::SetUp();
  if (HasFatalFailure()) {
    return;
  }
  service_program_ = "impatient_support_service";
  fs::remove_all("/run/fault_shim");
  PauseShorter();
  DescribeApp("demo", {"true"});
  DescribeApp("gated", {"sh", "-c",
                        std::string("touch ") + kGateReached + "; while ! test -e " + kGate +
                            "; do sleep 0.05; done"});
}

void FaultTest::HoldPauses() { WriteFile(kPauseHold, ""); }
void FaultTest::LetPausesEnd() { fs::remove(kPauseHold); }
void FaultTest::PauseShorter(int divisor) { WriteFile(kPauseScale, std::to_string(divisor)); }

void FaultTest::StartScaledDaemon(const Environment& extra) {
  extra_ = extra;
  extra_.emplace("LD_PRELOAD",
                 SANITIZER_RUNTIME + LibraryFolder("libsleep_shim.so:") + LibraryFolder("libfault_shim.so"));
  StartDaemon(extra_);
  worker_ = WorkerOf(supervisor_);
}

void FaultTest::StartDaemonFor(const std::string& grpc_url, const Environment& extra) {
  WriteConfig(R"({"debug_dat_file_transmitter": {"grpc_server": {"url": ")" + grpc_url +
              R"("}, "css_server": {"url": ")" + css_.Url() + R"("}}})");
  StartScaledDaemon(extra);
}

void FaultTest::StartWithService(const Environment& extra) {
  ASSERT_NO_FATAL_FAILURE(StartService());
  StartDaemonFor(grpc_url_, extra);
  ASSERT_TRUE(Eventually([&] { return service_->Output().find("device connected") != std::string::npos; }))
      << WholeLog();
}

void FaultTest::RestartDaemon() {
  for (const pid_t pid : {supervisor_, worker_, child_}) {
    if (pid != 0 && !HasEnded(pid)) {
      kill(pid, SIGTERM);
    }
    ASSERT_TRUE(pid == 0 || Eventually([&] { return HasEnded(pid); })) << pid << '\n' << WholeLog();
  }
  ReapOrphans({});
  child_ = 0;
  StartScaledDaemon(Environment(extra_));
}

Environment FaultTest::WithInstantCollection() {
  return {{"LD_LIBRARY_PATH", LibraryFolder("vendor/webapi-Pelk5")}};
}

void FaultTest::OpenGate() { WriteFile(kGate, ""); }

bool FaultTest::WaitForGate() {
  return Eventually([] { return fs::exists(kGateReached); });
}

pid_t FaultTest::WaitForChild() const {
  pid_t found = 0;
  const bool came = Eventually([&] {
    for (const pid_t pid : ChildrenOf(supervisor_)) {
      found = pid == worker_ ? found : pid;
    }
    return found != 0;
  });
  return came ? found : 0;
}

pid_t FaultTest::CollectionTask() {
  std::error_code none;
  for (const auto& folder : fs::directory_iterator(kTaskFolder, none)) {
    // The file has its size before it has a text.
    const auto pid = static_cast<pid_t>(std::strtol(ReadFile(folder.path() / "lock").c_str(), nullptr, 10));
    if (pid > 0) {
      return pid;
    }
  }
  return 0;
}

Lines FaultTest::LinesOf(pid_t pid) const {
  Lines lines;
  for (const SyslogLine& line : syslog_->Lines()) {
    if (line.pid == pid) {
      lines.push_back(Describe(line));
    }
  }
  return lines;
}

Lines FaultTest::FirstLinesOf(pid_t pid, std::size_t count) const {
  static_cast<void>(Eventually([&] { return LinesOf(pid).size() >= count; }));
  Lines lines = LinesOf(pid);
  lines.resize(std::min(lines.size(), count));
  return lines;
}

testing::AssertionResult FaultTest::Logs(pid_t pid, const Lines& patterns) const {
  testing::StringMatchResultListener why;
  static_cast<void>(Eventually([&] { return testing::Matches(AreLines(patterns))(LinesOf(pid)); }));
  return testing::ExplainMatchResult(AreLines(patterns), LinesOf(pid), &why)
             ? testing::AssertionSuccess()
             : testing::AssertionFailure()
                   << "process " << pid << ": " << testing::PrintToString(LinesOf(pid)) << why.str() << '\n'
                   << WholeLog();
}

Lines FaultTest::Results() const {
  Lines results;
  for (const ReceivedRequest& request : css_.RequestsFor(kReportPath)) {
    Json::Value report;
    Json::Reader().parse(request.body, report);
    results.push_back(report["status"].asString());
  }
  return results;
}

bool FaultTest::WaitForResults(std::size_t count) const {
  return Eventually([&] { return Results().size() >= count; });
}

void FaultTest::ExpectNextTicketIsServed() {
  css_.Steer(kUploadPath, {});
  css_.Steer(kReportPath, {});
  const std::size_t uploads = css_.RequestsFor(kUploadPath).size();
  const std::size_t results = Results().size();
  const std::size_t completions = CountLog(SyslogRole::kSupervisor, "Notify worker process");
  const std::string id = SendTicket("demo");
  ASSERT_TRUE(WaitForTicket(id, " accepted")) << WholeLog();
  ASSERT_TRUE(WaitForLog(SyslogRole::kSupervisor, "Notify worker process", completions + 1)) << WholeLog();
  EXPECT_EQ(css_.RequestsFor(kUploadPath).size(), uploads + 1) << WholeLog();
  ASSERT_EQ(Results().size(), results + 1) << WholeLog();
  EXPECT_EQ(Results().back(), "Success");
}

testing::AssertionResult FaultTest::WaitForOtherProcessesEnd(std::set<pid_t> spared) const {
  spared.insert({1, getpid(), service_ ? service_->pid() : 0});
  std::string others;
  const auto have_ended = [&] {
    ReapOrphans({});
    others.clear();
    for (const pid_t pid : AllProcesses()) {
      if (spared.count(pid) == 0) {
        others += std::to_string(pid) + ' ' + ReadFile("/proc/" + std::to_string(pid) + "/comm");
      }
    }
    return others.empty();
  };
  return Eventually(have_ended) ? testing::AssertionSuccess() : testing::AssertionFailure() << others;
}

void FaultTest::ExpectNothingIsLeft() const {
  EXPECT_TRUE(WaitForOtherProcessesEnd({supervisor_, worker_}));
  EXPECT_THAT(ArchivesOnDevice(), testing::IsEmpty());
  EXPECT_FALSE(fs::exists(std::string(kVendorFolder) + "/debug.dat"));
  EXPECT_THAT(TaskFolders(), testing::SizeIs(testing::Le(1U))) << "more folders of tasks than the last one's";
}
