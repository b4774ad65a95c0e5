#include "passwords.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace TarvoOrvane::SupportService {
namespace {

using ::testing::StartsWith;

TEST(PasswordTest, IsKnownByItsHashAlone) {
  const std::string hash = HashPassword("correct horse");
  EXPECT_THAT(hash, StartsWith("$argon2id$"));
  EXPECT_NE(hash, HashPassword("correct horse")) << "each has a salt of its own";
  EXPECT_TRUE(IsPassword("correct horse", hash));
  EXPECT_FALSE(IsPassword("correct horsf", hash));
  EXPECT_FALSE(IsPassword("", hash));
  EXPECT_FALSE(IsPassword("correct horse", "no hash"));
}

TEST(PasswordTest, HasTenToTwoHundredBytes) {
  EXPECT_NE(PasswordFault(std::string(9, 'x')), "");
  EXPECT_EQ(PasswordFault(std::string(10, 'x')), "");
  EXPECT_EQ(PasswordFault(std::string(200, 'x')), "");
  EXPECT_NE(PasswordFault(std::string(201, 'x')), "");
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
