#include "log_line.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include "standard_error.h"

namespace DebugDatRun {
namespace {

std::string Readable(const std::string& datagram, bool is_cut = false) {
  return ReadableLogLine(datagram, 7, is_cut).text;
}

TEST(LogLineTest, HasLevelTagSenderAndText) {
  EXPECT_EQ(Readable("<12>Nov 21 10:00:00 debug_dat_transmitter: main.cpp:3 text"),
            "warning debug_dat_transmitter[7]: main.cpp:3 text");
  EXPECT_EQ(ReadableLogLine("<11>Nov 21 10:00:00 a: b", 7, false).level, LOG_ERR);
}

TEST(LogLineTest, KeepsTheIdThatTheTagHas) {
  EXPECT_EQ(Readable("<14>Nov  1 10:00:00 a[15]: b"), "info a[15]: b");
}

TEST(LogLineTest, TakesLinesThatLackParts) {
  EXPECT_EQ(Readable("text"), "notice [7]: text");
  EXPECT_EQ(Readable("<15>a: b"), "debug a[7]: b");
  EXPECT_EQ(Readable("<15>two words: b"), "debug [7]: two words: b");
  EXPECT_EQ(Readable("<x5>a: b"), "notice <x5>a[7]: b");
  EXPECT_EQ(Readable(""), "notice [7]: ");
  EXPECT_EQ(Readable("<"), "notice [7]: <");
}

TEST(LogLineTest, EndsBeforeTheLinesEnd) { EXPECT_EQ(Readable("<12>a: err=x\n"), "warning a[7]: err=x"); }

TEST(LogLineTest, EscapesWhatATerminalWouldActOn) {
  EXPECT_EQ(Readable("<12>a: x\ny\x1b[2J\x7f\t"), "warning a[7]: x\\x0ay\\x1b[2J\\x7f\\x09");
  EXPECT_EQ(Readable("<12>a\x1b: b"), "warning a\\x1b[7]: b");
}

TEST(LogLineTest, KeepsCharactersOfUtf8AndEscapesOtherBytes) {
  EXPECT_EQ(Readable("<12>a: Größe \xe2\x82\xac \xf0\x9f\x98\x80"),
            "warning a[7]: Größe \xe2\x82\xac \xf0\x9f\x98\x80");
  EXPECT_EQ(Readable("<12>a: \xc3\x28 \xe2\x82"), "warning a[7]: \\xc3( \\xe2\\x82");
  EXPECT_EQ(Readable("<12>a: \xc2\x9b"
                     "2J \x9b"),
            "warning a[7]: \\xc2\\x9b2J \\x9b")
      << "controls of 8 bits";
}

TEST(LogLineTest, HasABoundAndSaysThatItWasCut) {
  const std::string line = Readable("<12>a: " + std::string(10'000, 'x'));
  EXPECT_LT(line.size(), kLongestLine);
  EXPECT_GT(line.size(), kLongestLine - 20);
  EXPECT_EQ(line.substr(line.size() - 5), "xx...");
  EXPECT_EQ(Readable("<12>a: b", true), "warning a[7]: b...");
  EXPECT_LT(Readable("<12>a: " + std::string(10'000, '\n')).size(), kLongestLine);
}

TEST(LogLineTest, LeavesOutTheTokensOfTickets) {
  EXPECT_EQ(Readable(R"(<12>a: ({"apps":["b"],"token":"secret"}) c)"),
            R"(warning a[7]: ({"apps":["b"],"token":"***"}) c)");
  EXPECT_EQ(Readable(R"(<12>a: {"token" : "se\"cret", "token":"two"})"),
            R"(warning a[7]: {"token" : "***", "token":"***"})");
  EXPECT_EQ(Readable(R"(<12>a: {"token":"secr)"), R"(warning a[7]: {"token":"***)") << "a line that was cut";
  EXPECT_EQ(Readable(R"(<12>a: {"token":"secr\)"), R"(warning a[7]: {"token":"***)");
  EXPECT_EQ(Readable(R"(<12>a: {"token":7,"apps":1} "token")"),
            R"(warning a[7]: {"token":7,"apps":1} "token")");
}

}  // namespace
}  // namespace DebugDatRun
