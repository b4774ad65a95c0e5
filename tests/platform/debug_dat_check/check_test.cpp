#include "check.h"

#include <gtest/gtest.h>

#include "check_matchers.h"

namespace DebugDatCheck {
namespace {

TEST(CheckTest, RefusedAccessAdvisesAnOrdinaryUserToRunItAsRoot) {
  const AsOrdinaryUser ordinary_user;
  EXPECT_THAT(Problem("x", "/etc/secret can't be read: Permission denied", "Write it"), Advises("as root"));
}

TEST(CheckTest, OtherProblemsKeepTheirAdvice) {
  const AsOrdinaryUser ordinary_user;
  EXPECT_EQ(Problem("x", "/etc/secret can't be read: No such file or directory", "Write it").advice,
            "Write it");
}

TEST(CheckTest, SkippedCheckTellsTheCause) {
  EXPECT_THAT(Skipped("x", "there is no address"), WasSkipped("not checked: there is no address"));
}

}  // namespace
}  // namespace DebugDatCheck
