#include "command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

namespace TarvoOrvane::Supportctl {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

ParsedLine Line(std::vector<const char*> arguments) {
  unsetenv("SUPPORTCTL_DATA");
  arguments.insert(arguments.begin(), "supportctl");
  return ParseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

TEST(SupportctlLineTest, EachCommandIsKnownByItsWords) {
  struct Row {
    std::vector<const char*> words;
    Command command;
  };
  for (const Row& row : std::vector<Row>{
           {{"devices"}, Command::kDevices},
           {{"device", "enrol", "SN1", "--out", "f"}, Command::kEnrolDevice},
           {{"device", "show", "SN1"}, Command::kShowDevice},
           {{"device", "block", "SN1"}, Command::kBlockDevice},
           {{"device", "unblock", "SN1"}, Command::kUnblockDevice},
           {{"send", "--apps", "a"}, Command::kSend},
           {{"tickets"}, Command::kTickets},
           {{"show", "3f"}, Command::kShowTicket},
           {{"fetch", "3f"}, Command::kFetch},
           {{"follow"}, Command::kFollow},
           {{"cancel", "3f"}, Command::kCancel},
           {{"delete", "3f", "1"}, Command::kDeleteArchive},
           {{"users"}, Command::kUsers},
           {{"users", "add", "ada", "--role", "viewer"}, Command::kAddUser},
           {{"users", "change", "ada", "--password"}, Command::kChangeUser},
           {{"users", "remove", "ada"}, Command::kRemoveUser},
           {{"tokens"}, Command::kTokens},
           {{"tokens", "add", "night", "--role", "viewer"}, Command::kAddToken},
           {{"tokens", "remove", "1"}, Command::kRemoveToken},
           {{"audit"}, Command::kAudit},
           {{"settings"}, Command::kSettings},
           {{"whoami"}, Command::kWhoAmI},
       }) {
    const ParsedLine line = Line(row.words);
    EXPECT_TRUE(line.run) << row.words[0] << ": " << line.text;
    EXPECT_EQ(line.options.command, row.command) << row.words[0];
  }
}

TEST(SupportctlLineTest, CommonOptionsMayStandBeforeOrBehindTheCommand) {
  for (const auto& words :
       std::vector<std::vector<const char*>>{{"--data", "/d", "--json", "users", "remove", "ada"},
                                             {"users", "remove", "ada", "--json", "--data", "/d"}}) {
    const ParsedLine line = Line(words);
    ASSERT_TRUE(line.run) << line.text;
    EXPECT_EQ(line.options.data_folder, "/d");
    EXPECT_TRUE(line.options.json);
    EXPECT_EQ(line.options.name, "ada");
  }
}

TEST(SupportctlLineTest, FolderComesFromTheLineOrElseTheEnvironment) {
  EXPECT_EQ(Line({"whoami"}).options.data_folder, "support_service_data");
  setenv("SUPPORTCTL_DATA", "/of/environment", 1);
  const char* const plain[] = {"supportctl", "whoami"};
  EXPECT_EQ(ParseCommandLine(2, plain).options.data_folder, "/of/environment");
  const char* const named[] = {"supportctl", "whoami", "--data", "/d"};
  EXPECT_EQ(ParseCommandLine(4, named).options.data_folder, "/d");
  unsetenv("SUPPORTCTL_DATA");
}

TEST(SupportctlLineTest, SendTakesDevicesAppsAndTheRest) {
  const ParsedLine line =
      Line({"send", "SN1", "show", "--apps", "a,b c", "--note", "why", "--lifetime", "5"});
  ASSERT_TRUE(line.run) << line.text;
  EXPECT_THAT(line.options.devices, ElementsAre("SN1", "show")) << "also one that is called as a command is";
  EXPECT_THAT(line.options.apps, ElementsAre("a", "b c"));
  EXPECT_EQ(line.options.note, "why");
  EXPECT_EQ(line.options.lifetime_hours, 5U);
  EXPECT_FALSE(line.options.wait);
  EXPECT_THAT(Line({"send", "--apps", ""}).options.apps, IsEmpty());
}

TEST(SupportctlLineTest, WaitTakesItsSecondsOrDoesWithout) {
  const ParsedLine endless = Line({"send", "SN1", "--apps", "a", "--wait"});
  EXPECT_TRUE(endless.options.wait);
  EXPECT_FALSE(endless.options.wait_limit);
  EXPECT_EQ(Line({"send", "--wait", "7", "SN1", "--apps", "a"}).options.wait_limit, std::chrono::seconds(7));
  const ParsedLine fetch = Line({"send", "SN1", "--apps", "a", "--fetch", "f"});
  EXPECT_TRUE(fetch.options.wait) << "what is to be fetched has to come first";
  EXPECT_EQ(fetch.options.folder, "f");
}

TEST(SupportctlLineTest, WrongLinesAreExplainedWithStatus2) {
  struct Row {
    std::vector<const char*> words;
    const char* explanation;
  };
  for (const Row& row : std::vector<Row>{
           {{}, "subcommand"},
           {{"nonsense"}, "nonsense"},
           {{"send", "SN1"}, "--apps"},
           {{"send", "--apps", "a,,b"}, "--apps: a name is empty"},
           {{"send", "--apps", "a,"}, "--apps: a name is empty"},
           {{"send", "--apps", ","}, "--apps: a name is empty"},
           {{"send", "--apps", "a", "--wait", "0"}, "--wait"},
           {{"send", "--apps", "a", "--lifetime", "8761"}, "--lifetime"},
           {{"tickets", "--state", "lost"}, "queued"},
           {{"tickets", "--limit", "0"}, "--limit"},
           {{"show"}, "TICKET"},
           {{"show", "XYZ"}, "0-9 and a-f"},
           {{"show", ""}, "0-9 and a-f"},
           {{"show", "12345678901234567"}, "0-9 and a-f"},
           {{"delete", "3f", "0"}, "VERSION"},
           {{"device", "enrol", "SN1"}, "--out"},
           {{"users", "add", "ada"}, "--role"},
           {{"users", "add", "ada", "--role", "king"}, "viewer"},
           {{"users", "change", "ada"}, "--role or --password"},
           {{"users", "add", "ada", "--role", "viewer", "--password", "secret"}, "not expected"},
           {{"tokens", "add", "n", "--role", "viewer", "--days", "3651"}, "--days"},
           {{"--data", "", "whoami"}, "--data"},
           {{"--data", "/d", "--url", "https://h", "whoami"}, "--url"},
           {{"--token-file", "f", "whoami"}, "--url"},
           {{"--ca", "f", "whoami"}, "--url"},
           {{"--url", "http://h:1", "whoami"}, "https://HOST:PORT"},
           {{"--url", "https://", "whoami"}, "https://HOST:PORT"},
           {{"--url", "https://h/api", "whoami"}, "https://HOST:PORT"},
           {{"--url", "https://ada@h", "whoami"}, "https://HOST:PORT"},
       }) {
    const ParsedLine line = Line(row.words);
    EXPECT_FALSE(line.run) << row.explanation;
    EXPECT_EQ(line.exit_status, 2) << row.explanation;
    EXPECT_THAT(line.text, HasSubstr(row.explanation));
    EXPECT_THAT(line.text, HasSubstr("--help"));
  }
}

TEST(SupportctlLineTest, UrlMayEndWithASlash) {
  const ParsedLine line = Line({"--url", "https://h:8443/", "whoami"});
  ASSERT_TRUE(line.run) << line.text;
  EXPECT_EQ(line.options.url, "https://h:8443");
}

TEST(SupportctlLineTest, HelpOfEachCommandHasExamplesAndStatus0) {
  for (const auto& words : std::vector<std::vector<const char*>>{{"--help"},
                                                                 {"devices", "--help"},
                                                                 {"device", "--help"},
                                                                 {"device", "enrol", "--help"},
                                                                 {"send", "-h"},
                                                                 {"device", "block", "--help"},
                                                                 {"tickets", "--help"},
                                                                 {"show", "--help"},
                                                                 {"fetch", "-h"},
                                                                 {"follow", "--help"},
                                                                 {"cancel", "--help"},
                                                                 {"delete", "--help"},
                                                                 {"users", "-h"},
                                                                 {"users", "add", "--help"},
                                                                 {"tokens", "--help"},
                                                                 {"tokens", "add", "--help"},
                                                                 {"audit", "-h"},
                                                                 {"whoami", "--help"},
                                                                 {"users", "change", "-h"},
                                                                 {"users", "remove", "-h"}}) {
    const ParsedLine line = Line(words);
    EXPECT_FALSE(line.run);
    EXPECT_EQ(line.exit_status, 0) << words[0];
    EXPECT_THAT(line.text, HasSubstr("Examples:\n  supportctl "));
  }
}

TEST(SupportctlLineTest, VersionIsTold) {
  const ParsedLine line = Line({"--version"});
  EXPECT_EQ(line.exit_status, 0);
  EXPECT_THAT(line.text, ::testing::MatchesRegex("supportctl [0-9.]+\n"));
}

}  // namespace
}  // namespace TarvoOrvane::Supportctl
