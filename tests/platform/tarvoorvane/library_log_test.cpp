#include "library_log.h"

#include <gmock/gmock.h>
#include <grpc/support/log.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "platform/support_service_client.h"
#include "syslog_recorder.h"

namespace TarvoOrvane::Internal {
namespace {

using Testing::TakeSyslogLines;

class CollectingLogger final : public Utils::LoggerManager {
 public:
  CollectingLogger() { instance_ = this; }
  ~CollectingLogger() { instance_ = nullptr; }

  void Reserved1() override {}
  void Reserved2() override {}
  void Log(int level, const std::string& text) override { lines.emplace_back(level, text); }

  std::vector<std::pair<int, std::string>> lines;
};

TEST(MakePrintableTest, ControlAndForeignBytesBecomeVisible) {
  EXPECT_EQ(MakePrintable("a\nb\r\tc\x1b[31m\x7f\xc3\xa9", 100), "a\\nb\\r\\tc\\x1b[31m\\x7f\\xc3\\xa9");
  EXPECT_EQ(MakePrintable(std::string("\0 ~", 3), 100), "\\x00 ~");
}

TEST(MakePrintableTest, IsCutAtTheLimitButNeverInsideAnEscape) {
  EXPECT_EQ(MakePrintable("abcd", 4), "abcd");
  EXPECT_EQ(MakePrintable("abcde", 4), "abcd...");
  EXPECT_EQ(MakePrintable("abc\x01", 4), "abc...");
}

TEST(LibraryLogTest, ALineGoesToSyslogWithoutALogger) {
  TakeSyslogLines();
  LogLine(LOG_WARNING, "100 %s");
  const auto lines = TakeSyslogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, LOG_WARNING);
  EXPECT_EQ(lines[0].text, "libtarvoorvane: 100 %s");
}

TEST(LibraryLogTest, ALineGoesToTheLoggerWhenThereIsOne) {
  TakeSyslogLines();
  CollectingLogger logger;
  LogLine(LOG_ERR, "text");
  EXPECT_THAT(logger.lines,
              testing::ElementsAre(std::pair<int, std::string>(LOG_ERR, "libtarvoorvane: text")));
  EXPECT_TRUE(TakeSyslogLines().empty());
}

TEST(LibraryLogTest, ErrorsOfGrpcComeToTheLibrarysLogAndNothingElseOfIt) {
  TakeOverForeignLogs();
  TakeSyslogLines();
  testing::internal::CaptureStderr();
  gpr_log(GPR_ERROR, "broken\n%d", 7);
  gpr_log(GPR_INFO, "chatter");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  const auto lines = TakeSyslogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, LOG_ERR);
  EXPECT_EQ(lines[0].text, "libtarvoorvane: gRPC: broken\\n7");
}

TEST(LibraryLogTest, ATextOfGrpcIsCutAt512Bytes) {
  TakeOverForeignLogs();
  TakeSyslogLines();
  for (const int length : {512, 513}) gpr_log(GPR_ERROR, "%s", std::string(length, 'x').c_str());
  const auto lines = TakeSyslogLines();
  ASSERT_EQ(lines.size(), 2u);
  const std::string whole = "libtarvoorvane: gRPC: " + std::string(512, 'x');
  EXPECT_EQ(lines[0].text, whole);
  EXPECT_EQ(lines[1].text, whole + "...");
}

TEST(LibraryLogTest, LinesThatComeTooFastAreLeftOutAndCounted) {
  constexpr long kAll = 10'000;
  LogHowManyWereLeftOut();
  TakeSyslogLines();
  const auto begin = std::chrono::steady_clock::now();
  for (long i = 0; i < kAll; ++i) LogLine(LOG_WARNING, "flood");
  LogHowManyWereLeftOut();
  const auto seconds = std::chrono::ceil<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
  long written = 0;
  long left_out = 0;
  for (const auto& line : TakeSyslogLines()) {
    EXPECT_EQ(line.level, LOG_WARNING);
    if (line.text == "libtarvoorvane: flood") {
      ++written;
    } else {
      EXPECT_THAT(line.text, testing::MatchesRegex("libtarvoorvane: [0-9]+ log lines were left out: .*"));
      left_out += std::strtol(line.text.c_str() + std::strlen("libtarvoorvane: "), nullptr, 10);
    }
  }
  EXPECT_EQ(written + left_out, kAll);
  EXPECT_GE(written, 30);
  EXPECT_LE(written, 31 + seconds.count() / 2) << "one each two seconds";
  LogHowManyWereLeftOut();
  EXPECT_TRUE(TakeSyslogLines().empty());
}

}  // namespace
}  // namespace TarvoOrvane::Internal
