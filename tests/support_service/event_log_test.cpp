#include "event_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <future>
#include <memory>
#include <sstream>
#include <utility>
#include <vector>

#include "service_fixture.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

class EventLogTest : public ::testing::Test {
 protected:
  EventLogTest() { EXPECT_EQ(pipe2(ends_.data(), O_CLOEXEC), 0); }
  ~EventLogTest() override {
    CloseReader();
    CloseWriter();
  }
  void CloseReader() { close(std::exchange(ends_[0], -1)); }
  void CloseWriter() { close(std::exchange(ends_[1], -1)); }
  [[nodiscard]] int writer() const { return ends_[1]; }

  /// What was written, up to that text.
  std::string ReadUntil(const std::string& end) {
    std::string text;
    std::array<char, 65536> buffer{};
    while (text.find(end) == std::string::npos) {
      const ssize_t count = read(ends_[0], buffer.data(), buffer.size());
      if (count <= 0) return text;
      text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
  }

  /// All that was written, once nobody writes any more.
  std::string ReadAll() {
    CloseWriter();
    std::string text;
    std::array<char, 65536> buffer{};
    ssize_t count = 0;
    while ((count = read(ends_[0], buffer.data(), buffer.size())) > 0) {
      text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
  }

 private:
  std::array<int, 2> ends_{};
};

TEST_F(EventLogTest, EventIsOneLineWithItsTime) {
  EventLog(writer()).Write("something happened");
  const std::string line = ReadAll();
  ASSERT_EQ(line.size(), 24 + sizeof(" something happened\n") - 1);
  EXPECT_EQ(line.substr(23), "Z something happened\n");
  EXPECT_EQ(line[10], 'T');
}

TEST_F(EventLogTest, JsonHasOneObjectALineWhateverTheText) {
  const std::vector<std::string> texts = {"plain", "\"quoted\" \\ and\nbroken", "\xff\xfe", ""};
  {
    EventLog log(writer(), LogFormat::kJson);
    for (const std::string& text : texts) log.Write(text);
    log.WritePlain("css listening on http://127.0.0.1:1");
  }
  std::istringstream lines(ReadAll());
  std::vector<std::string> messages;
  for (std::string line; std::getline(lines, line);) {
    const Json::Value object = ParseJson(line);
    ASSERT_TRUE(object.isObject()) << line;
    EXPECT_EQ(object.getMemberNames(), (std::vector<std::string>{"message", "time"})) << line;
    const std::string time = object["time"].asString();
    EXPECT_TRUE(time.size() == 24 && time[10] == 'T' && time.back() == 'Z') << line;
    messages.push_back(object["message"].asString());
  }
  ASSERT_EQ(messages.size(), texts.size() + 1);
  EXPECT_EQ(messages[0], texts[0]);
  EXPECT_EQ(messages[1], texts[1]);
  EXPECT_EQ(messages[3], texts[3]);
  EXPECT_EQ(messages[4], "css listening on http://127.0.0.1:1");
}

TEST_F(EventLogTest, LinesKeepTheirOrder) {
  {
    EventLog log(writer());
    for (int i = 0; i < 1000; ++i) log.WritePlain(std::to_string(i));
  }
  std::string expected;
  for (int i = 0; i < 1000; ++i) expected += std::to_string(i) + "\n";
  EXPECT_EQ(ReadAll(), expected);
}

TEST_F(EventLogTest, ReaderWhoStallsHoldsUpNobodyAndIsToldWhatWasLeftOut) {
  const std::string line(1000, 'x');
  const std::size_t lines = 3 * EventLog::kMaxWaiting / line.size();
  auto log = std::make_unique<EventLog>(writer());
  for (std::size_t i = 0; i < lines; ++i) log->WritePlain(line);  // nobody reads, and it returns
  auto reading = std::async(std::launch::async, [this] { return ReadUntil("left out here"); });
  const std::string text = reading.get();
  log->WritePlain("once more");
  log.reset();
  const std::string rest = ReadAll();
  const std::string all = text + rest;
  const std::size_t place = all.find(" events are left out here: their reader was too slow\n");
  ASSERT_NE(place, std::string::npos);
  const std::size_t begin = all.rfind('\n', place) + 1;
  const auto left_out = std::stoul(all.substr(all.find(' ', begin) + 1));
  const auto written = static_cast<std::size_t>(std::count(all.begin(), all.end(), '\n')) - 2;
  EXPECT_EQ(written + left_out, lines);
  EXPECT_NE(rest.find("once more\n"), std::string::npos);
}

TEST_F(EventLogTest, ReaderWhoStallsDoesNotHoldUpTheEnd) {
  EventLog log(writer());
  for (int i = 0; i < 200; ++i) log.WritePlain(std::string(1000, 'x'));
}

TEST_F(EventLogTest, ReaderWhoHasGoneIsNoFailure) {
  ASSERT_NE(signal(SIGPIPE, SIG_IGN), SIG_ERR);
  CloseReader();
  EventLog log(writer());
  log.Write("something");
}

TEST_F(EventLogTest, TimeIsUtcWithMilliseconds) {
  const std::chrono::system_clock::time_point time(std::chrono::milliseconds(1706702400007));
  EXPECT_EQ(TimeText(time), "2024-01-31T12:00:00.007Z");
}

TEST_F(EventLogTest, TextFromOutsideCannotForgeALineOrSteerATerminal) {
  EXPECT_EQ(Printable("a\nb\x1b[31m\x7f\xc3\xa4\\"), "a\\x0ab\\x1b[31m\\x7f\\xc3\\xa4\\\\");
  EXPECT_EQ(Printable(" ~"), " ~");
  EXPECT_EQ(Quoted("say \"hi\""), "\"say \\\"hi\\\"\"");
}

TEST_F(EventLogTest, LongTextIsCut) {
  EXPECT_EQ(Printable("abcd", 4), "abcd");
  EXPECT_EQ(Printable("abcde", 4), "abcd...");
}

TEST_F(EventLogTest, ListsAreQuotedNameByName) {
  EXPECT_EQ(QuotedList({}), "[]");
  EXPECT_EQ(QuotedList({"a", "b,c"}), "[\"a\", \"b,c\"]");
  EXPECT_EQ(QuotedList({"a", "b", "c"}, 2), "[\"a\", \"b\", ... 3 in all]");
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
