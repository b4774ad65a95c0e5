#include "file_util.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <stdexcept>

#include "json_text.h"
#include "support_log_fixture.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {
namespace {

using FileUtilTest = SupportLogTest;

UniqueFd Opened(const fs::path& path, int flags) { return UniqueFd(open(path.c_str(), flags | O_CLOEXEC)); }

TEST_F(FileUtilTest, ReadingStopsAtTheLimitAndTellsWhetherThereIsMore) {
  // More than one read() takes.
  const std::string text(40'000, 'x');
  WriteText(data_ / "file", text);
  for (const std::size_t limit : {40'001UL, 40'000UL, 39'999UL, 1UL, 0UL}) {
    std::string out = "left over";
    bool more = limit >= text.size();
    EXPECT_TRUE(ReadFileUpTo(data_ / "file", limit, out, more));
    EXPECT_EQ(out.size(), std::min(limit, text.size()));
    EXPECT_EQ(more, limit < text.size()) << limit;
  }
}

TEST_F(FileUtilTest, OnlyRegularFilesAreReadAndNoneIsWaitedFor) {
  ASSERT_EQ(mkfifo((folder_ / "pipe").c_str(), 0600), 0);
  fs::create_directories(data_);
  for (const auto& [path, error] :
       {std::pair{folder_ / "pipe", EINVAL}, {data_, EINVAL}, {folder_ / "none", ENOENT}}) {
    std::string out;
    bool more = false;
    errno = 0;
    EXPECT_FALSE(ReadFileUpTo(path, 10, out, more)) << path;
    EXPECT_EQ(errno, error) << path;
  }
}

TEST_F(FileUtilTest, FailedReadKeepsWhatCameBefore) {
  std::string out = "left over";
  bool more = true;
  EXPECT_FALSE(ReadUpTo(Opened(folder_, O_RDONLY).get(), 10, out, more));
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(out, "");
  EXPECT_FALSE(more);
}

TEST_F(FileUtilTest, WritingTellsAFailure) {
  WriteText(folder_ / "file", "");
  const CallerProcess caller([&] {
    LimitFileSize(5);
    const UniqueFd fd = Opened(folder_ / "file", O_WRONLY);
    const bool whole = WriteAll(fd.get(), "12345");
    const bool over = WriteAll(fd.get(), "6");
    return std::to_string(whole) + std::to_string(over) + ErrorText(errno);
  });
  EXPECT_EQ(caller.Answer(), "10File too large");
  EXPECT_EQ(ReadText(folder_ / "file"), "12345");
}

TEST_F(FileUtilTest, FileIsReplacedAsAWholeAndForItsOwnerOnly) {
  fs::create_directories(data_);
  const UniqueFd folder = Opened(data_, O_RDONLY | O_DIRECTORY);
  const mode_t mask = umask(0);
  WriteText(data_ / "fresh", "left over from before, and longer");
  fs::permissions(data_ / "fresh", fs::perms{0600});
  EXPECT_TRUE(ReplaceFile(folder.get(), "file", "fresh", "one", 0640));
  const UniqueFd reader = Opened(data_ / "file", O_RDONLY);
  EXPECT_TRUE(ReplaceFile(folder.get(), "file", "fresh", "two", 0640));
  umask(mask);
  EXPECT_EQ(ReadText(data_ / "file"), "two");
  EXPECT_EQ(fs::status(data_ / "file").permissions(), fs::perms{0640});
  EXPECT_FALSE(fs::exists(data_ / "fresh"));
  std::string former;
  bool more = false;
  EXPECT_TRUE(ReadUpTo(reader.get(), 100, former, more));
  EXPECT_EQ(former, "one");
}

TEST_F(FileUtilTest, FileThatCannotBeReplacedStaysAndNoLinkIsFollowed) {
  fs::create_directories(data_);
  const UniqueFd folder = Opened(data_, O_RDONLY | O_DIRECTORY);
  fs::create_symlink(folder_ / "elsewhere", data_ / "link");
  EXPECT_FALSE(ReplaceFile(folder.get(), "file", "link", "text", 0600));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_FALSE(fs::exists(folder_ / "elsewhere"));
  fs::create_directories(data_ / "taken");
  EXPECT_FALSE(ReplaceFile(folder.get(), "taken", "fresh", "text", 0600));
  EXPECT_EQ(errno, EISDIR);
}

TEST_F(FileUtilTest, FilesThatTheKernelMakesAreTold) {
  EXPECT_TRUE(IsKernelFileSystem(Opened("/proc/version", O_RDONLY).get()));
  WriteText(data_ / "file", "x");
  EXPECT_FALSE(IsKernelFileSystem(Opened(data_ / "file", O_RDONLY).get()));
  EXPECT_FALSE(IsKernelFileSystem(-1));
}

TEST_F(FileUtilTest, SleepIsNotCutShortByASignal) {
  const CallerProcess caller([] {
    EXPECT_NE(signal(SIGALRM, [](int) {}), SIG_ERR);
    const itimerval soon = {{0, 0}, {0, 10'000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    const std::int64_t begin = MonotonicMs();
    SleepMs(1'100);
    return std::to_string(MonotonicMs() - begin >= 1'099);
  });
  EXPECT_EQ(caller.Answer(), "1");
}

TEST(FileUtilTextTest, TimesBytesErrorsAndJson) {
  EXPECT_EQ(IsoTime(1'715'000'949), "2024-05-06T13:09:09Z");
  const unsigned char bytes[] = {0x00, 0x0f, 0xa5, 0xff};
  EXPECT_EQ(HexText(bytes, 4), "000fa5ff");
  EXPECT_EQ(HexText(bytes, 0), "");
  EXPECT_EQ(ErrorText(ENOENT), "No such file or directory");
  EXPECT_STREQ(FailureText(std::bad_alloc()), "memory ran out");
  EXPECT_STREQ(FailureText(std::runtime_error("why")), "why");
  EXPECT_EQ(CompactJson(ParseJson(R"({"b": [1, "x"], "a": null})")), R"({"a":null,"b":[1,"x"]})");
}

}  // namespace
}  // namespace TARVO::SupportForm
