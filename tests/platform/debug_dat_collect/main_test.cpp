/// The program as people and as the library start it, in a sandbox in which the device's folders are the test's.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "file_util.h"
#include "hand_over.h"
#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class CollectProgramTest : public SupportLogTest {
 protected:
  /// Runs a script for bash in a session of its own, which a task gives its priority, in which "collect" is the
  /// program, "out" this test's folder and "described" the device's folder of descriptions; the first command that
  /// fails ends it. Fails the test then.
  void RunInSandbox(const std::string& script) const {
    WriteText(folder_ / "script",
              "set -e\ncollect() { '" PROGRAM_PATH "' \"$@\"; }\nout=" + folder_.string() +
                  "\ndescribed=/usr/tarvo/etc/support_form_log.d\nmkdir -p $described\n" + script);
    const std::string command = "setsid -w timeout 120 '" SANDBOX_PATH "' --keep " + folder_.string() +
                                " bash " + (folder_ / "script").string() + " >" +
                                (folder_ / "printed").string() + " 2>&1";
    ASSERT_EQ(system(command.c_str()), 0) << ReadText(folder_ / "printed");
  }
};

/// The lines of a text, each parsed as JSON.
std::vector<Json::Value> JsonLines(const std::string& text) {
  std::vector<Json::Value> values;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) values.push_back(ParseJson(line));
  return values;
}

TEST_F(CollectProgramTest, PeopleGetTheVeryArchiveThatATicketGetsAndItsListBeforehand) {
  WriteText(data_ / "planted.log", LogWithPlantedSecrets());
  WriteText(folder_ / "demo.json",
            R"({"paths": [")" + data_.string() +
                R"(", "/etc/passwd"], "commands": [{"argv": ["pwd"]}, {"argv": ["env"]},
                                       {"argv": ["cat", ")" +
                (data_ / "planted.log").string() + R"("]}]})");
  RunInSandbox(
      "cp $out/demo.json $described\n"
      "mkdir $out/elsewhere\n"
      "cd $out/elsewhere\n"
      "PATH=/usr/bin:/bin collect --apps demo,unknown --dry-run >$out/list\n"
      "LEFT_OVER=1 collect --apps demo,unknown --out ../people.dat\n"
      "task=/var/lib/tarvo/support_form_log/0123456789abcdef0123456789abcdef\n"
      "mkdir -p $task\n"
      "exec 3>$task/lock\n"
      "echo '[\"demo\", \"unknown\"]' | '" PROGRAM_PATH
      "' --task ${task##*/}\n"
      "cp $task/debug.dat $out/ticket.dat\n"
      "cp /var/log/debug_dat_collect.log $out/audit.log\n");

  const ArchiveContent people = ReadArchive(folder_ / "people.dat");
  const ArchiveContent ticket = ReadArchive(folder_ / "ticket.dat");
  EXPECT_EQ(people.Names(), ticket.Names());
  EXPECT_EQ(people.Errors(), ticket.Errors());
  const std::string list = ReadText(folder_ / "list");
  for (const auto& [name, content] : ticket.entries) {
    EXPECT_EQ(content.find(kPlantedSecret), std::string::npos) << name;
    if (name.rfind("apps/", 0) != 0) continue;
    EXPECT_EQ(people.Of(name), content) << name;
    EXPECT_THAT(list, HasSubstr("  " + name + "  ("));
  }
  EXPECT_EQ(ticket.Of("apps/demo/commands/01-pwd.txt"), "/\n");
  EXPECT_EQ(ticket.Of("apps/demo/commands/02-env.txt").find("LEFT_OVER"), std::string::npos);
  EXPECT_GE(ticket.Record("apps/demo/commands/03-cat.txt")["redacted"].asUInt64(), kPlantedForms);
  EXPECT_THAT(list, HasSubstr("left out  apps/unknown: "));

  const std::vector<Json::Value> audit = JsonLines(ReadText(folder_ / "audit.log"));
  ASSERT_EQ(audit.size(), 2U);
  EXPECT_EQ(audit[0]["for"], "command line");
  EXPECT_EQ(audit[0]["sha256"], Sha256Of(ReadText(folder_ / "people.dat")));
  EXPECT_EQ(audit[1]["for"], "ticket");
  EXPECT_EQ(audit[1]["sha256"], Sha256Of(ReadText(folder_ / "ticket.dat")));
}

TEST_F(CollectProgramTest, ItsUsersOtherProcessesCannotLookIntoItsMemory) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can run it as another user than itself";
  WriteText(folder_ / "demo.json", R"({"commands": [
      {"argv": ["sh", "-c", "cat /proc/$PPID/environ 2>&1 && echo open"]},
      {"argv": ["cat", "/proc/self/oom_score_adj"]}]})");
  RunInSandbox(
      "cp $out/demo.json $described\n"
      "chmod 777 $out\n"
      "as_user() { setpriv --reuid 65534 --regid 65534 --clear-groups \"$@\"; }\n"
      "as_user '" PROGRAM_PATH
      "' --apps demo --out $out/people.dat\n"
      "task=/var/lib/tarvo/support_form_log/0123456789abcdef0123456789abcdef\n"
      "mkdir -p $task\n"
      "exec 3>$task/lock\n"
      "chown -R 65534 /var/lib/tarvo\n"
      "echo '[\"demo\"]' | as_user '" PROGRAM_PATH
      "' --task ${task##*/}\n"
      "cp $task/debug.dat $out/ticket.dat\n");
  for (const char* name : {"people.dat", "ticket.dat"}) {
    EXPECT_THAT(ReadArchive(folder_ / name).Of("apps/demo/commands/01-sh.txt"),
                HasSubstr("Permission denied"));
  }
  EXPECT_EQ(ReadArchive(folder_ / "ticket.dat").Of("apps/demo/commands/02-cat.txt"), "1000\n");
}

TEST_F(CollectProgramTest, TaskOfAConnectionIsThatOfATicket) {
  WriteText(folder_ / "demo.json", R"({"commands": [{"argv": ["pwd"]}, {"argv": ["env"]}, {"argv": ["nice"]},
      {"argv": ["cat", "/proc/self/oom_score_adj"]}]})");
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const UniqueFd here(ends[0]);
  UniqueFd there(ends[1]);
  ASSERT_EQ(fcntl(here.get(), F_SETFD, FD_CLOEXEC), 0);
  const std::int64_t deadline_ms = MonotonicMs() + 120'000;
  ASSERT_TRUE(SendMessage(here.get(), R"(["demo"])", -1, deadline_ms));
  // Also as its output and its error, as a service manager gives it that is not told otherwise.
  const std::string number = std::to_string(there.get());
  RunInSandbox(
      "cp $out/demo.json $described\n"
      "cd $out\n"
      "LEFT_OVER=1 collect --connection <&" +
      number + " >&" + number + " 2>&" + number +
      "\n"
      "cd /var/lib/tarvo/support_form_log\n"
      "stat -c %a . >$out/mode\n"
      "cp */debug.dat $out/ticket.dat\n"
      "cp /var/log/debug_dat_collect.log $out/audit.log\n");
  there.Close();
  Message answer;
  ASSERT_TRUE(ReceiveMessage(here.get(), 4096, deadline_ms, answer));
  const std::string task = ParseJson(answer.text)["task_id"].asString();
  EXPECT_EQ(ParseJson(ReadText(folder_ / "audit.log"))["task_id"].asString(), task);
  EXPECT_EQ(ReadText(folder_ / "mode"), "750\n");
  const ArchiveContent archive = ReadArchive(folder_ / "ticket.dat");
  EXPECT_EQ(archive.ManifestJson()["task_id"].asString(), task);
  EXPECT_EQ(archive.Of("apps/demo/commands/01-pwd.txt"), "/\n");
  EXPECT_EQ(archive.Of("apps/demo/commands/02-env.txt").find("LEFT_OVER"), std::string::npos);
  EXPECT_EQ(archive.Of("apps/demo/commands/03-nice.txt"), "19\n");
  EXPECT_EQ(archive.Of("apps/demo/commands/04-cat.txt"), "1000\n");
}

TEST_F(CollectProgramTest, TestersSessionKeepsItsPriority) {
  if (!fs::exists("/proc/self/autogroup")) GTEST_SKIP() << "no groups of sessions here";
  RunInSandbox("cat /proc/self/autogroup >$out/group\n");
  const CallerProcess process([] { return ReadText("/proc/self/autogroup"); });
  for (const std::string& group : {ReadText(folder_ / "group"), process.Answer()}) {
    EXPECT_THAT(group, StartsWith("/autogroup-"));
    EXPECT_NE(group.substr(0, group.find(' ')), ReadText("/proc/self/autogroup").substr(0, group.find(' ')));
  }
}

TEST_F(CollectProgramTest, ReadyDescriptionIsEnabledCollectedAndDisabled) {
  const std::string secret = "s3cret-of-a-ticket";
  WriteText(folder_ / "debug.log", "received {\"apps\":[\"mail\"],\"token\":\"" + secret + "\"}\n");
  RunInSandbox(
      "mount -t tmpfs -o mode=755 tmpfs /usr/local\n"
      "mkdir -p /usr/local/share/tarvo\n"
      "cp -r '" READY_DESCRIPTIONS
      "' /usr/local/share/tarvo/descriptions\n"
      "chmod -R go-w /usr/local/share/tarvo\n"
      "rm -rf $described\n"
      "cp $out/debug.log /var/log/debug_dat_transmitter.log\n"
      "collect --enable debug_dat_transmitter >$out/enabled\n"
      "collect --list >$out/list\n"
      "collect --apps debug_dat_transmitter --out $out/daemon.dat\n"
      "collect --disable debug_dat_transmitter >$out/disabled\n"
      "! collect --enable nothing 2>$out/failed\n"
      "collect --apps debug_dat_transmitter --dry-run >$out/gone\n");
  EXPECT_EQ(ReadText(folder_ / "enabled"), "debug_dat_transmitter: enabled\n");
  EXPECT_THAT(ReadText(folder_ / "list"), HasSubstr("\nenabled      debug_dat_transmitter   This daemon: "));
  EXPECT_THAT(ReadText(folder_ / "list"), HasSubstr("\navailable    wireguard "));
  EXPECT_EQ(ReadText(folder_ / "disabled"), "debug_dat_transmitter: disabled\n");
  EXPECT_THAT(ReadText(folder_ / "failed"), HasSubstr("nothing: there is no ready description "));
  EXPECT_THAT(ReadText(folder_ / "gone"), HasSubstr("unknown application"));

  const ArchiveContent archive = ReadArchive(folder_ / "daemon.dat");
  const std::string log = archive.Of("apps/debug_dat_transmitter/files/var/log/debug_dat_transmitter.log");
  EXPECT_EQ(log, "received {\"apps\":[\"mail\"],\"token\":\"" + std::string(secret.size(), '*') + "\"}\n");
}

TEST_F(CollectProgramTest, WrongCommandLineAndFailureHaveTheirExitStatus) {
  RunInSandbox(
      "touch $out/there\n"
      "collect --apps '' 2>$out/none || status=$?\n"
      "[ $status = 2 ]\n"
      "collect --apps '' --out $out/there 2>$out/why || status=$?\n"
      "[ $status = 1 ]\n"
      "! collect --task 0123456789abcdef0123456789abcdef </dev/null 3>&- 2>$out/no_lock\n"
      "! collect --connection </dev/null 2>$out/no_connection\n"
      "! echo '{' | '" PROGRAM_PATH
      "' --task 0123456789abcdef0123456789abcdef 3>$out/lock 2>$out/no_list\n"
      "[ ! -e /var/log/debug_dat_collect.log ]\n");
  EXPECT_THAT(ReadText(folder_ / "none"), HasSubstr("--out FILE"));
  EXPECT_THAT(ReadText(folder_ / "why"), HasSubstr("there can't be written: File exists; remove it"));
  EXPECT_THAT(ReadText(folder_ / "no_lock"), HasSubstr("only the library starts a task"));
  EXPECT_THAT(ReadText(folder_ / "no_connection"), HasSubstr("standard input is no connection"));
  EXPECT_THAT(ReadText(folder_ / "lock"), HasSubstr("standard input holds no JSON array"));
}

}  // namespace
}  // namespace TARVO::SupportForm
