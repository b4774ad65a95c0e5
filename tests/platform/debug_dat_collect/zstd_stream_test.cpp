#include "zstd_stream.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <zstd.h>

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support_log_fixture.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {
namespace {

class ZstdStreamTest : public SupportLogTest {
 protected:
  ZstdStreamTest() : fd_(open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)) {}

  /// What the file holds, decompressed in one piece of `size` bytes.
  std::string Decompressed(std::size_t size) const {
    const std::string file = ReadText(path_);
    std::string text(size + 1, '\0');
    const std::size_t count = ZSTD_decompress(text.data(), text.size(), file.data(), file.size());
    EXPECT_FALSE(ZSTD_isError(count)) << ZSTD_getErrorName(count);
    text.resize(ZSTD_isError(count) ? 0 : count);
    return text;
  }

  /// Of this process.
  static std::size_t Threads() {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()));
  }

  fs::path path_ = folder_ / "stream";
  UniqueFd fd_;
};

TEST_F(ZstdStreamTest, PiecesOfAllSizesComeBackInTheirOrder) {
  const std::string bytes = RandomBytes(5'000'000);
  ZstdStream stream(fd_.get(), 1);
  std::string_view left = bytes;
  for (std::size_t step = 1; !left.empty(); step = step * 3 % 300'007) {
    stream.Write(left.substr(0, step));
    left.remove_prefix(std::min(step, left.size()));
  }
  stream.End();
  EXPECT_TRUE(Decompressed(bytes.size()) == bytes);
}

TEST_F(ZstdStreamTest, TextWithoutRepetitionIsCompressedAtNegativeLevelsToo) {
  std::string digits = RandomBytes(3'000'000);  // of 3.3 bits each
  for (char& digit : digits) digit = static_cast<char>('0' + static_cast<unsigned char>(digit) % 10);
  ZstdStream stream(fd_.get(), -2);
  stream.Write(digits);
  stream.End();
  EXPECT_LT(stream.size(), digits.size() / 2);
  EXPECT_TRUE(Decompressed(digits.size()) == digits);
}

TEST_F(ZstdStreamTest, SizeAndSumAreThoseOfTheFile) {
  ZstdStream stream(fd_.get(), 1);
  stream.Write(std::string(3'000'000, 'a') + RandomBytes(1'000'000));
  stream.End();
  EXPECT_EQ(stream.size(), fs::file_size(path_));
  EXPECT_EQ(stream.Sum(), Sha256Of(ReadText(path_)));
}

TEST_F(ZstdStreamTest, EachPartHasItsDigestHoweverItIsCutIntoBlocks) {
  ZstdStream stream(fd_.get(), 1);
  std::string expected;
  for (const std::size_t size : {0U, 1U, 3'000'000U, 262'144U, 0U, 100'000U, 700'001U}) {
    const std::string bytes = RandomBytes(size);
    stream.Write("between the parts");
    stream.BeginPart();
    stream.Write(std::string_view(bytes).substr(0, size / 3));
    stream.Write(std::string_view(bytes).substr(size / 3));
    stream.EndPart();
    expected += Sha256Of(bytes);
    if (size == 262'144) {
      EXPECT_EQ(stream.PartSums(), expected) << "asked for in between";
    }
  }
  stream.Write("behind the last one");
  EXPECT_EQ(stream.PartSums(), expected);
  stream.End();
}

TEST_F(ZstdStreamTest, FrameCarriesAChecksum) {
  ZstdStream stream(fd_.get(), 1);
  stream.Write("some text");
  stream.End();
  std::string file = ReadText(path_);
  file.back() = static_cast<char>(file.back() ^ 1);
  std::string text(100, '\0');
  EXPECT_STREQ(ZSTD_getErrorName(ZSTD_decompress(text.data(), text.size(), file.data(), file.size())),
               "Restored data doesn't match checksum");
}

TEST_F(ZstdStreamTest, EmptyStreamIsAValidFrame) {
  ZstdStream stream(fd_.get(), 1);
  stream.End();
  EXPECT_EQ(Decompressed(0), "");
}

TEST_F(ZstdStreamTest, SizeBoundHoldsForWhatCanNotBeCompressed) {
  const std::string bytes = RandomBytes(1'000'000);
  ZstdStream stream(fd_.get(), 1);
  std::vector<std::uint64_t> bounds;
  for (unsigned i = 0; i < 40; ++i) {
    bounds.push_back(stream.SizeBound((40U - i) * bytes.size()));
    stream.Write(bytes);
  }
  bounds.push_back(stream.SizeBound(0));
  stream.End();
  EXPECT_LE(stream.size(), *std::min_element(bounds.begin(), bounds.end()));
}

TEST_F(ZstdStreamTest, SizeBoundCountsWhatIsInTheFileOnlyOnce) {
  const std::string bytes = RandomBytes(1'000'000);
  ZstdStream stream(fd_.get(), 1);
  std::uint64_t given = 0;
  for (; stream.size() == 0; given += bytes.size()) stream.Write(bytes);
  EXPECT_LE(stream.SizeBound(0), given + given / 100);
  stream.End();
}

TEST_F(ZstdStreamTest, ProcessWithOneCoreStartsNoThread) {
  std::size_t threads = 0;
  std::thread pinned([&] {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    const std::size_t before = Threads();
    ZstdStream stream(fd_.get(), 1);
    stream.Write(std::string(8'000'000, 'a'));
    threads = Threads() - before;
    stream.End();
  });
  pinned.join();
  EXPECT_EQ(threads, 0U);
  EXPECT_EQ(Decompressed(8'000'000), std::string(8'000'000, 'a'));
}

TEST_F(ZstdStreamTest, ProcessWithSeveralCoresHasAThreadForEachOfUpToFourAndOneThatFeedsThem) {
  cpu_set_t cores;
  ASSERT_EQ(sched_getaffinity(0, sizeof cores, &cores), 0);
  const auto count = static_cast<std::size_t>(CPU_COUNT(&cores));
  if (count < 2) GTEST_SKIP() << "one core";
  const std::size_t before = Threads();
  ZstdStream stream(fd_.get(), 1);
  stream.Write(RandomBytes(5'000'000));
  EXPECT_TRUE(Eventually([&] { return Threads() - before == std::min(count, std::size_t{4}) + 1; }))
      << Threads() - before;
}

TEST_F(ZstdStreamTest, FullDiskIsAnErrorThatNamesItsCause) {
  const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  ZstdStream stream(full.get(), 1);
  stream.Write("text");
  EXPECT_THAT([&] { stream.End(); },
              testing::ThrowsMessage<std::runtime_error>(testing::HasSubstr("No space left on device")));
}

TEST_F(ZstdStreamTest, FullDiskIsFoundWhileWritingToo) {
  const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  const std::string bytes = RandomBytes(1'000'000);
  ZstdStream stream(full.get(), 1);
  EXPECT_THAT(
      [&] {
        for (int i = 0; i < 40; ++i) stream.Write(bytes);
      },
      testing::ThrowsMessage<std::runtime_error>(testing::HasSubstr("No space left on device")));
}

TEST_F(ZstdStreamTest, StreamThatIsNotEndedStopsItsThreads) {
  const std::size_t before = Threads();
  {
    ZstdStream stream(fd_.get(), 1);
    stream.Write(RandomBytes(5'000'000));
  }
  EXPECT_TRUE(Eventually([&] { return Threads() == before; }));
}

}  // namespace
}  // namespace TARVO::SupportForm
