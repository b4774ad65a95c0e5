#include "unpacker.h"

#include <gmock/gmock.h>
#include <lzma.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

using testing::HasSubstr;

/// Gives `bytes` in pieces of `step`.
Unpacker::Input PiecesOf(std::string bytes, std::size_t step) {
  return [bytes = std::move(bytes), step, at = std::size_t{0}](char* buffer, std::size_t capacity) mutable {
    const std::size_t count = std::string_view(bytes).substr(at).copy(buffer, std::min(step, capacity));
    at += count;
    return static_cast<ssize_t>(count);
  };
}

struct Unpacked {
  std::string text;
  std::string failure;
  bool has_tail = false;
};

Unpacked Unpack(Packing packing, const std::string& bytes, std::size_t step = 65536,
                std::size_t capacity = 4096) {
  Unpacker unpacker(packing, PiecesOf(bytes, step));
  Unpacked result;
  std::string buffer(capacity, '\0');
  for (;;) {
    const ssize_t count = unpacker.Read(buffer.data(), buffer.size());
    if (count <= 0) {
      EXPECT_EQ(count < 0, !unpacker.failure().empty());
      break;
    }
    result.text.append(buffer, 0, static_cast<std::size_t>(count));
  }
  result.failure = unpacker.failure();
  result.has_tail = unpacker.has_tail();
  return result;
}

class UnpackerTest : public testing::TestWithParam<Packing> {
 protected:
  [[nodiscard]] std::string PackedText() const { return Packed(GetParam(), text_); }

  std::string text_ = RandomLetters(200'000) + std::string(300'000, 'z');
};

TEST_P(UnpackerTest, GivesTheTextHoweverItIsRead) {
  const std::string packed = PackedText();
  EXPECT_EQ(PackingOf(packed), GetParam());
  for (const auto& [step, capacity] :
       {std::pair{65536U, 131072U}, std::pair{1U, 1000U}, std::pair{70'000U, 7U}}) {
    const Unpacked unpacked = Unpack(GetParam(), packed, step, capacity);
    EXPECT_TRUE(unpacked.text == text_) << step;
    EXPECT_EQ(unpacked.failure, "");
    EXPECT_FALSE(unpacked.has_tail);
  }
}

TEST_P(UnpackerTest, GoesOnThroughZerosIntoTheNextPartAndCountsNoZerosAsATail) {
  const std::string zeros(100'000, '\0');
  const Unpacked unpacked = Unpack(GetParam(), PackedText() + PackedText() + zeros + PackedText() + zeros);
  EXPECT_TRUE(unpacked.text == text_ + text_ + text_);
  EXPECT_EQ(unpacked.failure, "");
  EXPECT_FALSE(unpacked.has_tail);
}

TEST_P(UnpackerTest, EndsBeforeWhatIsNotCompressedAndTellsSo) {
  for (const char* tail : {"x", "garbage that is no part"}) {
    const Unpacked unpacked = Unpack(GetParam(), PackedText() + tail, 100);
    EXPECT_TRUE(unpacked.text == text_);
    EXPECT_EQ(unpacked.failure, "");
    EXPECT_TRUE(unpacked.has_tail);
  }
}

TEST_P(UnpackerTest, WhatIsCutIsAFailureWhereverItIsCut) {
  const std::string packed = PackedText();
  for (const std::size_t size : {6UL, 17UL, packed.size() / 2, packed.size() - 1}) {
    EXPECT_THAT(Unpack(GetParam(), packed.substr(0, size)).failure, HasSubstr("ends too early")) << size;
  }
}

TEST_P(UnpackerTest, WhatIsDamagedIsAFailure) {
  std::string packed = PackedText();
  packed.replace(14, 30, 30, '\xff');
  EXPECT_EQ(Unpack(GetParam(), packed).failure, "damaged");
  EXPECT_EQ(Unpack(GetParam(), "no such data").failure, "damaged");
  EXPECT_EQ(Unpack(GetParam(), "").failure, "damaged");
}

TEST_P(UnpackerTest, ReadErrorIsAFailureThatNamesItsCause) {
  Unpacker unpacker(GetParam(), [](char*, std::size_t) {
    errno = EIO;
    return ssize_t{-1};
  });
  char byte = 0;
  EXPECT_LT(unpacker.Read(&byte, 1), 0);
  EXPECT_THAT(unpacker.failure(), HasSubstr("Input/output error"));
}

TEST_P(UnpackerTest, EmptyTextIsEmpty) {
  const Unpacked unpacked = Unpack(GetParam(), Packed(GetParam(), ""));
  EXPECT_EQ(unpacked.text + unpacked.failure, "");
}

INSTANTIATE_TEST_SUITE_P(Each, UnpackerTest, testing::Values(Packing::kGzip, Packing::kXz, Packing::kZstd),
                         [](const testing::TestParamInfo<Packing>& row) { return NameOf(row.param); });

/// xz data whose head claims a window of 2 to the power `log`.
std::string XzWithWindow(unsigned log) {
  std::string packed = Packed(Packing::kXz, "a text");
  constexpr std::size_t kBlockHeader = 12;
  packed[kBlockHeader + 4] = static_cast<char>(2 * (log - 12));
  const auto* header =
      static_cast<const std::uint8_t*>(static_cast<const void*>(packed.data() + kBlockHeader));
  const std::uint32_t sum = lzma_crc32(header, 8, 0);
  for (unsigned i = 0; i < 4; ++i) packed[kBlockHeader + 8 + i] = static_cast<char>(sum >> (8 * i));
  return packed;
}

/// A zstd frame with a window of 2 to the power `log` and one block as it is.
std::string ZstdWithWindow(unsigned log) {
  const std::string text = "a text";
  return std::string("\x28\xb5\x2f\xfd\0", 5) + static_cast<char>((log - 10) << 3U) +
         static_cast<char>(1U | text.size() << 3U) + std::string(2, '\0') + text;
}

TEST(UnpackerWindowTest, WindowOf64MebibytesIsEnoughForAllAndALargerOneIsRefused) {
  EXPECT_EQ(Unpack(Packing::kXz, XzWithWindow(26)).text, "a text");
  EXPECT_EQ(Unpack(Packing::kZstd, ZstdWithWindow(26)).text, "a text");
  for (const unsigned log : {27U, 30U}) {
    EXPECT_THAT(Unpack(Packing::kXz, XzWithWindow(log)).failure, HasSubstr("window of more than")) << log;
    EXPECT_THAT(Unpack(Packing::kZstd, ZstdWithWindow(log)).failure, HasSubstr("window of more than")) << log;
  }
}

TEST(UnpackerWindowTest, FrameThatComesWholeIsJudgedAsOneInPieces) {
  std::string large_window = ZstdWithWindow(27);
  large_window[4] = '\x80';  // with its content's size, and so the library could skip the window
  large_window.insert(6, std::string("\6\0\0\0", 4));
  const std::string nothing_of_13_bytes("\x28\xb5\x2f\xfd\x20\x0d\1\0\0", 9);
  for (const std::string& frame : {large_window, nothing_of_13_bytes}) {
    const Unpacked whole = Unpack(Packing::kZstd, frame);
    const Unpacked pieces = Unpack(Packing::kZstd, frame, 1);
    EXPECT_EQ(whole.failure, pieces.failure);
    EXPECT_EQ(whole.text, pieces.text);
  }
  EXPECT_THAT(Unpack(Packing::kZstd, large_window).failure, HasSubstr("window of more than"));
}

TEST(UnpackerWindowTest, SecondPartIsHeldToTheSameLimit) {
  const Unpacked unpacked = Unpack(Packing::kXz, Packed(Packing::kXz, "first") + XzWithWindow(30));
  EXPECT_EQ(unpacked.text, "first");
  EXPECT_THAT(unpacked.failure, HasSubstr("window of more than"));
}

TEST(PackingOfTest, TextAndShortFilesAreNotCompressed) {
  for (const std::string& head : {std::string(), std::string("\x1f\x8b"), std::string("an ordinary line\n"),
                                  std::string("PK\3\4"), std::string("BZh9")}) {
    EXPECT_EQ(PackingOf(head), Packing::kNone) << head;
  }
  EXPECT_EQ(PackingOf(std::string("\x5f\x2a\x4d\x18\0\0\0\0", 8)), Packing::kZstd) << "a frame to be skipped";
}

}  // namespace
}  // namespace TARVO::SupportForm
