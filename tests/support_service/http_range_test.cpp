#include "http_range.h"

#include <gtest/gtest.h>

#include <limits>
#include <ostream>

namespace TarvoOrvane::SupportService {
namespace {

constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();

struct RangeCase {
  const char* header;
  std::uint64_t file_size;
  std::optional<ByteRange> range;
};

void PrintTo(const RangeCase& row, std::ostream* out) { *out << row.header << " of " << row.file_size; }

class HttpRangeTest : public ::testing::TestWithParam<RangeCase> {};

TEST_P(HttpRangeTest, IsRead) {
  const auto range = ParseRange(GetParam().header, GetParam().file_size);
  ASSERT_EQ(range.has_value(), GetParam().range.has_value());
  if (!range) return;
  EXPECT_EQ(range->offset, GetParam().range->offset);
  EXPECT_EQ(range->size, GetParam().range->size);
  EXPECT_EQ(range->is_part, GetParam().range->is_part);
}

constexpr ByteRange kAll = {0, 100, false};

INSTANTIATE_TEST_SUITE_P(
    Parts, HttpRangeTest,
    ::testing::Values(RangeCase{"bytes=0-9", 100, ByteRange{0, 10, true}},
                      RangeCase{"BYTES=10-10", 100, ByteRange{10, 1, true}},
                      RangeCase{"bytes=99-99", 100, ByteRange{99, 1, true}},
                      RangeCase{"bytes=0-99", 100, ByteRange{0, 100, true}},
                      RangeCase{"bytes=90-100", 100, ByteRange{90, 10, true}},
                      RangeCase{"bytes=90-99999999999999999999", 100, ByteRange{90, 10, true}},
                      RangeCase{"bytes=0-", 100, ByteRange{0, 100, true}},
                      RangeCase{"bytes=99-", 100, ByteRange{99, 1, true}},
                      RangeCase{"bytes=-1", 100, ByteRange{99, 1, true}},
                      RangeCase{"bytes=-100", 100, ByteRange{0, 100, true}},
                      RangeCase{"bytes=-101", 100, ByteRange{0, 100, true}},
                      RangeCase{"bytes=-99999999999999999999", 100, ByteRange{0, 100, true}},
                      RangeCase{"bytes=1-18446744073709551615", kLargest, ByteRange{1, kLargest - 1, true}}));

INSTANTIATE_TEST_SUITE_P(Unsatisfiable, HttpRangeTest,
                         ::testing::Values(RangeCase{"bytes=100-", 100, std::nullopt},
                                           RangeCase{"bytes=100-200", 100, std::nullopt},
                                           RangeCase{"bytes=18446744073709551616-", 100, std::nullopt},
                                           RangeCase{"bytes=-0", 100, std::nullopt},
                                           RangeCase{"bytes=0-", 0, std::nullopt}));

INSTANTIATE_TEST_SUITE_P(
    Ignored, HttpRangeTest,
    ::testing::Values(RangeCase{"", 100, kAll}, RangeCase{"bytes", 100, kAll}, RangeCase{"bytes=", 100, kAll},
                      RangeCase{"bytes=-", 100, kAll}, RangeCase{"bytes=5", 100, kAll},
                      RangeCase{"bytes=9-5", 100, kAll}, RangeCase{"bytes=0-1,5-6", 100, kAll},
                      RangeCase{"bytes=0-1,", 100, kAll}, RangeCase{"bytes=a-b", 100, kAll},
                      RangeCase{"bytes=0x1-2", 100, kAll}, RangeCase{"bytes=--5", 100, kAll},
                      RangeCase{"bytes=+1-2", 100, kAll}, RangeCase{"bytes= 1-2", 100, kAll},
                      RangeCase{"items=0-1", 100, kAll}, RangeCase{"bytes=-5", 0, ByteRange{0, 0, false}}));

TEST(HttpRangeTextTest, TellsThePartAndTheWhole) {
  EXPECT_EQ(ContentRange({10, 5, true}, 100), "bytes 10-14/100");
  EXPECT_EQ(UnsatisfiedRange(100), "bytes */100");
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
