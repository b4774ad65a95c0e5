#include "allowance.h"

#include <gtest/gtest.h>

namespace TarvoOrvane::Internal {
namespace {

using std::chrono::milliseconds;

TEST(AllowanceTest, SoManyAtOnceThenOnePerInterval) {
  const auto start = Allowance::Clock::time_point() + std::chrono::hours(1);
  Allowance allowance(3, milliseconds(200));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(allowance.Take(start));
  EXPECT_FALSE(allowance.Take(start));
  EXPECT_EQ(allowance.Next(), start + milliseconds(200));
  EXPECT_FALSE(allowance.Take(start + milliseconds(199)));
  EXPECT_TRUE(allowance.Take(start + milliseconds(200)));
  EXPECT_FALSE(allowance.Take(start + milliseconds(200)));
  EXPECT_TRUE(allowance.Take(start + milliseconds(400)));
}

TEST(AllowanceTest, NoMoreThanThatComeTogetherHoweverLongNoneWasUsed) {
  const auto start = Allowance::Clock::time_point() + std::chrono::hours(1);
  Allowance allowance(3, milliseconds(200));
  EXPECT_TRUE(allowance.Take(start));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(allowance.Take(start + std::chrono::hours(1)));
  EXPECT_FALSE(allowance.Take(start + std::chrono::hours(1)));
}

}  // namespace
}  // namespace TarvoOrvane::Internal
