#include <archive.h>
#include <archive_entry.h>
#include <gmock/gmock.h>
#include <json/json.h>

#include <algorithm>
#include <filesystem>

#include "system_fixture.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

struct ArchiveEntry {
  std::string name;
  std::string content;
};

/// Reads a zstd-compressed tar to its end; a damaged one makes the calling test fail.
std::vector<ArchiveEntry> ReadArchive(const std::string& path) {
  std::vector<ArchiveEntry> entries;
  const std::unique_ptr<archive, int (*)(archive*)> reader(archive_read_new(), &archive_read_free);
  archive_read_support_filter_zstd(reader.get());
  archive_read_support_format_tar(reader.get());
  EXPECT_EQ(archive_read_open_filename(reader.get(), path.c_str(), 65536), ARCHIVE_OK)
      << path << ": " << archive_error_string(reader.get());
  archive_entry* entry = nullptr;
  int result = ARCHIVE_OK;
  while ((result = archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK) {
    ArchiveEntry taken;
    taken.name = archive_entry_pathname(entry);
    char buffer[65536];
    la_ssize_t count = 0;
    while ((count = archive_read_data(reader.get(), buffer, sizeof(buffer))) > 0) {
      taken.content.append(buffer, static_cast<std::size_t>(count));
    }
    EXPECT_EQ(count, 0) << taken.name << ": " << archive_error_string(reader.get());
    entries.push_back(taken);
  }
  EXPECT_EQ(result, ARCHIVE_EOF) << archive_error_string(reader.get());
  return entries;
}

/// The content of the first entry whose name starts with `start`.
std::string ContentOf(const std::vector<ArchiveEntry>& entries, const std::string& start) {
  const auto found = std::find_if(entries.begin(), entries.end(),
                                  [&](const ArchiveEntry& entry) { return entry.name.rfind(start, 0) == 0; });
  return found == entries.end() ? "" : found->content;
}

/// The token in the first of the supervisor's lines that quotes a ticket.
std::string TokenIn(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) {
    const std::size_t begin = line.find(R"("token":")");
    if (begin != std::string::npos) {
      const std::size_t value = begin + 9;
      return line.substr(value, line.find('"', value) - value);
    }
  }
  return "";
}

/// The files below the folders in which `text` stands, of those written since `start`.
std::vector<std::string> FilesWith(const std::string& text, const std::vector<std::string>& folders,
                                   std::filesystem::file_time_type start) {
  std::vector<std::string> found;
  for (const std::string& folder : folders) {
    std::error_code none;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(
             folder, std::filesystem::directory_options::skip_permission_denied, none)) {
      if (entry.is_regular_file() && entry.last_write_time() >= start &&
          ReadFile(entry.path()).find(text) != std::string::npos) {
        found.push_back(entry.path());
      }
    }
  }
  return found;
}

class TicketTest : public SystemTest {
 protected:
  /// The road of a ticket is over: reported, deleted, and the worker may take the next one.
  [[nodiscard]] bool WaitForCompletion(std::size_t count) const {
    return WaitForLog(SyslogRole::kSupervisor, "Notify worker process", count);
  }
};

TEST_F(TicketTest, OverMutualTlsEndsAsSuccessWithTheArchiveOnTheServerAndGoneFromTheDevice) {
  uses_certificates_ = true;
  DescribeApp("demo", {"echo", "data of the demo"});
  ASSERT_NO_FATAL_FAILURE(StartAll());
  ASSERT_THAT(grpc_url_, StartsWith("https://"));
  ASSERT_THAT(css_url_, StartsWith("https://"));
  Program client(
      {BinaryPath("supportctl"), "--data", kServiceFolder, "send", "--apps", "demo", "--wait", "60"},
      std::string(kTestFolder) + "/send.out");
  ASSERT_EQ(client.Wait(std::chrono::seconds(60)), 0) << client.Output() << WholeLog();
  const std::string id = client.Output().substr(0, client.Output().find('\n'));
  EXPECT_THAT(TicketEvents(id), HasSubstr(" accepted"));
  EXPECT_THAT(TicketEvents(id), HasSubstr(" reported: \"Success\""));
  EXPECT_TRUE(WaitForLog(SyslogRole::kWorker, "Sent grpc response: 0")) << WholeLog();

  const std::vector<ArchiveEntry> entries = ReadArchive(ReceivedArchive(id));
  ASSERT_FALSE(entries.empty());
  EXPECT_THAT(ContentOf(entries, "apps/demo/"), HasSubstr("data of the demo"));
  EXPECT_THAT(ContentOf(entries, "system/os-release"), HasSubstr("NAME="));
  EXPECT_EQ(entries.back().name, "manifest.json");

  ASSERT_TRUE(WaitForCompletion(1)) << WholeLog();
  EXPECT_THAT(ArchivesOnDevice(), IsEmpty());
}

TEST_F(TicketTest, WaitsForTheReportOfAnotherAndIsServedThen) {
  DescribeApp("slow", {"sleep", "3"});
  DescribeApp("quick", {"true"});
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const std::string first = SendTicket("slow");
  const std::string second = SendTicket("quick");
  ASSERT_TRUE(WaitForTicket(second, " reported: \"Success\"")) << WholeLog();
  const std::string events = service_->Output();
  const std::size_t report = events.find("ticket " + first + " reported: \"Success\"");
  ASSERT_NE(report, std::string::npos) << events;
  EXPECT_GT(events.find("ticket " + second + " delivered"), report) << events;
  EXPECT_THAT(TicketEvents(second), Not(HasSubstr(" rejected")));
}

TEST_F(TicketTest, IsRejectedWhileAnotherRunsAndServedWhenTheServiceTriesAgain) {
  service_program_ = "impatient_support_service";
  DescribeApp("slow", {"sleep", "10"});
  DescribeApp("quick", {"true"});
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const std::string first = SendTicket("slow");
  ASSERT_TRUE(WaitForLog(SyslogRole::kSupervisor, "Receive a request(")) << WholeLog();
  const std::string second = SendTicket("quick");

  EXPECT_TRUE(WaitForLog(SyslogRole::kWorker, "Sent grpc response: 1")) << WholeLog();
  EXPECT_TRUE(WaitForTicket(second, " rejected: again in 2 s")) << WholeLog();
  EXPECT_EQ(CountLog(SyslogRole::kSupervisor, "Notify worker process"), 0U)
      << "the first one was over too soon\n"
      << WholeLog();
  EXPECT_TRUE(WaitForTicket(first, " reported: \"Success\"")) << WholeLog();
  EXPECT_TRUE(WaitForTicket(second, " reported: \"Success\"")) << WholeLog();
  EXPECT_THAT(TicketEvents(first), Not(HasSubstr(" rejected")));
}

TEST_F(TicketTest, ThreeInARowAreServedAtOnceAndLeaveNoZombieOrDescriptorBehind) {
  DescribeApp("demo", {"true"});
  ASSERT_NO_FATAL_FAILURE(StartAll());
  std::set<int> supervisors_before;
  std::set<int> workers_before;
  for (std::size_t count = 1; count <= 3; ++count) {
    const std::string id = SendTicket("demo");
    ASSERT_TRUE(WaitForTicket(id, " reported: \"Success\"")) << WholeLog();
    ASSERT_TRUE(WaitForCompletion(count)) << WholeLog();
    if (count == 1) {  // with its first line each process opened its socket to syslog, which stays
      supervisors_before = OpenDescriptors(supervisor_);
      workers_before = OpenDescriptors(worker_);
    }
  }
  EXPECT_EQ(CountLog(SyslogRole::kWorker, "Sent grpc response: 0"), 3U) << WholeLog();
  EXPECT_EQ(CountLog(SyslogRole::kWorker, "Sent grpc response: 1"), 0U) << WholeLog();
  EXPECT_EQ(CountLog(SyslogRole::kWorker, "Finish waiting main process to respond"), 2U) << WholeLog();

  EXPECT_THAT(ChildrenOf(supervisor_), testing::ElementsAre(worker_));
  EXPECT_THAT(OpenDescriptors(supervisor_), testing::ContainerEq(supervisors_before));
  EXPECT_THAT(OpenDescriptors(worker_), testing::ContainerEq(workers_before));
  ReapOrphans({});  // the collection tasks: the test is their process 1
  for (const pid_t pid : AllProcesses()) {
    EXPECT_NE(LookAt(pid).state, 'Z') << pid << " " << ReadFile("/proc/" + std::to_string(pid) + "/comm");
  }
}

TEST_F(TicketTest, LeavesItsTokenNowhereButInTheDaemonsLogLines) {
  const auto start = std::filesystem::file_time_type::clock::now() - std::chrono::seconds(5);
  // The log file quotes the ticket before the collection takes the log file.
  WriteFile(kDebugFlag, "");
  WriteFile("/usr/tarvo/etc/support_form_log.d/log.json",
            R"({"paths": [")" + std::string(kDebugLog) + R"("]})");
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const std::string id = SendTicket("log");
  ASSERT_TRUE(WaitForTicket(id, " reported: \"Success\"")) << WholeLog() << ReadFile(kDebugLog);
  ASSERT_TRUE(
      Eventually([] { return ReadFile(kDebugLog).find("Notify worker process") != std::string::npos; }));

  const std::string token = TokenIn({ReadFile(kDebugLog)});
  ASSERT_GE(token.size(), 32U) << ReadFile(kDebugLog);
  EXPECT_THAT(FilesWith(token, {"/usr/tarvo", "/var", "/run", "/dev/shm"}, start),
              testing::ElementsAre(kDebugLog));
  const std::vector<ArchiveEntry> entries = ReadArchive(ReceivedArchive(id));
  EXPECT_THAT(ContentOf(entries, "apps/log/"), HasSubstr("Receive a request("));
  for (const ArchiveEntry& entry : entries) {
    EXPECT_EQ(entry.content.find(token), std::string::npos) << entry.name;
  }
}

TEST_F(TicketTest, WithoutACssServerIsAnsweredAndItsFailuresAreLogged) {
  DescribeApp("demo", {"true"});
  ASSERT_NO_FATAL_FAILURE(StartService());
  WriteConfig(R"({"debug_dat_file_transmitter": {"grpc_server": {"url": ")" + grpc_url_ + R"("}}})");
  StartDaemon();
  const std::string id = SendTicket("demo");
  ASSERT_TRUE(WaitForTicket(id, " accepted")) << WholeLog();
  ASSERT_TRUE(WaitForCompletion(1)) << WholeLog();

  const std::vector<std::string> expected = {"Failed to validate data: [{\"debug_dat_file_transmitter\"",
                                             "Failed to get css server url",
                                             "Failed to upload debug.dat file",
                                             "Failed to upload debug.dat to CSS server",
                                             "Failed to transmit debug.dat",
                                             "Failed to validate data: [{\"debug_dat_file_transmitter\"",
                                             "Failed to get css server url",
                                             "Failed to update result to server",
                                             "Failed to update result to CSS server",
                                             "Failed to update '2' to server",
                                             "Finish handling the request("};
  std::vector<testing::Matcher<std::string>> matchers;
  matchers.reserve(expected.size());
  for (const std::string& text : expected) {
    matchers.emplace_back(HasSubstr(text));
  }
  EXPECT_THAT(LogOf(SyslogRole::kChild), testing::ElementsAreArray(matchers));
  EXPECT_THAT(ArchivesOnDevice(), IsEmpty());
}

// The platform library throws, the daemon's binary catches: both must mean the same exception class.
TEST_F(TicketTest, ForACssServerThatIsNotThereLogsTheCodeOfEachOfFiveAttempts) {
  DescribeApp("demo", {"true"});
  ASSERT_NO_FATAL_FAILURE(StartService());
  WriteConfig(R"({"debug_dat_file_transmitter": {"grpc_server": {"url": ")" + grpc_url_ +
              R"("}, "css_server": {"url": "http://127.0.0.1:1"}}})");
  StartDaemon();
  const std::string id = SendTicket("demo");
  ASSERT_TRUE(WaitForTicket(id, " accepted")) << WholeLog();
  ASSERT_TRUE(WaitForCompletion(1)) << WholeLog();

  const std::size_t requests = 2;  // the upload and the report
  EXPECT_EQ(CountLog(SyslogRole::kChild, "curl_easy_perform() failed: CURLcode=[7]"), 5 * requests);
  EXPECT_EQ(CountLog(SyslogRole::kChild, "Failed to parse server resp: "), requests);
  EXPECT_EQ(CountLog(SyslogRole::kChild, "Failed to update '2' to server"), 1U);
  EXPECT_THAT(ArchivesOnDevice(), IsEmpty());
}

TEST_F(TicketTest, ForAnUnknownApplicationStillBringsTheSystemsData) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const std::string id = SendTicket("nobody-knows-it");
  ASSERT_TRUE(WaitForTicket(id, " reported: \"Success\"")) << WholeLog();
  const std::vector<ArchiveEntry> entries = ReadArchive(ReceivedArchive(id));
  EXPECT_THAT(ContentOf(entries, "system/os-release"), HasSubstr("NAME="));
  EXPECT_THAT(ContentOf(entries, "manifest.json"), HasSubstr("nobody-knows-it"));
}

}  // namespace
