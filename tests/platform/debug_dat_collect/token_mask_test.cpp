#include "token_mask.h"

#include <gtest/gtest.h>
#include <json/writer.h>

#include <ostream>
#include <string>
#include <vector>

#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

struct TokenCase {
  const char* name;
  std::string text;
  std::string masked;
};

void PrintTo(const TokenCase& item, std::ostream* out) { *out << item.name; }

class TokenMaskTest : public testing::TestWithParam<TokenCase> {};

/// Masks the text in blocks that end at the given offsets.
std::string MaskedInBlocks(const std::string& text, const std::vector<std::size_t>& cuts) {
  TokenMask mask;
  std::string out;
  std::string block;
  std::size_t at = 0;
  for (const std::size_t cut : cuts) {
    block += text.substr(at, cut - at);
    at = cut;
    const std::size_t decided = mask.Mask(block.data(), block.size(), at == text.size());
    EXPECT_EQ(block.substr(decided), text.substr(out.size() + decided, block.size() - decided));
    out += block.substr(0, decided);
    block.erase(0, decided);
  }
  return out;
}

TEST_P(TokenMaskTest, GivesTheMaskedTextAtEverySplitPoint) {
  const TokenCase& item = GetParam();
  ASSERT_EQ(item.text.size(), item.masked.size());
  for (std::size_t first = 0; first <= item.text.size(); ++first) {
    for (std::size_t second = first; second <= item.text.size(); ++second) {
      ASSERT_EQ(MaskedInBlocks(item.text, {first, second, item.text.size()}), item.masked)
          << "split at " << first << " and " << second;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, TokenMaskTest,
    testing::Values(
        TokenCase{"Nothing", "", ""},
        TokenCase{"NoToken", R"(plain text with "quotes" and \ in it)",
                  R"(plain text with "quotes" and \ in it)"},
        TokenCase{"Compact", R"({"apps":["a"],"token":"abc"} tail)", R"({"apps":["a"],"token":"***"} tail)"},
        TokenCase{"Blanks", "\"token\" \t: \n \"abc\"", "\"token\" \t: \n \"***\""},
        TokenCase{"LineEndsStay", "\"token\":[\"ab\",\r\n\"cd\"] \"token\":\"a\rb",
                  "\"token\":******\r\n***** \"token\":\"*\r*"},
        TokenCase{"Empty", R"("token":"","x":"y")", R"("token":"","x":"y")"},
        TokenCase{"TwoInOneLine", R"("token":"a" "token":"bc" "d")", R"("token":"*" "token":"**" "d")"},
        TokenCase{"EscapedQuoteInside", R"("token":"a\"b" "c")", R"("token":"****" "c")"},
        TokenCase{"EscapedBackslashAtTheEnd", R"("token":"a\\" "c")", R"("token":"***" "c")"},
        TokenCase{"EscapedBackslashAndQuote", R"("token":"a\\\"b" "c")", R"("token":"******" "c")"},
        TokenCase{"OneLevelDown", R"("msg":"{\"token\":\"abc\",\"apps\":[]}" "c")",
                  R"("msg":"{\"token\":\"***\",\"apps\":[]}" "c")"},
        TokenCase{"OneLevelDownWithBlanks", R"(\"token\" : \"abc\" x)", R"(\"token\" : \"***\" x)"},
        TokenCase{"OneLevelDownWithWrittenOutLineEnd", R"(\"token\":\n\t\"abc\" x)",
                  R"(\"token\":\n\t\"***\" x)"},
        TokenCase{"OneLevelDownQuoteInside", R"(\"token\":\"a\\\"b\" \"c\")",
                  R"(\"token\":\"******\" \"c\")"},
        TokenCase{"OneLevelDownBackslashAtTheEnd", R"(\"token\":\"a\\\\\" \"c\")",
                  R"(\"token\":\"*****\" \"c\")"},
        TokenCase{"TwoLevelsDown", R"(\\\"token\\\":\\\"abc\\\" d)", R"(\\\"token\\\":\\\"***\\\" d)"},
        TokenCase{"TwoLevelsDownQuoteInside", R"(\\\"token\\\":\\\"a\\\\\\\"b\\\" d)",
                  R"(\\\"token\\\":\\\"**********\\\" d)"},
        TokenCase{"ThreeLevelsDown", R"(\\\\\\\"token\\\\\\\":\\\\\\\"abc\\\\\\\" d)",
                  R"(\\\\\\\"token\\\\\\\":\\\\\\\"***\\\\\\\" d)"},
        TokenCase{"CutByTheEndOfTheText", R"({"token":"abc)", R"({"token":"***)"},
        TokenCase{"CutInsideAnEscape", R"({"token":"abc\)", R"({"token":"****)"},
        TokenCase{"CutByTheEndOfTheLine", "\"token\":\"abc\nnext \"line\"", "\"token\":\"***\nnext \"line\""},
        TokenCase{"CutEscapeByTheEndOfTheLine", "\"token\":\"abc\\\nnext", "\"token\":\"****\nnext"},
        TokenCase{"CutByTheStringAround", R"("{\"token\":\"abc","next":"x")",
                  R"("{\"token\":\"***","next":"x")"},
        TokenCase{"CutBeforeTheValueByTheStringAround", R"("{\"token\":","token":"x")",
                  R"("{\"token\":","token":"*")"},
        TokenCase{"Number", R"({"token":12345,"a":1})", R"({"token":*****,"a":1})"},
        TokenCase{"NumberAtTheEnd", R"("token":12)", R"("token":**)"},
        TokenCase{"NumberBeforeABracket", R"({"token": -1.5} x)", R"({"token": ****} x)"},
        TokenCase{"NumberOneLevelDown", R"("{\"token\":12" x)", R"("{\"token\":**" x)"},
        TokenCase{"Null", R"({"token":null})", R"({"token":****})"},
        TokenCase{"Array", R"({"token":["a]",{"b":"c\"}"}],"d":"e"})",
                  R"({"token":*******************,"d":"e"})"},
        TokenCase{"ObjectOverLines", "{\"token\" : \n{\"a\":\n\"b\"},\"d\":1}",
                  "{\"token\" : \n*****\n****,\"d\":1}"},
        TokenCase{"ArrayOneLevelDown", R"("{\"token\":[\"a\"],\"b\":\"c\"}")",
                  R"("{\"token\":*******,\"b\":\"c\"}")"},
        TokenCase{"ArrayCutByTheStringAround", R"("{\"token\":[\"ab","next":["x"])",
                  R"("{\"token\":*****","next":["x"])"},
        TokenCase{"ArrayCutByTheEndOfTheLine", "\"token\":[\"ab\nnext \"line\"",
                  "\"token\":****\nnext \"line\""},
        TokenCase{"OtherNames", R"("tokens":"a","auth_token":"b","toke":"c","Token":"d")",
                  R"("tokens":"a","auth_token":"b","toke":"c","Token":"d")"},
        TokenCase{"TokenAsAValue", R"("x":"token","y":"z")", R"("x":"token","y":"z")"},
        TokenCase{"QuoteBeforeTheName", R"(""token":"a")", R"(""token":"*")"},
        TokenCase{"NameAfterAHalfName", R"("tok"token":"a")", R"("tok"token":"*")"},
        TokenCase{"NameAfterAName", R"("token""token":"a")", R"("token""token":"*")"},
        TokenCase{"NoValue", R"({"token":,"a":"b"})", R"({"token":,"a":"b"})"},
        TokenCase{"NoColon", R"("token" "a":"b")", R"("token" "a":"b")"},
        TokenCase{"LineOfADaemon",
                  "Receive a request({\"apps\":[\"a\"],\"token\":\"s3cr\\u00e9t\"}) from the server\nnext",
                  "Receive a request({\"apps\":[\"a\"],\"token\":\"***********\"}) from the server\nnext"},
        TokenCase{"OtherBytes", std::string("\0\"token\":\"\0\xff\"\0", 14),
                  std::string("\0\"token\":\"**\"\0", 14)}),
    [](const testing::TestParamInfo<TokenCase>& item) { return item.param.name; });

/// What "token" holds in a text that was wrapped as a string so many times; the other member must be whole.
std::string Unwrap(std::string text, int levels) {
  for (; levels > 0; --levels) text = ParseJson(text)["msg"].asString();
  const Json::Value inner = ParseJson(text);
  EXPECT_EQ(inner["after"].asString(), "whole \"\\");
  return inner["token"].asString();
}

TEST(TokenMaskNestingTest, TextQuotedAnyNumberOfTimesStaysJsonWithOnlyTheTokenMasked) {
  // Every value of up to four of the characters that matter, in JSON in a string in a string ...
  const std::string alphabet = "a\"\\\n";
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  for (unsigned code = 0; code < 5 * 256; ++code) {
    const unsigned length = code / 256;
    std::string value;
    for (unsigned i = 0; i < length; ++i) value.push_back(alphabet[code >> (2 * i) & 3U]);
    Json::Value inner;
    inner["token"] = value;
    inner["after"] = "whole \"\\";
    std::string text = Json::writeString(writer, inner);
    for (int level = 0; level < 5; ++level) {
      const std::string token = Unwrap(Masked(text), level);
      EXPECT_EQ(token, std::string(token.size(), '*')) << text;
      EXPECT_GE(token.size(), value.size()) << text;
      Json::Value wrapped;
      wrapped["msg"] = text;
      text = Json::writeString(writer, wrapped);
    }
  }
}

TEST(TokenMaskEndTest, StartsAfreshBehindTheEndOfAText) {
  TokenMask mask;
  std::string first = R"("token":"ab)";
  std::string second = "plain";
  EXPECT_EQ(mask.Mask(first.data(), first.size(), true), first.size());
  EXPECT_EQ(mask.Mask(second.data(), second.size(), true), second.size());
  EXPECT_EQ(first + second, R"("token":"**plain)");
}

TEST(TokenMaskCountTest, CountsValuesThatHoldSomething) {
  TokenMask mask;
  std::string text = R"({"token":"abc","x":{"token":["a","b"]},"token":"","y":"\"token\":\"d\"","token":)";
  EXPECT_EQ(mask.Mask(text.data(), text.size(), true), text.size());
  EXPECT_EQ(mask.count(), 3U);
}

TEST(TokenMaskBackslashTest, HoldsBackNoMoreBackslashesThanAnyQuotingNeeds) {
  const std::string head = R"({"token":"a)";
  const std::string text = head + std::string(3 * TokenMask::kMaxBackslashes, '\\') + "b\" c";
  const std::string expected = R"({"token":")" + std::string(text.size() - head.size() - 2, '*') + "\" c";
  std::vector<std::size_t> cuts;
  for (std::size_t cut = 7; cut < text.size(); cut += 997) cuts.push_back(cut);
  cuts.push_back(text.size());
  EXPECT_EQ(MaskedInBlocks(text, cuts), expected);
  TokenMask mask;
  std::string block = text.substr(0, text.size() - 4);
  EXPECT_GT(mask.Mask(block.data(), block.size(), false) + TokenMask::kMaxBackslashes, block.size());
}

}  // namespace
}  // namespace TARVO::SupportForm
