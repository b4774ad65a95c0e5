#include "options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "program.h"

namespace DebugDatRun {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

Parsed Parse(std::vector<std::string> words) {
  words.insert(words.begin(), "debug_dat_run");
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  return ParseOptions(static_cast<int>(words.size()), argv.data());
}

TEST(RunOptionsTest, AreReadInAnyOrder) {
  const Parsed parsed = Parse({"--log-to-stderr", "--stop-limit", "7", "/opt/daemon"});
  EXPECT_TRUE(parsed.run);
  EXPECT_TRUE(parsed.options.log_to_stderr);
  EXPECT_EQ(parsed.options.stop_seconds, 7);
  EXPECT_EQ(parsed.options.daemon, "/opt/daemon");
}

TEST(RunOptionsTest, MayBeLeftOut) {
  const Parsed parsed = Parse({});
  EXPECT_TRUE(parsed.run);
  EXPECT_FALSE(parsed.options.log_to_stderr);
  EXPECT_EQ(parsed.options.stop_seconds, 300);
  EXPECT_THAT(parsed.options.daemon, testing::EndsWith("/debug_dat_transmitter"));
  EXPECT_THAT(parsed.options.daemon, StartsWith("/")) << "beside this program, wherever it was started from";
}

TEST(RunOptionsTest, TakeLimitsUpToADay) {
  EXPECT_EQ(Parse({"--stop-limit=0"}).options.stop_seconds, 0);
  EXPECT_EQ(Parse({"--stop-limit=86400"}).options.stop_seconds, 86'400);
}

class WrongRunOptionsTest : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(WrongRunOptionsTest, AreRefused) {
  testing::internal::CaptureStderr();
  const Parsed parsed = Parse(GetParam());
  EXPECT_FALSE(parsed.run);
  EXPECT_EQ(parsed.status, kWrongUsage);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("debug_dat_run"));
}

INSTANTIATE_TEST_SUITE_P(Lines, WrongRunOptionsTest,
                         testing::Values(std::vector<std::string>{"--nonsense"},
                                         std::vector<std::string>{"--stop-limit"},
                                         std::vector<std::string>{"--stop-limit", "86401"},
                                         std::vector<std::string>{"--stop-limit", "-1"},
                                         std::vector<std::string>{"--stop-limit", "5s"},
                                         std::vector<std::string>{"--stop-limit", ""},
                                         std::vector<std::string>{"--stop-limit", "99999999999999999999"},
                                         std::vector<std::string>{"/opt/daemon", "argument"}));

TEST(RunProgramTest, TellsItsVersionAndItsUse) {
  const test_support::TemporaryFolder folder;
  test_support::Program version({PROGRAM_PATH, "--version"}, folder.File("version"));
  EXPECT_EQ(version.Wait(), 0);
  EXPECT_EQ(version.Output(), "debug_dat_run " PROJECT_VERSION "\n");
  test_support::Program help({PROGRAM_PATH, "--help"}, folder.File("help"));
  EXPECT_EQ(help.Wait(), 0);
  EXPECT_THAT(help.Output(), HasSubstr("--stop-limit SECONDS"));
  test_support::Program wrong({PROGRAM_PATH, "--wrong"}, folder.File("wrong"));
  EXPECT_EQ(wrong.Wait(), kWrongUsage);
}

}  // namespace
}  // namespace DebugDatRun
