#include "report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include <sstream>

namespace DebugDatCheck {
namespace {

using ::testing::HasSubstr;

const Check kGood = Ok("serial number", "SN-1");
const Check kBad = Problem("CSS server", "no answer", "Start it");

TEST(ReportTest, StateNameAndTextStandInColumns) {
  EXPECT_EQ(CheckText(kGood, false), "ok       serial number         SN-1\n");
}

TEST(ReportTest, AdviceStandsBelowTheText) {
  EXPECT_EQ(CheckText(kBad, false),
            "problem  CSS server            no answer\n"
            "                               -> Start it\n");
}

TEST(ReportTest, ColoursEncloseTheStateOnly) {
  EXPECT_EQ(CheckText(kGood, true), "\033[32mok       \033[0mserial number         SN-1\n");
}

TEST(ReportTest, BytesThatCouldSteerATerminalAreEscaped) {
  EXPECT_THAT(CheckText(Ok("x", "a\033[2Jb\nok"), false), HasSubstr("a\\x1b[2Jb\\nok\n"));
}

TEST(ReportTest, SummaryCountsEachState) {
  EXPECT_EQ(SummaryText({kGood}), "no problems, no warnings\n");
  EXPECT_EQ(SummaryText({kBad, kBad, Warning("a", "b", "c"), Skipped("a", "b")}),
            "2 problems, 1 warning, 1 check skipped\n");
}

TEST(ReportTest, OnlyAProblemCountsAsOne) {
  EXPECT_FALSE(HasProblem({kGood, Warning("a", "b", "c"), Skipped("a", "b")}));
  EXPECT_TRUE(HasProblem({kGood, kBad}));
}

TEST(ReportTest, JsonHoldsTheSame) {
  Json::Value report;
  std::istringstream(ReportJson({kGood, kBad})) >> report;
  EXPECT_FALSE(report["ok"].asBool());
  ASSERT_EQ(report["checks"].size(), 2U);
  EXPECT_EQ(report["checks"][0]["name"], "serial number");
  EXPECT_EQ(report["checks"][0]["state"], "ok");
  EXPECT_EQ(report["checks"][0]["text"], "SN-1");
  EXPECT_FALSE(report["checks"][0].isMember("advice"));
  EXPECT_EQ(report["checks"][1]["state"], "problem");
  EXPECT_EQ(report["checks"][1]["advice"], "Start it");
}

TEST(ReportTest, JsonOfBytesThatAreNoUtf8IsStillJson) {
  Json::Value report;
  std::istringstream(ReportJson({Ok("x", "\xff\033")})) >> report;
  EXPECT_TRUE(report["ok"].asBool());
}

}  // namespace
}  // namespace DebugDatCheck
