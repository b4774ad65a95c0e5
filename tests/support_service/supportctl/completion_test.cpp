/// packaging/completions/supportctl, in bash as people use it, with the real program behind it.
#include <algorithm>
#include <iterator>
#include <sstream>

#include "program.h"
#include "supportctl_fixture.h"

namespace TarvoOrvane::Supportctl {
namespace {

using test_support::Program;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class SupportctlCompletionTest : public SupportctlFixture {
 protected:
  /// What bash offers when the cursor stands at the end of this line.
  std::vector<std::string> Complete(const std::string& line) {
    const std::string program = SUPPORTCTL_PROGRAM;
    const std::string script =
        "set -u; . \"$0\"; PATH=\"$1:$PATH\"; COMP_LINE=$2; COMP_POINT=${#2}\n"
        "_supportctl; [ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\\n' \"${COMPREPLY[@]}\"";
    Program bash({"bash", "-c", script, COMPLETION_FILE, program.substr(0, program.rfind('/')), line},
                 temp_.File("bash.out"), {{"SUPPORTCTL_DATA", data_}});
    EXPECT_EQ(bash.Wait(), 0) << bash.Output();
    std::istringstream lines(bash.Output());
    std::vector<std::string> offered;
    for (std::string one; std::getline(lines, one);) offered.push_back(one);
    return offered;
  }
};

TEST_F(SupportctlCompletionTest, CommandsAreOffered) {
  EXPECT_THAT(
      Complete("supportctl "),
      UnorderedElementsAre("devices", "device", "send", "tickets", "show", "fetch", "follow", "cancel",
                           "delete", "users", "tokens", "audit", "settings", "backup", "check", "whoami"));
  EXPECT_THAT(Complete("supportctl dev"), ElementsAre("devices", "device"));
  EXPECT_THAT(Complete("supportctl --json device "), ElementsAre("enrol", "show", "block", "unblock"));
  EXPECT_THAT(Complete("supportctl users "), ElementsAre("add", "change", "remove"));
  EXPECT_THAT(Complete("supportctl --data x tok"), ElementsAre("tokens"));
}

TEST_F(SupportctlCompletionTest, EachOfferedCommandIsKnownToTheProgram) {
  for (const std::string group : {"", "device ", "users ", "tokens "}) {
    for (const std::string& command : Complete("supportctl " + group)) {
      std::istringstream words(group + command + " --help");
      EXPECT_EQ(RunAsGiven({std::istream_iterator<std::string>(words), {}}).status, 0) << group << command;
    }
  }
}

TEST_F(SupportctlCompletionTest, OptionsAreThoseOfTheProgramsHelp) {
  for (const std::string command :
       {"",          "devices",      "device enrol", "device show", "send",       "tickets",
        "show",      "fetch",        "follow",       "cancel",      "delete",     "users",
        "users add", "users change", "users remove", "tokens",      "tokens add", "tokens remove",
        "audit",     "settings",     "backup",       "check",       "whoami"}) {
    std::istringstream words(command + " --help");
    std::istringstream help(RunAsGiven({std::istream_iterator<std::string>(words), {}}).out);
    std::vector<std::string> expected = {"--help", "--data", "--url", "--token-file", "--ca", "--json"};
    for (std::string line; std::getline(help, line);) {
      if (line.rfind("  --", 0) == 0) expected.push_back(line.substr(2, line.find(' ', 2) - 2));
    }
    std::sort(expected.begin(), expected.end());
    expected.erase(std::unique(expected.begin(), expected.end()), expected.end());
    EXPECT_THAT(Complete("supportctl " + command + (command.empty() ? "-" : " -")),
                ::testing::UnorderedElementsAreArray(expected))
        << command;
  }
}

TEST_F(SupportctlCompletionTest, RolesAndStatesAreOffered) {
  EXPECT_THAT(Complete("supportctl users add ada --role "), ElementsAre("viewer", "support", "admin"));
  EXPECT_THAT(Complete("supportctl tickets --state re"), ElementsAre("reported", "refused"));
  EXPECT_EQ(Complete("supportctl tickets --state ").size(), 9U);
}

TEST_F(SupportctlCompletionTest, SerialNumbersComeFromTheService) {
  server_.On("GET", "/devices?beginning=S&limit=1000",
             {Answers(ListJson("devices", {DeviceJson("SN1"), DeviceJson("SN two"), DeviceJson("S\"N")}))});
  EXPECT_THAT(Complete("supportctl device show S"), ElementsAre("SN\\ two", "SN1"));
  EXPECT_THAT(Complete("supportctl send --apps a,b S"), ElementsAre("SN\\ two", "SN1"));
  EXPECT_THAT(Complete("supportctl tickets --device S"), ElementsAre("SN\\ two", "SN1"));
  EXPECT_THAT(Complete("supportctl device show SN1 S"), IsEmpty()) << "it takes one";
}

TEST_F(SupportctlCompletionTest, SerialNumberWithColonsIsCompletedBehindTheLast) {
  server_.On("GET", "/devices?beginning=00%3a1&limit=1000",
             {Answers(ListJson("devices", {DeviceJson("00:1a:2b")}))});
  EXPECT_THAT(Complete("supportctl device block 00:1"), ElementsAre("1a:2b"));
}

TEST_F(SupportctlCompletionTest, TicketsVersionsUsersAndTokensComeFromTheService) {
  server_.On("GET", "/tickets?limit=200",
             {Answers(ListJson("tickets", {TicketJson(), TicketJson("queued", "ab00000000000002")}))});
  EXPECT_THAT(Complete("supportctl cancel 3"), ElementsAre("3f9a000000000001"));
  EXPECT_THAT(Complete("supportctl follow "), ElementsAre("3f9a000000000001", "ab00000000000002"));
  Json::Value ticket = TicketJson("uploaded");
  ticket["archives"].append(ArchiveJson(2, "x"));
  ticket["archives"].append(ArchiveJson(11, "y"));
  server_.On("GET", "/tickets/3f", {Answers(ticket)});
  server_.On("GET", "/tickets/3f9a000000000001/events?limit=1000", {Answers(ListJson("events", {}))});
  EXPECT_THAT(Complete("supportctl delete 3f "), ElementsAre("2", "11"));
  EXPECT_THAT(Complete("supportctl fetch 3f --version "), ElementsAre("2", "11"));
  Json::Value user;
  user["name"] = "ada";
  server_.On("GET", "/users", {Answers(ListJson("users", {user}))});
  EXPECT_THAT(Complete("supportctl users remove "), ElementsAre("ada"));
  Json::Value token;
  token["id"] = "1f6c";
  server_.On("GET", "/tokens", {Answers(ListJson("tokens", {token}))});
  EXPECT_THAT(Complete("supportctl tokens remove "), ElementsAre("1f6c"));
}

TEST_F(SupportctlCompletionTest, FoldersOfTheLineAreAsked) {
  ApiServer other(std::filesystem::path(temp_.File("other")) / "control.sock");
  other.On("GET", "/devices?limit=1000", {Answers(ListJson("devices", {DeviceJson("elsewhere")}))});
  EXPECT_THAT(Complete("supportctl --data " + temp_.File("other") + " device show "),
              ElementsAre("elsewhere"));
  EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(SupportctlCompletionTest, ServiceThatCannotBeReachedOffersNothingQuietly) {
  EXPECT_THAT(Complete("supportctl --data " + temp_.File("nowhere") + " device show "), IsEmpty());
  EXPECT_THAT(Complete("supportctl users remove "), IsEmpty()) << "a refusal is no name either";
}

TEST_F(SupportctlCompletionTest, FilesAreOfferedForFoldersAndFiles) {
  WriteFile(temp_.File("some/file"), "");
  EXPECT_THAT(Complete("supportctl fetch 3f --out " + temp_.File("so")), ElementsAre(temp_.File("some")));
  EXPECT_THAT(Complete("supportctl --ca " + temp_.File("some/")), ElementsAre(temp_.File("some/file")));
}

}  // namespace
}  // namespace TarvoOrvane::Supportctl
