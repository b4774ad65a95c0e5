#include "shown_text.h"

#include <gtest/gtest.h>

#include <utility>

namespace TarvoOrvane::ArchiveReader {
namespace {

/// As the format says it.
std::string Encoded(std::uint32_t code) {
  const auto byte = [](std::uint32_t value) { return static_cast<char>(value); };
  if (code < 0x80) return {byte(code)};
  if (code < 0x800) return {byte(0xc0 | code >> 6), byte(0x80 | (code & 0x3f))};
  if (code < 0x10000) {
    return {byte(0xe0 | code >> 12), byte(0x80 | ((code >> 6) & 0x3f)), byte(0x80 | (code & 0x3f))};
  }
  return {byte(0xf0 | code >> 18), byte(0x80 | ((code >> 12) & 0x3f)), byte(0x80 | ((code >> 6) & 0x3f)),
          byte(0x80 | (code & 0x3f))};
}

TEST(ShownTextTest, EveryCharacterIsReadAndNothingElse) {
  for (std::uint32_t code = 0; code < 0x120000; ++code) {
    const std::string text = Encoded(code);
    const Character read = FirstCharacter(text + "x");
    const bool is_character = code <= 0x10ffff && (code < 0xd800 || code > 0xdfff);
    ASSERT_EQ(read.bytes, is_character ? text.size() : 0) << code;
    if (is_character) {
      ASSERT_EQ(read.code, code);
    }
    for (std::size_t size = 0; is_character && size < text.size(); ++size) {
      ASSERT_EQ(FirstCharacter(text.substr(0, size)).bytes, 0U) << code;
      ASSERT_EQ(WholeCharacters("x" + text.substr(0, size)), 1U) << code;
    }
    if (is_character) {
      ASSERT_EQ(WholeCharacters("x" + text), 1 + text.size()) << code;
    }
  }
  for (const char* longer :
       {"\xc0\x80", "\xc1\xbf", "\xe0\x80\x80", "\xe0\x9f\xbf", "\xf0\x80\x80\x80", "\xf0\x8f\xbf\xbf"}) {
    EXPECT_EQ(FirstCharacter(longer).bytes, 0U);
  }
}

TEST(ShownTextTest, NamesThatDifferAreShownDifferently) {
  EXPECT_NE(ShownName("\n"), ShownName("\\x0a"));
  EXPECT_NE(ShownName("\xff"), ShownName("\\xff"));
  EXPECT_NE(ShownName("\\"), ShownName("\\\\"));
}

TEST(ShownTextTest, NoCharacterThatMovesOthersIsShown) {
  for (const std::uint32_t code : {0x00U, 0x1fU, 0x7fU, 0x80U, 0x9fU, 0x61cU, 0x200eU, 0x200fU, 0x2028U,
                                   0x2029U, 0x202aU, 0x202eU, 0x2066U, 0x2069U}) {
    EXPECT_EQ(ShownName(Encoded(code)).substr(0, 2), "\\x") << code;
  }
  for (const std::uint32_t code :
       {0x20U, 0x7eU, 0xa0U, 0xe4U, 0x200dU, 0x2027U, 0x202fU, 0x206aU, 0x4e2dU, 0x1f600U}) {
    EXPECT_EQ(ShownName(Encoded(code)), Encoded(code)) << code;
  }
}

}  // namespace
}  // namespace TarvoOrvane::ArchiveReader
