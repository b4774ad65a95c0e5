#include "check.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "check_matchers.h"

namespace DebugDatCheck {
namespace {

TEST(CheckTest, RefusedAccessAdvisesAnOrdinaryUserToRunItAsRoot) {
  const AsOrdinaryUser ordinary_user;
  EXPECT_THAT(Problem("x", "/etc/secret can't be read", "Write it", EACCES), Advises("as root"));
}

TEST(CheckTest, RefusedAccessAdvisesRootToGiveTheDaemonsUserTheRight) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can look with another user's rights";
  ASSERT_EQ(setresuid(0, kNobody, 0), 0);
  const Check check = Problem("x", "/etc/secret can't be read", "Write it", EACCES);
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_THAT(check, Advises("The daemon runs as the user nobody"));
}

TEST(CheckTest, OtherProblemsKeepTheirAdvice) {
  const AsOrdinaryUser ordinary_user;
  EXPECT_EQ(Problem("x", "/etc/secret can't be read", "Write it", ENOENT).advice, "Write it");
  EXPECT_EQ(Problem("x", "the server says: Permission denied", "Write it").advice, "Write it");
}

TEST(CheckTest, SkippedCheckTellsTheCause) {
  EXPECT_THAT(Skipped("x", "there is no address"), WasSkipped("not checked: there is no address"));
}

}  // namespace
}  // namespace DebugDatCheck
