#include "token_mask.h"

#include <gtest/gtest.h>
#include <json/writer.h>

#include <ostream>
#include <string>

#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

struct Case {
  const char* name;
  std::string text;
  std::string masked;
};

void PrintTo(const Case& item, std::ostream* out) { *out << item.name; }

class TokenMaskTest : public testing::TestWithParam<Case> {};

TEST_P(TokenMaskTest, GivesTheMaskedTextAtEverySplitPoint) {
  const Case& item = GetParam();
  ASSERT_EQ(item.text.size(), item.masked.size());
  for (std::size_t first = 0; first <= item.text.size(); ++first) {
    for (std::size_t second = first; second <= item.text.size(); ++second) {
      TokenMask mask;
      std::string out;
      mask.Feed(std::string_view(item.text).substr(0, first), out);
      mask.Feed(std::string_view(item.text).substr(first, second - first), out);
      mask.Feed(std::string_view(item.text).substr(second), out);
      mask.Finish(out);
      ASSERT_EQ(out, item.masked) << "split at " << first << " and " << second;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, TokenMaskTest,
    testing::Values(
        Case{"Nothing", "", ""},
        Case{"NoToken", R"(plain text with "quotes" and \ in it)", R"(plain text with "quotes" and \ in it)"},
        Case{"Compact", R"({"apps":["a"],"token":"abc"} tail)", R"({"apps":["a"],"token":"***"} tail)"},
        Case{"Blanks", "\"token\" \t: \n \"abc\"", "\"token\" \t: \n \"***\""},
        Case{"Empty", R"("token":"","x":"y")", R"("token":"","x":"y")"},
        Case{"TwoInOneLine", R"("token":"a" "token":"bc" "d")", R"("token":"*" "token":"**" "d")"},
        Case{"EscapedQuoteInside", R"("token":"a\"b" "c")", R"("token":"****" "c")"},
        Case{"EscapedBackslashAtTheEnd", R"("token":"a\\" "c")", R"("token":"***" "c")"},
        Case{"EscapedBackslashAndQuote", R"("token":"a\\\"b" "c")", R"("token":"******" "c")"},
        Case{"OneLevelDown", R"("msg":"{\"token\":\"abc\",\"apps\":[]}" "c")",
             R"("msg":"{\"token\":\"***\",\"apps\":[]}" "c")"},
        Case{"OneLevelDownWithBlanks", R"(\"token\" : \"abc\" x)", R"(\"token\" : \"***\" x)"},
        Case{"OneLevelDownWithWrittenOutLineEnd", R"(\"token\":\n\t\"abc\" x)", R"(\"token\":\n\t\"***\" x)"},
        Case{"OneLevelDownQuoteInside", R"(\"token\":\"a\\\"b\" \"c\")", R"(\"token\":\"******\" \"c\")"},
        Case{"OneLevelDownBackslashAtTheEnd", R"(\"token\":\"a\\\\\" \"c\")", R"(\"token\":\"*****\" \"c\")"},
        Case{"TwoLevelsDown", R"(\\\"token\\\":\\\"abc\\\" d)", R"(\\\"token\\\":\\\"***\\\" d)"},
        Case{"TwoLevelsDownQuoteInside", R"(\\\"token\\\":\\\"a\\\\\\\"b\\\" d)",
             R"(\\\"token\\\":\\\"**********\\\" d)"},
        Case{"ThreeLevelsDown", R"(\\\\\\\"token\\\\\\\":\\\\\\\"abc\\\\\\\" d)",
             R"(\\\\\\\"token\\\\\\\":\\\\\\\"***\\\\\\\" d)"},
        Case{"CutByTheEndOfTheText", R"({"token":"abc)", R"({"token":"***)"},
        Case{"CutInsideAnEscape", R"({"token":"abc\)", R"({"token":"****)"},
        Case{"CutByTheEndOfTheLine", "\"token\":\"abc\nnext \"line\"", "\"token\":\"***\nnext \"line\""},
        Case{"CutEscapeByTheEndOfTheLine", "\"token\":\"abc\\\nnext", "\"token\":\"****\nnext"},
        Case{"CutByTheStringAround", R"("{\"token\":\"abc","next":"x")", R"("{\"token\":\"***","next":"x")"},
        Case{"CutBeforeTheValueByTheStringAround", R"("{\"token\":","token":"x")",
             R"("{\"token\":","token":"*")"},
        Case{"Number", R"({"token":12345,"a":1})", R"({"token":*****,"a":1})"},
        Case{"NumberAtTheEnd", R"("token":12)", R"("token":**)"},
        Case{"NumberBeforeABracket", R"({"token": -1.5} x)", R"({"token": ****} x)"},
        Case{"NumberOneLevelDown", R"("{\"token\":12" x)", R"("{\"token\":**" x)"},
        Case{"Null", R"({"token":null})", R"({"token":****})"},
        Case{"Array", R"({"token":["a]",{"b":"c\"}"}],"d":"e"})", R"({"token":*******************,"d":"e"})"},
        Case{"ObjectOverLines", "{\"token\" : \n{\"a\":\n\"b\"},\"d\":1}",
             "{\"token\" : \n*****\n****,\"d\":1}"},
        Case{"ArrayOneLevelDown", R"("{\"token\":[\"a\"],\"b\":\"c\"}")",
             R"("{\"token\":*******,\"b\":\"c\"}")"},
        Case{"ArrayCutByTheStringAround", R"("{\"token\":[\"ab","next":["x"])",
             R"("{\"token\":*****","next":["x"])"},
        Case{"ArrayCutByTheEndOfTheLine", "\"token\":[\"ab\nnext \"line\"", "\"token\":****\nnext \"line\""},
        Case{"OtherNames", R"("tokens":"a","auth_token":"b","toke":"c","Token":"d")",
             R"("tokens":"a","auth_token":"b","toke":"c","Token":"d")"},
        Case{"TokenAsAValue", R"("x":"token","y":"z")", R"("x":"token","y":"z")"},
        Case{"QuoteBeforeTheName", R"(""token":"a")", R"(""token":"*")"},
        Case{"NameAfterAHalfName", R"("tok"token":"a")", R"("tok"token":"*")"},
        Case{"NameAfterAName", R"("token""token":"a")", R"("token""token":"*")"},
        Case{"NoValue", R"({"token":,"a":"b"})", R"({"token":,"a":"b"})"},
        Case{"NoColon", R"("token" "a":"b")", R"("token" "a":"b")"},
        Case{"LineOfADaemon",
             "Receive a request({\"apps\":[\"a\"],\"token\":\"s3cr\\u00e9t\"}) from the server\nnext",
             "Receive a request({\"apps\":[\"a\"],\"token\":\"***********\"}) from the server\nnext"},
        Case{"OtherBytes", std::string("\0\"token\":\"\0\xff\"\0", 14),
             std::string("\0\"token\":\"**\"\0", 14)}),
    [](const testing::TestParamInfo<Case>& item) { return item.param.name; });

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

TEST(TokenMaskFinishTest, StartsAfresh) {
  TokenMask mask;
  std::string out;
  mask.Feed(R"("token":"ab)", out);
  mask.Finish(out);
  mask.Feed("plain", out);
  mask.Finish(out);
  EXPECT_EQ(out, R"("token":"**plain)");
}

}  // namespace
}  // namespace TARVO::SupportForm
