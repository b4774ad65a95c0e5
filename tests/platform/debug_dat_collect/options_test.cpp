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

TEST(OptionsTest, HelpShowsTheWaysForPeopleOnly) {
  const ParsedOptions parsed = Parse({"--help"});
  EXPECT_FALSE(parsed.run);
  EXPECT_EQ(parsed.exit_status, 0);
  EXPECT_THAT(parsed.text, HasSubstr("--dry-run"));
  EXPECT_THAT(parsed.text, testing::Not(HasSubstr("--task")));
}

}  // namespace
}  // namespace TARVO::SupportForm
