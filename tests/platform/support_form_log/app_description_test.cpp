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
  const AppDescription demo = Load(R"({"description": "An example",
      "paths": ["/a/*.log", {"path": "/b", "binary": true}, {"path": "/c"}],
      "commands": [{"argv": ["ls", "-l", ""]},
                   {"argv": ["/bin/df"], "time_limit_seconds": 300, "output_limit_bytes": 1}],
      "units": ["ssh.service", {"unit": "web@*.service", "lines": 7, "output_limit_bytes": 8, "since_hours": 9}]})");
  EXPECT_EQ(demo.description, "An example");
  ASSERT_EQ(demo.paths.size(), 3U);
  EXPECT_EQ(demo.paths[0].pattern, "/a/*.log");
  EXPECT_FALSE(demo.paths[0].binary);
  EXPECT_EQ(demo.paths[1].pattern, "/b");
  EXPECT_TRUE(demo.paths[1].binary);
  EXPECT_FALSE(demo.paths[2].binary);
  ASSERT_EQ(demo.commands.size(), 2U);
  EXPECT_THAT(demo.commands[0].argv, ElementsAre("ls", "-l", ""));
  EXPECT_EQ(demo.commands[0].time_limit_seconds, 10U);
  EXPECT_EQ(demo.commands[0].output_limit_bytes, 16U << 20U);
  EXPECT_EQ(demo.commands[1].time_limit_seconds, 300U);
  EXPECT_EQ(demo.commands[1].output_limit_bytes, 1U);
  ASSERT_EQ(demo.units.size(), 2U);
  EXPECT_EQ(demo.units[0].unit, "ssh.service");
  EXPECT_EQ(demo.units[0].lines, 5'000U);
  EXPECT_EQ(demo.units[0].output_limit_bytes, 4U << 20U);
  EXPECT_EQ(demo.units[0].since_hours, 0U);
  EXPECT_EQ(demo.units[1].unit, "web@*.service");
  EXPECT_EQ(demo.units[1].lines, 7U);
  EXPECT_EQ(demo.units[1].output_limit_bytes, 8U);
  EXPECT_EQ(demo.units[1].since_hours, 9U);
}

TEST_F(AppDescriptionTest, UnitIsAskedForWithItsLimits) {
  EXPECT_THAT(JournalCommand({"web.service", 7, 8, 9}, limits_).argv,
              ElementsAre("journalctl", "--quiet", "--no-pager", "--output=short-iso", "--lines=7",
                          "--unit=web.service", "--since=-9h"));
  const CommandDescription all = JournalCommand({"", 7, 8, 0}, limits_);
  EXPECT_THAT(all.argv,
              ElementsAre("journalctl", "--quiet", "--no-pager", "--output=short-iso", "--lines=7"));
  EXPECT_EQ(all.output_limit_bytes, 8U);
  EXPECT_EQ(all.time_limit_seconds, limits_.system_command_seconds);
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
      {R"({"path": 1, "paths": ["a", {"path": "/a", "binary": 1, "c": 2}], "commands": [{"argv": [],
          "time_limit_seconds": 0}], "units": ["-u", {"unit": "a", "lines": 0}]})",
       "description: unknown member \"path\"; paths[0] is not an absolute path: \"a\"; "
       "paths[1]: unknown member \"c\"; paths[1].binary is neither true nor false; "
       "commands[0].argv is not an array of at least one string; "
       "commands[0].time_limit_seconds is not a whole number from 1 to"},
      {R"({"description": 1})", "\"description\" is not a string"},
      {R"({"paths": "/a"})", "\"paths\" is not an array"},
      {R"({"paths": ["/a", 1]})", "paths[1] is not a string"},
      {R"({"paths": ["a"]})", "paths[0] is not an absolute path: \"a\""},
      {R"({"paths": [""]})", "paths[0] is not an absolute path"},
      {R"({"paths": ["/a/../b"]})", "\"..\" part"},
      {R"({"paths": ["/a/"]})", "ends in a slash"},
      {R"({"paths": ["/a\u0000b"]})", "NUL"},
      {R"({"paths": [{"path": "a"}]})", "paths[0].path is not an absolute path: \"a\""},
      {R"({"paths": [{}]})", "paths[0].path is not a string"},
      {R"({"paths": [{"path": "/a", "binary": 1}]})", "paths[0].binary is neither true nor false"},
      {R"({"paths": [{"path": "/a", "raw": true}]})", "paths[0]: unknown member \"raw\""},
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
      {R"({"commands": [{"argv": ["ls"], "output_limit_bytes": 0}]})", "from 1 to 268435456"},
      {R"({"commands": [{"argv": ["ls"], "output_limit_bytes": 268435457}]})", "from 1 to 268435456"},
      {R"({"units": "a"})", "\"units\" is not an array"},
      {R"({"units": [1]})", "units[0] is not a string"},
      {R"({"units": [""]})", "units[0] is not a unit's name: \"\""},
      {R"({"units": ["-a"]})", "units[0] is not a unit's name: \"-a\""},
      {R"({"units": ["a b"]})", "units[0] is not a unit's name: \"a b\""},
      {R"({"units": ["a/b"]})", "units[0] is not a unit's name: \"a/b\""},
      {R"({"units": [{"lines": 1}]})", "units[0].unit is not a string"},
      {R"({"units": [{"unit": "a", "line": 1}]})", "units[0]: unknown member \"line\""},
      {R"({"units": [{"unit": "a", "lines": 0}]})", "units[0].lines is not a whole number from 1 to 1000000"},
      {R"({"units": [{"unit": "a", "since_hours": 8785}]})",
       "since_hours is not a whole number from 1 to 8784"},
      {R"({"units": [{"unit": "a", "output_limit_bytes": -1}]})", "from 1 to 268435456"},
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

TEST_F(AppDescriptionTest, LinkThatLeadsNowhereIsToldAsSuch) {
  const std::string path = paths_.descriptions + "/gone.json";
  fs::create_symlink("/nonexistent/gone.json", path);
  EXPECT_THAT([&] { static_cast<void>(LoadAppDescription(paths_, limits_, "gone")); },
              testing::ThrowsMessage<DescriptionError>(
                  path + " leads to /nonexistent/gone.json, which is not there"));
}

TEST_F(AppDescriptionTest, FileOrFolderAboveThatOthersCanChangeIsAnErrorThatTellsWhatToDo) {
  const std::string path = paths_.descriptions + "/demo.json";
  Describe("demo", "{}");
  chmod(path.c_str(), 0666);
  const auto load = [&] { static_cast<void>(LoadAppDescription(paths_, limits_, "demo")); };
  EXPECT_THAT(load, testing::ThrowsMessage<DescriptionError>(
                        testing::AllOf(HasSubstr("demo.json is not used: "), HasSubstr("mode 0666"),
                                       HasSubstr("; chmod go-w " + path))));
  chmod(path.c_str(), 0644);
  chmod(paths_.descriptions.c_str(), 0775);
  EXPECT_THAT(load, testing::ThrowsMessage<DescriptionError>(HasSubstr(paths_.descriptions + " (owner ")));
  chmod(paths_.descriptions.c_str(), 0755);
  EXPECT_NO_THROW(load());
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
