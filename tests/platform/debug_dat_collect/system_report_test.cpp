#include "system_report.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>

#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

constexpr std::size_t kMaxBytes = std::size_t{4} << 20;

TEST(SystemReportTest, DescribesThisMachine) {
  EXPECT_THAT(UnameText(), HasSubstr(HostName()));
  EXPECT_THAT(UptimeText("/proc"),
              MatchesRegex("seconds up: [0-9.]+\nload: [0-9. /]+\ntime: 20[0-9TZ:-]+\n"));
  EXPECT_THAT(NetworkText(), HasSubstr("lo "));
  EXPECT_THAT(DiskText("/proc", kMaxBytes).text, HasSubstr("MOUNTED_ON\n"));
}

TEST(SystemReportTest, ProcessesAreListedWithTheirCommandLines) {
  const std::string text = ProcessText("/proc", kMaxBytes).text;
  const std::string line = "\n" + std::to_string(getpid()) + " " + std::to_string(getppid()) + " " +
                           std::to_string(getuid()) + " ";
  EXPECT_THAT(text, HasSubstr(line));
  EXPECT_THAT(text.substr(text.find(line)), HasSubstr("debug_dat_collect_test"));
}

class SystemReportFilesTest : public SupportLogTest {};

TEST_F(SystemReportFilesTest, ProcessWithOddNameAndNoCommandLineIsListedByItsName) {
  std::string stat = "7 (odd) name (x) S 2";
  for (int field = 5; field < 22; ++field) stat += " 0";
  WriteText(data_ / "7/stat", stat + " 4711 0");
  WriteText(data_ / "7/status", "Name:\todd\nUid:\t5\t5\t5\t5\n");
  WriteText(data_ / "7/cmdline", "");
  WriteText(data_ / "8/cmdline", "ended meanwhile");
  EXPECT_THAT(ProcessText(data_, kMaxBytes).text, HasSubstr("\n7 2 5 S 0 4711 [odd) name (x]\n"));
  EXPECT_THAT(ProcessText(data_, kMaxBytes).text, Not(HasSubstr("ended meanwhile")));
}

/// A process in a folder that stands for proc.
void WriteProcess(const fs::path& proc, int id, const std::string& command) {
  const fs::path folder = proc / std::to_string(id);
  std::string stat = std::to_string(id) + " (name) S 2";
  for (int field = 5; field < 22; ++field) stat += " 0";
  WriteText(folder / "stat", stat + " 4711 0");
  WriteText(folder / "status", "Uid:\t5\t5\t5\t5\n");
  WriteText(folder / "cmdline", command);
}

TEST_F(SystemReportFilesTest, OfTooManyLongCommandLinesTheLongestAreCutAndTheOthersStayWhole) {
  const std::string ordinary = "an ordinary command --with=options";
  for (int id = 1; id <= 60; ++id) {
    WriteProcess(data_, id, id % 3 == 0 ? ordinary : std::string(static_cast<std::size_t>(id) * 1'000, 'x'));
  }
  const BoundedText processes = ProcessText(data_, 100'000);
  EXPECT_LE(processes.text.size(), 100'000U);
  EXPECT_GT(processes.text.size(), 99'000U);
  EXPECT_THAT(processes.text, HasSubstr("\n60 2 5 S 0 4711 " + ordinary + "\n"));
  EXPECT_THAT(processes.text, HasSubstr("4711 " + std::string(1'000, 'x') + "\n"))
      << "the shortest of the long ones";
  EXPECT_EQ(std::count(processes.text.begin(), processes.text.end(), '\n'), 61);
  EXPECT_THAT(processes.note,
              MatchesRegex("longer than 100000 bytes: the longest lines are cut at [0-9]+ bytes"));
  EXPECT_EQ(ProcessText(data_, std::size_t{4} << 20).note, "");
}

TEST_F(SystemReportFilesTest, OfProcessesWithoutNumberSomeAreLeftOutWithANote) {
  for (int id = 1; id <= 60; ++id) WriteProcess(data_, id, std::string(500, 'x'));
  const BoundedText processes = ProcessText(data_, 1'280);
  EXPECT_LE(processes.text.size(), 1'280U);
  EXPECT_EQ(std::count(processes.text.begin(), processes.text.end(), '\n'), 20);
  EXPECT_THAT(processes.note, HasSubstr("and 41 lines are left out"));
}

TEST_F(SystemReportFilesTest, NetworkFileSystemsAreNotAsked) {
  WriteText(data_ / "self/mounts", "server:/x /mnt\\040x nfs4 rw 0 0\n/dev/a / ext4 rw 0 0\n");
  EXPECT_THAT(DiskText(data_, kMaxBytes).text, HasSubstr("/mnt x nfs4 not asked\n"));
  EXPECT_THAT(DiskText(data_, kMaxBytes).text, HasSubstr("/dev/a ext4 "));
}

}  // namespace
}  // namespace TARVO::SupportForm
