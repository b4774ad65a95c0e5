#include "json_check.h"

#include <gtest/gtest.h>

#include <string>

namespace TarvoOrvane::ArchiveReader {
namespace {

TEST(JsonCheckTest, ObjectsAreTaken) {
  for (const char* text :
       {"{}", " \t\r\n{ } \n", R"({"a":1})", R"({"a":[],"a":{"b":[1,-2,0,0.5,1e9,1E-9,-0.0e+1]}})",
        R"({"a":"\"\\\/\b\f\n\r\t\u00e4\uD83D"})", "{\"\xc3\xa4\":\"\xf0\x9f\x98\x80\x7f\"}",
        R"({"a" : true , "b" : false , "c" : null , "" : [ 1 , 2 ] })"}) {
    EXPECT_TRUE(IsJsonObject(text)) << text;
  }
}

TEST(JsonCheckTest, OtherTextsAreNot) {
  for (const char* text : {"",
                           " ",
                           "[]",
                           "1",
                           "null",
                           "\"a\"",
                           "{",
                           "}",
                           "{]",
                           "{}}",
                           "{}{}",
                           "{},",
                           "{\"a\"}",
                           "{\"a\":}",
                           "{\"a\":1,}",
                           "{,}",
                           "{\"a\" 1}",
                           "{a:1}",
                           "{'a':1}",
                           "{1:1}",
                           "{\"a\":01}",
                           "{\"a\":+1}",
                           "{\"a\":.5}",
                           "{\"a\":1.}",
                           "{\"a\":1e}",
                           "{\"a\":-}",
                           "{\"a\":tru}",
                           "{\"a\":True}",
                           "{\"a\":NaN}",
                           "{\"a\":nulll}",
                           "{\"a\":\"}",
                           "{\"a\":\"\\x41\"}",
                           "{\"a\":\"\\u12g4\"}",
                           "{\"a\":\"\\u123",
                           "{\"a\":\"\\",
                           "{\"a\":\"\n\"}",
                           "{\"a\":\"\xff\"}",
                           "{\"a\":\"\xed\xa0\x80\"}",
                           "{\"a\":[1 2]}",
                           "{\"a\":[1,]}",
                           "{\"a\":[,1]}",
                           "{}//",
                           "{/**/}",
                           "\xef\xbb\xbf{}",
                           "{\"a\":1;}"}) {
    EXPECT_FALSE(IsJsonObject(text)) << text;
  }
  EXPECT_FALSE(IsJsonObject(std::string("{}\0", 3)));
}

TEST(JsonCheckTest, DepthHasALimit) {
  const auto nested = [](int levels) {
    std::string begin;
    std::string end;
    for (int i = 0; i < levels - 1; ++i) {
      begin += '[';
      end += ']';
    }
    return "{\"a\":" + begin + end + "}";
  };
  EXPECT_TRUE(IsJsonObject("{\"a\":1}"));
  EXPECT_TRUE(IsJsonObject(nested(kMostLevels)));
  EXPECT_FALSE(IsJsonObject(nested(kMostLevels + 1)));
  EXPECT_FALSE(IsJsonObject("{\"a\":" + std::string(10'000'000, '[')));
}

}  // namespace
}  // namespace TarvoOrvane::ArchiveReader
