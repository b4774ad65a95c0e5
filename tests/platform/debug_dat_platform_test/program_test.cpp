/// The program on platforms that fit, and on such that are broken in one way each.
#include "program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "scripted_server.h"

namespace {

namespace fs = std::filesystem;
using test_support::Environment;
using test_support::Program;
using test_support::TemporaryFolder;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr int kFine = 0;
constexpr int kFaultFound = 1;
constexpr int kUsageError = 2;

/// Runs the command "$@" with folders for temporary files of its own, in which nobody else makes a file. Lists what it
/// leaves there. They cover the machine's, but for the folders that are needed, should these lie below them.
constexpr char kRunAlone[] = R"(set -e
unset TMPDIR
needed=("$1" "$2")
left=$1/left
shift 2
for folder in /tmp /var/tmp; do
  cover=$(mktemp -d /run/cover.XXXXXX)
  mount -t tmpfs -o mode=1777 tmpfs "$cover"
  for path in "${needed[@]}"; do
    case $path in "$folder"/*) ;; *) continue ;; esac
    mkdir -p "$cover${path#"$folder"}"
    mount --rbind "$path" "$cover${path#"$folder"}"
  done
  mount --rbind "$cover" "$folder"
done
list() { find /tmp /var/tmp -mindepth 1 -maxdepth 1 | sort; }
before=$(list)
status=0
"$@" || status=$?
comm -13 <(echo "$before") <(list) >"$left"
exit "$status")";

class PlatformProgramTest : public testing::Test {
 protected:
  int Run(const std::vector<std::string>& command, const Environment& extra = {}) {
    Program program(command, (scratch_.path() / "output").string(), extra);
    const int status = program.Wait();
    output_ = program.Output();
    return status;
  }

  /// The same in a sandbox with folders for temporary files of its own. What was left in them is in `left_`.
  int RunAlone(const std::vector<std::string>& command, const Environment& extra = {}) {
    std::vector<std::string> all = {SANDBOX_PATH, "bash",          "-c",        kRunAlone,
                                    "run alone",  scratch_.path(), BUILD_FOLDER};
    all.insert(all.end(), command.begin(), command.end());
    const int status = Run(all, extra);
    left_ = scratch_.Read("left");
    return status;
  }

  /// The lines of that state, each from its name on.
  [[nodiscard]] std::vector<std::string> Lines(const std::string& state) const {
    std::vector<std::string> lines;
    std::istringstream text(output_);
    for (std::string line; std::getline(text, line);) {
      if (line.rfind(state + " ", 0) == 0) lines.push_back(line.substr(9));
    }
    return lines;
  }

  /// The names of the checks in that state.
  [[nodiscard]] std::vector<std::string> Names(const std::string& state) const {
    std::vector<std::string> names = Lines(state);
    for (std::string& name : names) name.resize(name.find(' '));
    return names;
  }

  TemporaryFolder scratch_;
  std::string output_;
  std::string left_ = "not looked";
};

TEST_F(PlatformProgramTest, HostPlatformFits) {
  EXPECT_EQ(Run({PROGRAM_PATH, HOST_FOLDER}), kFine) << output_;
  EXPECT_THAT(Names("FAILED"), IsEmpty());
  EXPECT_THAT(Names("skipped"), ElementsAre("logger-log", "ticket")) << output_;
}

TEST_F(PlatformProgramTest, HostPlatformFitsWithItsLoggerOn) {
  const std::string command =
      "mkdir -p /usr/tarvo/etc && touch /usr/tarvo/etc/debug_dat_transmitter.debug && exec " +
      std::string(PROGRAM_PATH) + " " + HOST_FOLDER;
  EXPECT_EQ(Run({SANDBOX_PATH, "sh", "-c", command}), kFine) << output_;
  EXPECT_THAT(Names("FAILED"), IsEmpty());
  EXPECT_THAT(Names("skipped"), ElementsAre("ticket")) << output_;
}

TEST_F(PlatformProgramTest, HostPlatformTakesATicket) {
  TarvoOrvane::Testing::ScriptedServer server;
  std::shared_ptr<TarvoOrvane::Testing::Session> session;  // it stays open: the program ends it
  std::thread service([&] {
    session = server.AwaitSession();
    if (session == nullptr) return;
    session->Deliver("t-1", R"({"token": "the-token", "apps": ["mail"]})");
    const auto answer = session->AwaitAnswer();
    EXPECT_TRUE(answer.has_value() && answer->status() == tarvo::support::v1::CLIENT_STATUS_REJECTED);
  });
  EXPECT_EQ(Run({PROGRAM_PATH, HOST_FOLDER, "--ticket-from", server.url()}), kFine) << output_;
  service.join();
  EXPECT_THAT(Names("skipped"), ElementsAre("logger-log")) << output_;
}

TEST_F(PlatformProgramTest, TemplateFits) {
  EXPECT_EQ(Run({PROGRAM_PATH, TEMPLATE_FOLDER}), kFine) << output_;
  EXPECT_THAT(Names("FAILED"), IsEmpty());
  EXPECT_THAT(Names("skipped"), ElementsAre("logger-log", "ticket")) << output_;
}

TEST_F(PlatformProgramTest, CallersProxyIsNotAsked) {
  EXPECT_EQ(Run({"env", "http_proxy=http://127.0.0.1:9", PROGRAM_PATH, TEMPLATE_FOLDER}), kFine) << output_;
}

/// Copies what an ordinary user may not find where it was built.
TEST_F(PlatformProgramTest, TemplateFitsForAnOrdinaryUser) {
  fs::copy(TEMPLATE_FOLDER, scratch_.path() / "template");
  fs::copy(PROGRAM_PATH, scratch_.path() / "program");
  fs::permissions(scratch_.path(), fs::perms(0755));
  std::vector<std::string> command = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  if (geteuid() != 0) command.clear();
  command.push_back(scratch_.path() / "program");
  command.push_back(scratch_.path() / "template");
  EXPECT_EQ(Run(command), kFine) << output_;
  EXPECT_THAT(Names("FAILED"), IsEmpty()) << output_;
}

TEST_F(PlatformProgramTest, LeavesNoFileBehind) {
  EXPECT_EQ(RunAlone({PROGRAM_PATH, TEMPLATE_FOLDER}), kFine) << output_;
  EXPECT_EQ(left_, "");
}

TEST_F(PlatformProgramTest, FileThatIsLeftWouldBeSeen) {
  EXPECT_EQ(RunAlone({"touch", "/tmp/a", "/var/tmp/b"}), 0) << output_;
  EXPECT_EQ(left_, "/tmp/a\n/var/tmp/b\n");
}

TEST_F(PlatformProgramTest, RefusesWrongUsage) {
  EXPECT_EQ(Run({PROGRAM_PATH}), kUsageError);
  EXPECT_EQ(Run({PROGRAM_PATH, "/nowhere"}), kUsageError);
  EXPECT_EQ(Run({PROGRAM_PATH, HOST_FOLDER, "--deadline", "0"}), kUsageError);
}

#ifdef HAS_BROKEN_PLATFORMS

/// A platform whose libraries come from folders below BROKEN_FOLDER.
struct Platform {
  std::string core = "at_run_time";
  std::string client = "at_run_time";
  std::string runner = "at_run_time";
};

/// One fault, and the one line that tells of it.
struct Row {
  std::string fault;  ///< What BROKEN is set to.
  std::string line;
  Platform platform = {};
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.fault; }

/// The fault's words, or the folders that the libraries come from.
std::string NameOf(const testing::TestParamInfo<Row>& info) {
  const Row& row = info.param;
  const std::string words = row.fault.empty()
                                ? row.platform.core + ' ' + row.platform.client + ' ' + row.platform.runner
                                : row.fault;
  std::string name;
  bool begins_word = true;
  for (const char c : words) {
    const bool is_letter = std::isalnum(static_cast<unsigned char>(c)) != 0;
    if (is_letter) name += begins_word ? static_cast<char>(std::toupper(c)) : c;
    begins_word = !is_letter && c != '\'';
  }
  return name;
}

class BrokenPlatformTest : public PlatformProgramTest, public testing::WithParamInterface<Row> {
 protected:
  /// Lays the libraries out in a folder; one whose folder is "" is left out.
  std::string LaidOut(const Platform& platform) {
    const fs::path folder = scratch_.path() / "platform";
    fs::create_directory(folder);
    const auto add = [&](const std::string& from, const char* name) {
      if (!from.empty()) fs::create_symlink(fs::path(BROKEN_FOLDER) / from / name, folder / name);
    };
    add(platform.core, "libtarvocore.so");
    add(platform.client, "libtarvoorvane.so");
    add(platform.runner, "libwebapi-Pelk5.so");
    return folder.string();
  }
};

TEST_P(BrokenPlatformTest, FailsByOneLine) {
  std::vector<std::string> command = {PROGRAM_PATH, LaidOut(GetParam().platform)};
  if (GetParam().line == "ticket") command.insert(command.end(), {"--ticket-from", "a ticket"});
  EXPECT_EQ(Run(command, {{"BROKEN", GetParam().fault}}), kFaultFound) << output_;
  EXPECT_THAT(Names("FAILED"), ElementsAre(GetParam().line)) << output_;
  EXPECT_THAT(output_, HasSubstr(" ok, 1 FAILED, "));
}

TEST_F(BrokenPlatformTest, NoneOfThemIsBrokenWithoutAWord) {
  EXPECT_EQ(Run({PROGRAM_PATH, LaidOut({}), "--ticket-from", "a ticket"}), kFine) << output_;
  EXPECT_THAT(Names("skipped"), IsEmpty()) << output_;
}

TEST_F(BrokenPlatformTest, LibraryThatRefusesLinksFits) {
  EXPECT_EQ(Run({PROGRAM_PATH, LaidOut({})}, {{"BROKEN", "form refuses a link"}}), kFine) << output_;
}

// On a busy machine others may miss the short limit, too; it is that line alone wherever the machine keeps up.
TEST_F(BrokenPlatformTest, HangIsOneFailedLineAndNotTheEnd) {
  const Environment fault = {{"BROKEN", "file hangs for the empty path"}};
  EXPECT_EQ(Run({PROGRAM_PATH, LaidOut({}), "--deadline", "2"}, fault), kFaultFound) << output_;
  EXPECT_THAT(Lines("FAILED"), Not(IsEmpty()));
  EXPECT_THAT(Lines("FAILED"), testing::Each(HasSubstr("it had not returned after 2"))) << output_;
  EXPECT_THAT(output_, HasSubstr("api-status"));
}

// A library that hangs is ended by a short limit, which others may miss on a busy machine.
TEST_F(BrokenPlatformTest, LeavesNoFileBehindWhereItHasNoNamespaces) {
  if (geteuid() != 0) GTEST_SKIP() << "an ordinary user can't give up making namespaces";
  const std::string folder = LaidOut({});
  const auto run = [&](const std::string& deadline, const std::string& fault) {
    EXPECT_EQ(RunAlone({"setpriv", "--bounding-set=-sys_admin", PROGRAM_PATH, folder, "--deadline", deadline},
                       {{"BROKEN", fault}}),
              kFaultFound)
        << output_;
    EXPECT_THAT(output_, HasSubstr("making namespaces failed"));
    EXPECT_EQ(left_, "") << fault;
  };
  for (const auto& [fault, line] :
       std::map<std::string, std::string>{{"form forgets its last part", "form-parts"},
                                          {"form crashes", "form-parts"},
                                          {"pid file's failure is a crash", "pid-file-failure"}}) {
    run("30", fault);
    EXPECT_THAT(Names("FAILED"), ElementsAre(line)) << output_;
  }
  run("2", "file hangs for the empty path");
  EXPECT_THAT(Names("FAILED"), testing::Contains("file-missing")) << output_;
}

TEST_F(BrokenPlatformTest, WhatNeedsAMissingSymbolIsSkipped) {
  EXPECT_EQ(Run({PROGRAM_PATH, LaidOut({"missing_symbol", "at_run_time", "at_run_time"})}), kFaultFound);
  EXPECT_THAT(Lines("FAILED"), ElementsAre(HasSubstr("libtarvocore.so lacks TLIBCFileExist(). Define each")));
  EXPECT_THAT(Names("skipped"), ElementsAre("file-exists", "file-missing", "file-unlinked", "ticket"));
}

TEST_F(BrokenPlatformTest, FileThatIsNoLibraryIsOneFailedLine) {
  const std::string folder = LaidOut({"", "at_run_time", "at_run_time"});
  test_support::WriteFile(folder + "/libtarvocore.so", "no library");
  EXPECT_EQ(Run({PROGRAM_PATH, folder}), kFaultFound);
  EXPECT_THAT(Names("FAILED"), ElementsAre("tarvocore-load")) << output_;
}

INSTANTIATE_TEST_SUITE_P(
    AsFiles, BrokenPlatformTest,
    testing::Values(Row{"", "tarvocore-load", {"", "at_run_time", "at_run_time"}},
                    Row{"constructor aborts", "tarvocore-load"},
                    Row{"", "tarvocore-soname", {"other_soname", "at_run_time", "at_run_time"}},
                    Row{"", "tarvocore-soname", {"no_soname", "at_run_time", "at_run_time"}},
                    Row{"", "tarvocore-symbols", {"missing_symbol", "at_run_time", "at_run_time"}},
                    Row{"", "tarvocore-symbols", {"hidden_symbols", "at_run_time", "at_run_time"}},
                    Row{"", "tarvoorvane-load", {"at_run_time", "no_libcurl", "at_run_time"}},
                    Row{"", "tarvoorvane-symbols", {"at_run_time", "old_strings", "at_run_time"}},
                    Row{"", "serial-number", {"at_run_time", "value_before_flag", "at_run_time"}},
                    Row{"", "receive", {"at_run_time", "longer_result", "at_run_time"}},
                    Row{"", "ticket", {"at_run_time", "other_order", "at_run_time"}},
                    Row{"", "one-of-each", {"at_run_time", "at_run_time", "old_jsoncpp"}}),
    &NameOf);

INSTANTIATE_TEST_SUITE_P(
    Core, BrokenPlatformTest,
    testing::Values(
        Row{"fork gives the child its id", "fork"}, Row{"fork gives the parent 0", "fork"},
        Row{"fork twice", "fork"}, Row{"fork's failure is 0", "fork-refused"},
        Row{"fork-ex refuses the flags", "fork-ex"}, Row{"fork-ex gives the child 1", "fork-ex"},
        Row{"fork-ex's failure is errno", "fork-ex-refused"}, Row{"pid file of the parent", "pid-file"},
        Row{"pid file in letters", "pid-file"}, Row{"pid file's failure is 0", "pid-file-failure"},
        Row{"pid file's failure is a crash", "pid-file-failure"},
        Row{"pid file without a lock", "pid-file-second"},
        Row{"pid file emptied by the second", "pid-file-second"},
        Row{"pid file tells by its being there", "pid-file-dead"}, Row{"file exists is 2", "file-exists"},
        Row{"file exists for the empty path", "file-missing"}, Row{"file is remembered", "file-unlinked"}),
    &NameOf);

INSTANTIATE_TEST_SUITE_P(
    Client, BrokenPlatformTest,
    testing::Values(
        Row{"logger is none at start", "logger-at-start"},
        Row{"logger throws when asked again", "logger-reconfigure"},
        Row{"logger is none when asked again", "logger-reconfigure"},
        Row{"virtual destructor before Log", "logger-log"}, Row{"Log is second", "logger-log"},
        Row{"Log crashes", "logger-log"}, Row{"list's head is freed", "header-list"},
        Row{"list has the last line only", "header-list"}, Row{"list grows at its begin", "header-list"},
        Row{"list's lines are not copied", "header-list"}, Row{"list is not created", "header-list"},
        Row{"answer's last chunk is kept", "write-to-string"}, Row{"answer is a text", "write-to-string"},
        Row{"a missing handle is nothing", "write-to-string-failure"},
        Row{"a missing handle is a thrown number", "write-to-string-failure"},
        Row{"failed transfer is nothing", "perform-failure"},
        Row{"failed transfer is another exception", "perform-failure"},
        Row{"failed transfer loses its code", "perform-failure"},
        Row{"form's texts are not copied", "form-parts"}, Row{"form's file is read at once", "form-parts"},
        Row{"form forgets its last part", "form-parts"}, Row{"form leaves out what is empty", "form-parts"},
        Row{"form crashes", "form-parts"}, Row{"refused part is nothing", "form-refusal"},
        Row{"refused part is another exception", "form-refusal"},
        Row{"refused part takes the others along", "form-refusal"},
        Row{"serial number is empty", "serial-number"}, Row{"serial number throws", "serial-number"},
        Row{"no ticket and no failure", "receive"}, Row{"a ticket out of nothing", "receive"},
        Row{"ticket without a token", "ticket"}, Row{"answer fails", "ticket"}),
    &NameOf);

INSTANTIATE_TEST_SUITE_P(Runner, BrokenPlatformTest,
                         testing::Values(Row{"an unknown method throws", "api-unknown-method"},
                                         Row{"an error is a text", "api-unknown-method"},
                                         Row{"an error is no answer", "api-unknown-method"},
                                         Row{"an unknown task has succeeded", "api-unknown-task"},
                                         Row{"an unknown task ends the process", "api-unknown-task"},
                                         Row{"collect's success is 1", "api-collect"},
                                         Row{"collect's id is a number", "api-collect"},
                                         Row{"collect gives no data", "api-collect"},
                                         Row{"collect fails without applications", "api-collect"},
                                         Row{"status finished is a text", "api-status"},
                                         Row{"status gives no path", "api-status"},
                                         Row{"status gives a path to nothing", "api-status"},
                                         Row{"status gives a folder", "api-status"}),
                         &NameOf);

#endif

}  // namespace
