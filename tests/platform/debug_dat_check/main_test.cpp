/// The program as an operator runs it, in a sandbox in which the device's files are the test's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <sstream>

#include "scripted_server.h"
#include "steerable_server.h"

namespace DebugDatCheck {
namespace {

using TarvoOrvane::Testing::ScriptedServer;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kProgram[] = PROGRAM_PATH;

/// Runs shell commands with a limit of time.
/// @return their exit status; what they print goes to `output`.
int RunShell(const std::string& commands, std::string& output) {
  FILE* pipe = popen(("timeout 30 " + commands).c_str(), "r");
  if (pipe == nullptr) return -1;
  std::array<char, 4096> chunk{};
  output.clear();
  for (std::size_t count = 0; (count = fread(chunk.data(), 1, chunk.size(), pipe)) > 0;) {
    output.append(chunk.data(), count);
  }
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Runs commands in a sandbox; the first that fails ends them.
int RunInSandbox(const std::string& commands, std::string& output) {
  return RunShell(std::string(SANDBOX_PATH) + " bash -ec '" + commands + "'", output);
}

TEST(CheckProgramTest, HealthyDeviceGivesExitStatusZeroAndIsLeftUnchanged) {
  const ScriptedServer notification;
  SteerableServer css({HttpAnswer("405 Method Not Allowed", ""), HttpAnswer("405 Method Not Allowed", "")});
  // Empty, or what others on this machine write there would show as changed.
  const std::string prepare =
      "for folder in /var /run; do mount -t tmpfs -o mode=755 tmpfs $folder; done; mkdir /var/lib /var/log;"
      "mkdir -p /usr/tarvo/etc/support_form_log.d; cd /usr/tarvo/etc; echo SN-1 >serial_number;"
      "echo {} >support_form_log.d/mail.json;"
      "echo \"{\\\"debug_dat_file_transmitter\\\": {\\\"grpc_server\\\": {\\\"url\\\": \\\"" +
      notification.url() + "\\\"}, \\\"css_server\\\": {\\\"url\\\": \\\"" + css.Url() +
      "\\\"}}}\" >tarvomibserver.conf; touch marker; sleep 0.1;";
  const std::string check = "report=$(" + std::string(kProgram) + " --json);";
  const std::string show_changes = "find /usr/tarvo /var /run -xdev -newer marker;";
  std::string output;

  ASSERT_EQ(RunInSandbox(prepare + check + show_changes + "echo \"$report\"", output), 0) << output;

  EXPECT_THAT(output, StartsWith("{"));  // no changed file was listed
  Json::Value report;
  std::istringstream(output) >> report;
  EXPECT_TRUE(report["ok"].asBool());
  EXPECT_THAT(report["checks"][5]["text"].asString(), StartsWith("opens"));
  EXPECT_EQ(report["checks"][8]["text"].asString(), "SN-1, from /usr/tarvo/etc/serial_number");
}

TEST(CheckProgramTest, UnconfiguredDeviceGivesItsExitStatusAndALineForEachCheck) {
  std::string output;
  EXPECT_EQ(RunInSandbox(
                "mkdir -p /usr/tarvo/etc; echo SN1 >/usr/tarvo/etc/serial_number; " + std::string(kProgram),
                output),
            3);
  EXPECT_THAT(output,
              StartsWith("problem  configuration         /usr/tarvo/etc/tarvomibserver.conf can't be read"));
  EXPECT_THAT(output, HasSubstr("\nskipped  CSS server"));
  EXPECT_THAT(output, HasSubstr("\n\n1 problem, 2 warnings, 6 checks skipped\n"));
}

TEST(CheckProgramTest, ReadOnlyFileSystemForArchivesIsAProblem) {
  std::string output;
  EXPECT_EQ(RunInSandbox("mkdir -p /var/lib/tarvo; mount -t tmpfs -o ro tmpfs /var/lib/tarvo; " +
                             std::string(kProgram),
                         output),
            1);
  EXPECT_THAT(output,
              HasSubstr("problem  free space            /var/lib/tarvo is on a read-only file system"));
}

TEST(CheckProgramTest, StatusIsOneLine) {
  std::string output;
  EXPECT_EQ(
      RunInSandbox("echo 1 >/run/kestrix_debug_dat_transmitter.pid; " + std::string(kProgram) + " --status",
                   output),
      6);
  EXPECT_THAT(output, StartsWith("not working: does not run"));
  EXPECT_EQ(output.find('\n'), output.size() - 1) << output;
}

TEST(CheckProgramTest, WrongUsageGivesExitStatusTwo) {
  std::string output;
  EXPECT_EQ(RunShell(std::string(kProgram) + " --frob 2>&1", output), 2);
  EXPECT_THAT(output, HasSubstr("--frob"));
}

TEST(CheckProgramTest, HelpTellsTheExitStatuses) {
  std::string output;
  EXPECT_EQ(RunShell(std::string(kProgram) + " --help", output), 0);
  EXPECT_THAT(output, HasSubstr("Exit status: 0 no problem"));
}

}  // namespace
}  // namespace DebugDatCheck
