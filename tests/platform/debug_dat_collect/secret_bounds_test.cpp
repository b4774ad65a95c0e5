/// How far the built-in rules look: a secret within a bound is masked, one beyond it passes, as docs/redaction.md says.
/// Neither hides the secret in the line behind it.
#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>

#include "redactor.h"

namespace TARVO::SupportForm {
namespace {

/// A text with a secret and, before it, so much of what the bound is about.
struct Bound {
  const char* name;
  std::size_t within;                            ///< The most with which the secret is masked.
  std::size_t beyond;                            ///< The least with which all of it passes.
  std::function<std::string(std::size_t)> text;  ///< The secret is "7777777".
};

void PrintTo(const Bound& bound, std::ostream* out) { *out << bound.name; }

std::function<std::string(std::size_t)> Repeats(char byte, const std::string& begin, const std::string& end) {
  return [=](std::size_t count) { return begin + std::string(count, byte) + end; };
}

std::string Masked(std::string text) {
  static const RedactionRules rules("/nonexistent/patterns");
  Redactor redactor(&rules);
  EXPECT_EQ(redactor.Process(text.data(), text.size(), true), text.size());
  return text;
}

class SecretBoundsTest : public testing::TestWithParam<Bound> {};

TEST_P(SecretBoundsTest, EndThereAndHideNothingBehind) {
  const Bound& bound = GetParam();
  const std::string behind = "\npassword=";
  const std::string within = Masked(bound.text(bound.within) + behind + "another1\n");
  EXPECT_EQ(within.find('7'), std::string::npos) << within;
  EXPECT_NE(within.find(behind + "********\n"), std::string::npos) << within;
  const std::string beyond = Masked(bound.text(bound.beyond) + behind + "another1\n");
  EXPECT_NE(beyond.find("7777777"), std::string::npos) << beyond;
  EXPECT_NE(beyond.find(behind + "********\n"), std::string::npos) << beyond;
}

TEST(SecretBoundsOfALineTest, CommandBehindManyOthersOfItsLineIsSearched) {
  std::string line;
  for (int count = 0; count < 40; ++count) line += "curl -u a:abc123; ";
  EXPECT_EQ(Masked(line + "mysql -p7777777\n").find('7'), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Each, SecretBoundsTest,
    testing::Values(
        Bound{"BlanksBeforeTheSign", 256, 257, Repeats(' ', "a b: password", "=7777777 c")},
        Bound{"BlanksBehindTheSign", 256, 257, Repeats(' ', "a b: password=", "7777777 c")},
        Bound{"NameBehindItsTellingWord", 195, 196, Repeats('x', "password_", "=7777777")},
        Bound{"UserAndPasswordOfAnUrl", 1012, 1013, Repeats('x', "http://bob", ":7777777@host/")},
        Bound{"WebTokenUpToItsFirstDot", 511, 512, Repeats('x', "a eyJ", ".7777777 c")},
        Bound{"CommandLine", 2038, 2039, Repeats('x', "mysql ", " -p7777777 db")},
        Bound{"BlockOfYaml", 32700, 32800, Repeats('x', "password: |\n  ", "\n  7777777")},
        Bound{"TripleQuotes", 32700, 32800, Repeats('x', "password = \"\"\"\n", "\n7777777\"\"\"")},
        Bound{"CharacterData", 32700, 32800, Repeats('x', "<password><![CDATA[", "\n7777777]]></password>")}),
    [](const testing::TestParamInfo<Bound>& row) { return row.param.name; });

}  // namespace
}  // namespace TARVO::SupportForm
