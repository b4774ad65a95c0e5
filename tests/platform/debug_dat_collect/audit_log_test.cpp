#include "audit_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <thread>

#include "support_log_fixture.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {
namespace {

using testing::HasSubstr;

AuditRecord Record() {
  AuditRecord record;
  record.time = 1715000000;
  record.task_id = "0123456789abcdef0123456789abcdef";
  record.app_list = ParseJson(R"(["mail", "web"])");
  record.archive.size = 4711;
  record.archive.sha256 = "5d41";
  record.archive.redacted = 3;
  return record;
}

class AuditLogTest : public SupportLogTest {
 protected:
  fs::path log_ = folder_ / "audit.log";
};

TEST(AuditLineTest, TellsTimeApplicationsSizeAndSum) {
  const std::string line = AuditLine(Record());
  EXPECT_EQ(line.find('\n'), line.size() - 1);
  const Json::Value value = ParseJson(line);
  EXPECT_EQ(value["time"], "2024-05-06T12:53:20Z");
  EXPECT_EQ(value["for"], "ticket");
  EXPECT_EQ(value["task_id"], "0123456789abcdef0123456789abcdef");
  EXPECT_EQ(value["apps"], ParseJson(R"(["mail", "web"])"));
  EXPECT_EQ(value["size"].asUInt64(), 4711U);
  EXPECT_EQ(value["sha256"], "5d41");
  EXPECT_EQ(value["redaction"], true);
  EXPECT_EQ(value["redacted"].asUInt64(), 3U);
}

TEST(AuditLineTest, CollectionFromTheCommandLineHasNoTask) {
  AuditRecord record = Record();
  record.task_id.clear();
  record.redaction = false;
  const Json::Value value = ParseJson(AuditLine(record));
  EXPECT_EQ(value["for"], "command line");
  EXPECT_FALSE(value.isMember("task_id"));
  EXPECT_EQ(value["redaction"], false);
}

TEST(AuditLineTest, WhatIsNoApplicationNameIsCountedAndNotQuoted) {
  AuditRecord record = Record();
  record.app_list = ParseJson(R"(["mail", {"token": "secret"}, "token: secret\n", 7])");
  const std::string line = AuditLine(record);
  EXPECT_THAT(line, testing::Not(HasSubstr("secret")));
  EXPECT_EQ(ParseJson(line)["apps"], ParseJson(R"(["mail"])"));
  EXPECT_EQ(ParseJson(line)["no_app_names"].asUInt64(), 3U);
}

TEST_F(AuditLogTest, LinesAreAppendedToAFileOfTheOwnersAlone) {
  AppendAuditLine(log_, 100, "one\n");
  AppendAuditLine(log_, 100, "two\n");
  EXPECT_EQ(ReadText(log_), "one\ntwo\n");
  EXPECT_EQ(ModeOf(log_), 0600U);
}

TEST_F(AuditLogTest, LogThatOthersMayReadIsClosedToThem) {
  WriteText(log_, "old\n");
  fs::permissions(log_, static_cast<fs::perms>(0644));
  AppendAuditLine(log_, 100, "new\n");
  EXPECT_EQ(ReadText(log_), "old\nnew\n");
  EXPECT_EQ(ModeOf(log_), 0600U);
}

TEST_F(AuditLogTest, LogThatWouldPassItsLimitIsKeptAndANewOneBegun) {
  const fs::path kept = log_.string() + ".1";
  for (const char* line : {"1234\n", "5678\n", "abcd\n"}) AppendAuditLine(log_, 10, line);
  EXPECT_EQ(ReadText(kept), "1234\n5678\n");
  EXPECT_EQ(ReadText(log_), "abcd\n");
  for (const char* line : {"efgh\n", "ijkl\n"}) AppendAuditLine(log_, 10, line);
  EXPECT_EQ(ReadText(kept), "abcd\nefgh\n");
  EXPECT_EQ(ReadText(log_), "ijkl\n");
}

TEST_F(AuditLogTest, LineLongerThanTheLimitIsWrittenAllTheSame) {
  AppendAuditLine(log_, 3, "1234\n");
  EXPECT_EQ(ReadText(log_), "1234\n");
}

TEST_F(AuditLogTest, WritersAtTheSameTimeLoseNoLineAtTheRotation) {
  constexpr unsigned kLines = 200;
  const auto write = [&](const std::string& line) {
    for (unsigned i = 0; i < kLines; ++i) AppendAuditLine(log_, std::uint64_t{kLines} * 5, line);
  };
  std::thread one(write, "aaaa\n");
  std::thread two(write, "bbbb\n");
  one.join();
  two.join();
  const std::string text = ReadText(log_.string() + ".1") + ReadText(log_);
  EXPECT_EQ(std::count(text.begin(), text.end(), 'a'), std::ptrdiff_t{4} * kLines);
  EXPECT_EQ(std::count(text.begin(), text.end(), 'b'), std::ptrdiff_t{4} * kLines);
}

TEST_F(AuditLogTest, LinkInTheLogsPlaceIsNotFollowed) {
  WriteText(data_ / "other", "intact");
  fs::create_symlink(data_ / "other", log_);
  EXPECT_THAT([&] { AppendAuditLine(log_, 100, "line\n"); },
              testing::ThrowsMessage<std::runtime_error>(HasSubstr("audit.log can't be written")));
  EXPECT_EQ(ReadText(data_ / "other"), "intact");
}

TEST_F(AuditLogTest, SecondNameOfAnotherFileIsLeftAlone) {
  WriteText(data_ / "other", "intact");
  fs::permissions(data_ / "other", static_cast<fs::perms>(0644));
  fs::create_hard_link(data_ / "other", log_);
  EXPECT_THAT([&] { AppendAuditLine(log_, 100, "line\n"); },
              testing::ThrowsMessage<std::runtime_error>(HasSubstr("with one name; remove it")));
  EXPECT_EQ(ReadText(data_ / "other"), "intact");
  EXPECT_EQ(ModeOf(data_ / "other"), 0644U);
}

TEST_F(AuditLogTest, FileOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  constexpr uid_t kNobody = 65534;
  WriteText(log_, "theirs\n");
  ASSERT_EQ(chown(log_.c_str(), kNobody, kNobody), 0);
  EXPECT_THAT([&] { AppendAuditLine(log_, 100, "line\n"); },
              testing::ThrowsMessage<std::runtime_error>(HasSubstr("the caller's own")));
  EXPECT_EQ(ReadText(log_), "theirs\n");
}

TEST_F(AuditLogTest, LockThatANeighbourKeepsIsNotWaitedForForEver) {
  WriteText(log_, "one\n");
  const UniqueFd neighbour(open(log_.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(neighbour.get(), LOCK_EX), 0);
  EXPECT_THAT([&] { AppendAuditLine(log_, 100, "line\n", 50); },
              testing::ThrowsMessage<std::runtime_error>(HasSubstr("keeps it locked; rename it")));
}

TEST_F(AuditLogTest, PipeInTheLogsPlaceIsRefused) {
  ASSERT_EQ(mkfifo(log_.c_str(), 0600), 0);
  const UniqueFd reader(open(log_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  ASSERT_TRUE(reader.valid());
  EXPECT_THAT([&] { AppendAuditLine(log_, 100, "line\n"); },
              testing::ThrowsMessage<std::runtime_error>(HasSubstr("remove it")));
}

}  // namespace
}  // namespace TARVO::SupportForm
