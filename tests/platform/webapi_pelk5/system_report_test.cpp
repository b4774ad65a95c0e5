#include "system_report.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

TEST(SystemReportTest, DescribesThisMachine) {
  EXPECT_THAT(UnameText(), HasSubstr(HostName()));
  EXPECT_THAT(UptimeText("/proc"),
              MatchesRegex("seconds up: [0-9.]+\nload: [0-9. /]+\ntime: 20[0-9TZ:-]+\n"));
  EXPECT_THAT(NetworkText(), HasSubstr("lo "));
  EXPECT_THAT(DiskText("/proc"), HasSubstr("MOUNTED_ON\n"));
}

TEST(SystemReportTest, ProcessesAreListedWithTheirCommandLines) {
  const std::string text = ProcessText("/proc");
  const std::string line = "\n" + std::to_string(getpid()) + " " + std::to_string(getppid()) + " " +
                           std::to_string(getuid()) + " ";
  EXPECT_THAT(text, HasSubstr(line));
  EXPECT_THAT(text.substr(text.find(line)), HasSubstr("webapi_pelk5_test"));
}

class SystemReportFilesTest : public SupportLogTest {};

TEST_F(SystemReportFilesTest, ProcessWithOddNameAndNoCommandLineIsListedByItsName) {
  std::string stat = "7 (odd) name (x) S 2";
  for (int field = 5; field < 22; ++field) stat += " 0";
  WriteText(data_ / "7/stat", stat + " 4711 0");
  WriteText(data_ / "7/status", "Name:\todd\nUid:\t5\t5\t5\t5\n");
  WriteText(data_ / "7/cmdline", "");
  WriteText(data_ / "8/cmdline", "ended meanwhile");
  EXPECT_THAT(ProcessText(data_), HasSubstr("\n7 2 5 S 0 4711 [odd) name (x]\n"));
  EXPECT_THAT(ProcessText(data_), Not(HasSubstr("ended meanwhile")));
}

TEST_F(SystemReportFilesTest, NetworkFileSystemsAreNotAsked) {
  WriteText(data_ / "self/mounts", "server:/x /mnt\\040x nfs4 rw 0 0\n/dev/a / ext4 rw 0 0\n");
  EXPECT_THAT(DiskText(data_), HasSubstr("/mnt x nfs4 not asked\n"));
  EXPECT_THAT(DiskText(data_), HasSubstr("/dev/a ext4 "));
}

}  // namespace
}  // namespace TARVO::SupportForm
