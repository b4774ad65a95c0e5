#include "attempt_limit.h"

#include <gtest/gtest.h>

#include <string>

namespace TarvoOrvane::SupportService {
namespace {

using std::chrono::seconds;

class AttemptLimitTest : public ::testing::Test {
 protected:
  std::chrono::steady_clock::time_point now_{seconds(1000)};
  AttemptLimit limit_{3, seconds(20), [this] { return now_; }};
};

TEST_F(AttemptLimitTest, LetsABurstPassAndThenOneAfterEachPause) {
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(limit_.Try("a"));
  EXPECT_FALSE(limit_.Try("a"));
  EXPECT_TRUE(limit_.Try("b")) << "others have a burst of their own";
  now_ += seconds(20);
  EXPECT_TRUE(limit_.Try("a"));
  EXPECT_FALSE(limit_.Try("a"));
  now_ += seconds(60);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(limit_.Try("a"));
  EXPECT_FALSE(limit_.Try("a"));
}

TEST_F(AttemptLimitTest, SuccessCostsNothing) {
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(limit_.Try("a"));
    limit_.Forgive("a");
  }
  limit_.Forgive("nobody");
}

TEST_F(AttemptLimitTest, ManyKeysTakeABoundedRoomAndPassAway) {
  for (std::size_t i = 0; i < AttemptLimit::kMaxKeys; ++i) EXPECT_TRUE(limit_.Try(std::to_string(i)));
  EXPECT_FALSE(limit_.Try("one more"));
  EXPECT_TRUE(limit_.Try("7")) << "who is known may go on";
  now_ += seconds(41);
  EXPECT_TRUE(limit_.Try("one more"));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
