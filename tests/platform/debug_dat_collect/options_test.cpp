#include "options.h"

#include <gmock/gmock.h>

#include <vector>

namespace TARVO::SupportForm {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Action = CollectOptions::Action;

ParsedOptions Parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "debug_dat_collect");
  return ParseOptions(static_cast<int>(arguments.size()), arguments.data());
}

void ExpectRefused(const std::vector<const char*>& arguments, const std::string& why) {
  const ParsedOptions parsed = Parse(arguments);
  EXPECT_FALSE(parsed.run);
  EXPECT_EQ(parsed.exit_status, 2);
  EXPECT_THAT(parsed.text, HasSubstr(why));
  EXPECT_EQ(parsed.text.back(), '\n');
}

TEST(OptionsTest, ArchiveOfTwoApplicationsIsRedacted) {
  const ParsedOptions parsed = Parse({"--apps", "mail,web", "--out", "/tmp/debug.dat"});
  ASSERT_TRUE(parsed.run) << parsed.text;
  EXPECT_EQ(parsed.options.action, Action::kWrite);
  EXPECT_THAT(parsed.options.apps, ElementsAre("mail", "web"));
  EXPECT_EQ(parsed.options.out, "/tmp/debug.dat");
  EXPECT_TRUE(parsed.options.redaction);
}

TEST(OptionsTest, RedactionIsTurnedOffByItsOwnOptionAlone) {
  const ParsedOptions parsed = Parse({"--apps", "mail", "--out", "f", "--no-redaction"});
  ASSERT_TRUE(parsed.run) << parsed.text;
  EXPECT_FALSE(parsed.options.redaction);
}

TEST(OptionsTest, NoApplicationsMeansTheSystemsDataAlone) {
  const ParsedOptions parsed = Parse({"--apps", "", "--dry-run"});
  ASSERT_TRUE(parsed.run) << parsed.text;
  EXPECT_EQ(parsed.options.action, Action::kDryRun);
  EXPECT_THAT(parsed.options.apps, IsEmpty());
}

TEST(OptionsTest, TaskOfTheLibraryIsAlwaysRedacted) {
  const ParsedOptions parsed = Parse({"--task", "0123456789abcdef0123456789abcdef"});
  ASSERT_TRUE(parsed.run) << parsed.text;
  EXPECT_EQ(parsed.options.action, Action::kTask);
  EXPECT_EQ(parsed.options.task_id, "0123456789abcdef0123456789abcdef");
  EXPECT_TRUE(parsed.options.redaction);
  ExpectRefused({"--task", "0123456789abcdef0123456789abcdef", "--no-redaction"}, "--no-redaction excludes");
}

TEST(OptionsTest, TaskOfAConnectionIsAlwaysRedactedAndTakesNothingElse) {
  const ParsedOptions parsed = Parse({"--connection"});
  ASSERT_TRUE(parsed.run) << parsed.text;
  EXPECT_EQ(parsed.options.action, Action::kConnection);
  EXPECT_TRUE(parsed.options.redaction);
  ExpectRefused({"--connection", "--no-redaction"}, "--connection goes with no other option");
  ExpectRefused({"--connection", "--apps", "mail"}, "--connection goes with no other option");
  ExpectRefused({"--connection", "--task", "0123456789abcdef0123456789abcdef"},
                "--connection goes with no other option");
}

TEST(OptionsTest, WrongTaskIdIsRefused) {
  ExpectRefused({"--task", "../etc"}, "--task: not the id of a task");
}

TEST(OptionsTest, MissingPartsAreNamed) {
  ExpectRefused({}, "--apps is missing");
  ExpectRefused({"--out", "f"}, "--apps is missing");
  ExpectRefused({"--apps", "mail"}, "--out FILE");
}

TEST(OptionsTest, NamesThatNoApplicationCanHaveAreRefused) {
  ExpectRefused({"--apps", "mail,,web", "--dry-run"}, R"("" is no application's name)");
  ExpectRefused({"--apps", "mail,", "--dry-run"}, R"("" is no application's name)");
  ExpectRefused({"--apps", "../mail", "--dry-run"}, R"("../mail" is no application's name)");
}

TEST(OptionsTest, DryRunWritesNothingAndSoTakesNoFile) {
  ExpectRefused({"--apps", "mail", "--dry-run", "--out", "f"}, "--dry-run");
}

TEST(OptionsTest, DescriptionsAreListedEnabledAndDisabled) {
  EXPECT_EQ(Parse({"--list"}).options.action, Action::kList);
  const ParsedOptions enable = Parse({"--enable", "mail,web"});
  ASSERT_TRUE(enable.run) << enable.text;
  EXPECT_EQ(enable.options.action, Action::kEnable);
  EXPECT_THAT(enable.options.apps, ElementsAre("mail", "web"));
  const ParsedOptions disable = Parse({"--disable", "mail"});
  ASSERT_TRUE(disable.run) << disable.text;
  EXPECT_EQ(disable.options.action, Action::kDisable);
  EXPECT_THAT(disable.options.apps, ElementsAre("mail"));
}

TEST(OptionsTest, OneThingIsAskedForAtATime) {
  ExpectRefused({"--list", "--apps", "mail"}, "--list goes with no other option");
  ExpectRefused({"--list", "--enable", "mail"}, "--list goes with no other option");
  ExpectRefused({"--disable", "mail", "--enable", "mail"}, "--enable goes with no other option");
  ExpectRefused({"--enable", "mail", "--dry-run"}, "--enable goes with no other option");
  ExpectRefused({"--disable", "mail", "--out", "f"}, "--disable goes with no other option");
  ExpectRefused({"--list", "--no-redaction"}, "--list goes with no other option");
  ExpectRefused({"--list", "--task", "0123456789abcdef0123456789abcdef"}, "--list goes with no other option");
}

TEST(OptionsTest, DescriptionsToEnableOrDisableNeedNames) {
  ExpectRefused({"--enable", ""}, "--enable: names none");
  ExpectRefused({"--enable", "mail,../web"}, R"(--enable: "../web" is no application's name)");
  ExpectRefused({"--disable", "a/b"}, R"(--disable: "a/b" is no application's name)");
}

TEST(OptionsTest, HelpShowsTheWaysForPeopleOnly) {
  const ParsedOptions parsed = Parse({"--help"});
  EXPECT_FALSE(parsed.run);
  EXPECT_EQ(parsed.exit_status, 0);
  EXPECT_THAT(parsed.text, HasSubstr("--dry-run"));
  EXPECT_THAT(parsed.text, testing::Not(HasSubstr("--task")));
  EXPECT_THAT(parsed.text, testing::Not(HasSubstr("--connection")));
}

}  // namespace
}  // namespace TARVO::SupportForm
