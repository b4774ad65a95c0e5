#include "app_description.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class AppDescriptionTest : public SupportLogTest {
 protected:
  AppDescription Load(const std::string& json) {
    Describe("demo", json);
    return LoadAppDescription(paths_, limits_, "demo");
  }

  std::string ErrorOf(const std::string& json) {
    try {
      static_cast<void>(Load(json));
      return "";
    } catch (const DescriptionError& error) {
      return error.what();
    }
  }
};

TEST_F(AppDescriptionTest, ReadsAllMembers) {
  const AppDescription demo = Load(R"({"description": "An example", "paths": ["/a/*.log", "/b"],
      "commands": [{"argv": ["ls", "-l", ""]}, {"argv": ["/bin/df"], "time_limit_seconds": 300}]})");
  EXPECT_EQ(demo.description, "An example");
  EXPECT_THAT(demo.paths, ElementsAre("/a/*.log", "/b"));
  ASSERT_EQ(demo.commands.size(), 2U);
  EXPECT_THAT(demo.commands[0].argv, ElementsAre("ls", "-l", ""));
  EXPECT_EQ(demo.commands[0].time_limit_seconds, 10U);
  EXPECT_EQ(demo.commands[1].time_limit_seconds, 300U);
}

TEST_F(AppDescriptionTest, EveryMemberMayBeAbsent) { EXPECT_EQ(ErrorOf("{}"), ""); }

TEST_F(AppDescriptionTest, TellsWhatIsWrongAndInWhichFile) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "not valid JSON"},
      {"{\"paths\": [}", "not valid JSON"},
      {"{} {}", "not valid JSON"},
      {"{\"paths\": [], \"paths\": []}", "not valid JSON"},
      {std::string(3000, '['), "not valid JSON"},
      {"[]", "not a JSON object"},
      {R"({"path": ["/a"]})", "unknown member \"path\""},
      {R"({"description": 1})", "\"description\" is not a string"},
      {R"({"paths": "/a"})", "\"paths\" is not an array"},
      {R"({"paths": ["/a", 1]})", "paths[1] is not a string"},
      {R"({"paths": ["a"]})", "paths[0] is not an absolute path: \"a\""},
      {R"({"paths": [""]})", "paths[0] is not an absolute path"},
      {R"({"paths": ["/a/../b"]})", "\"..\" part"},
      {R"({"paths": ["/a/"]})", "ends in a slash"},
      {R"({"paths": ["/a\u0000b"]})", "NUL"},
      {R"({"commands": {}})", "\"commands\" is not an array"},
      {R"({"commands": ["ls"]})", "commands[0] is not an object"},
      {R"({"commands": [{}]})", "commands[0].argv is not an array"},
      {R"({"commands": [{"argv": []}]})", "commands[0].argv is not an array"},
      {R"({"commands": [{"argv": "ls"}]})", "commands[0].argv is not an array"},
      {R"({"commands": [{"argv": ["ls", 1]}]})", "commands[0].argv[1] is not a string"},
      {R"({"commands": [{"argv": [""]}]})", "commands[0].argv[0] is neither"},
      {R"({"commands": [{"argv": ["bin/ls"]}]})", "commands[0].argv[0] is neither"},
      {R"({"commands": [{"argv": ["ls"], "limit": 1}]})", "commands[0]: unknown member \"limit\""},
      {R"({"commands": [{"argv": ["ls"], "time_limit_seconds": 0}]})", "from 1 to 300"},
      {R"({"commands": [{"argv": ["ls"], "time_limit_seconds": 301}]})", "from 1 to 300"},
      {R"({"commands": [{"argv": ["ls"], "time_limit_seconds": 1.5}]})", "from 1 to 300"},
      {R"({"commands": [{"argv": ["ls"], "time_limit_seconds": "5"}]})", "from 1 to 300"},
      {R"({"commands": [{"argv": ["ls"], "time_limit_seconds": true}]})", "from 1 to 300"},
  };
  for (const auto& [json, message] : cases) {
    EXPECT_THAT(ErrorOf(json), HasSubstr(message)) << json;
    EXPECT_THAT(ErrorOf(json), HasSubstr(paths_.descriptions + "/demo.json")) << json;
  }
}

TEST_F(AppDescriptionTest, FileThatIsMissingTooLongOrNoFileIsAnError) {
  EXPECT_THROW(static_cast<void>(LoadAppDescription(paths_, limits_, "missing")), DescriptionError);
  limits_.description_bytes = 10;
  EXPECT_THAT(ErrorOf(R"({"paths":[]})"), HasSubstr("longer than 10 bytes"));
  limits_.description_bytes = 12;
  EXPECT_EQ(ErrorOf(R"({"paths":[]})"), "");
  ASSERT_EQ(mkfifo((fs::path(paths_.descriptions) / "pipe.json").c_str(), 0600), 0);
  EXPECT_THROW(static_cast<void>(LoadAppDescription(paths_, limits_, "pipe")), DescriptionError);
}

TEST(AppNameTest, BeginsWithALetterOrDigitAndHasAtMost64PlainCharacters) {
  for (const std::string& name : {std::string("a"), std::string("9.log_x-Y"), std::string(64, 'z')}) {
    EXPECT_TRUE(IsAppName(name)) << name;
  }
  for (const std::string& name :
       {std::string(), std::string(".a"), std::string("-a"), std::string("_a"), std::string("a/b"),
        std::string("a b"), std::string("\xc3\xa4"), std::string("a\0b", 3), std::string(65, 'z')}) {
    EXPECT_FALSE(IsAppName(name)) << name;
  }
}

}  // namespace
}  // namespace TARVO::SupportForm
