#include "event_log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <chrono>

#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

TEST(EventLogTest, EventIsOneLineWithItsTime) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  EventLog log(ends[1]);
  log.Write("something happened");
  std::array<char, 256> buffer{};
  const ssize_t count = read(ends[0], buffer.data(), buffer.size());
  close(ends[0]);
  close(ends[1]);
  ASSERT_GT(count, 0);
  const std::string line(buffer.data(), static_cast<std::size_t>(count));
  ASSERT_EQ(line.size(), 24 + sizeof(" something happened\n") - 1);
  EXPECT_EQ(line.substr(23), "Z something happened\n");
  EXPECT_EQ(line[10], 'T');
}

TEST(EventLogTest, TimeIsUtcWithMilliseconds) {
  const std::chrono::system_clock::time_point time(std::chrono::milliseconds(1706702400007));
  EXPECT_EQ(TimeText(time), "2024-01-31T12:00:00.007Z");
}

TEST(EventLogTest, TextFromOutsideCannotForgeALineOrSteerATerminal) {
  EXPECT_EQ(Printable("a\nb\x1b[31m\x7f\xc3\xa4\\"), "a\\x0ab\\x1b[31m\\x7f\\xc3\\xa4\\\\");
  EXPECT_EQ(Printable(" ~"), " ~");
  EXPECT_EQ(Quoted("say \"hi\""), "\"say \\\"hi\\\"\"");
}

TEST(EventLogTest, LongTextIsCut) {
  EXPECT_EQ(Printable("abcd", 4), "abcd");
  EXPECT_EQ(Printable("abcde", 4), "abcd...");
}

TEST(EventLogTest, ListsAreQuotedNameByName) {
  EXPECT_EQ(QuotedList({}), "[]");
  EXPECT_EQ(QuotedList({"a", "b,c"}), "[\"a\", \"b,c\"]");
  EXPECT_EQ(QuotedList({"a", "b", "c"}, 2), "[\"a\", \"b\", ... 3 in all]");
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
