#include "json_util.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <map>
#include <random>

#include "scripted_platform.h"

using TarvoOrvane::Utils::Comments;
using TarvoOrvane::Utils::FromFile;
using TarvoOrvane::Utils::FromString;
using TarvoOrvane::Utils::HasMember;
using TarvoOrvane::Utils::ReportsSuccess;
using TarvoOrvane::Utils::ToString;

namespace {

std::string Nested(int depth) {
  return std::string(static_cast<std::size_t>(depth), '[') +
         std::string(static_cast<std::size_t>(depth), ']');
}

TEST(FromStringTest, ReplacesTheValue) {
  Json::Value value("before");
  EXPECT_TRUE(FromString(R"({"b": [1, "x"], "a": null})", value));
  EXPECT_EQ(ToString(value), R"({"a":null,"b":[1,"x"]})");
}

TEST(FromStringTest, TakesCommentsAndDropsThemUnlessToldToCollect) {
  for (const Comments comments : {Comments::kDrop, Comments::kCollect}) {
    Json::Value value;
    EXPECT_TRUE(FromString("// note\n{\"a\": 1}", value, comments));
    EXPECT_EQ(value.hasComment(Json::commentBefore), comments == Comments::kCollect);
    EXPECT_EQ(value["a"].asInt(), 1);
  }
}

double CpuSeconds() {
  timespec now = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

/// Between the two stands so much of what is repeated.
std::string Filled(const std::string& before, const std::string& repeated, std::size_t bytes,
                   const std::string& after) {
  std::string text = before;
  while (text.size() < before.size() + bytes) text += repeated;
  return text += after;
}

/// The least of a few, as other work on the machine costs time, too.
double CpuSecondsToRead(const std::string& text) {
  double least = 1e9;
  for (int again = 0; again < 3; ++again) {
    Json::Value value;
    const double begin = CpuSeconds();
    static_cast<void>(FromString(text, value));
    least = std::min(least, CpuSeconds() - begin);
  }
  return least;
}

// A quadratic search takes a thousand times as long for them as for blanks.
TEST(FromStringTest, CommentsCostLittleMoreThanAsManyBlanks) {
  constexpr std::size_t kBytes = std::size_t{256} << 10;
  for (const auto& [before, after] :
       std::map<std::string, std::string>{{"{\"success\": true}", ""},
                                          {"[0", "]"},
                                          {"[0" + std::string(kBytes / 2, ' '), "]"},
                                          {"[0, ]", "]"},
                                          {"{\"a\": 1", ", \"success\": true}"}}) {
    const double blanks = CpuSecondsToRead(Filled(before, " ", kBytes, after));
    for (const char* const comment : {"/**/", "/*\n*/", "//\r", "/**/ ", "/*x*/\n"}) {
      EXPECT_LT(CpuSecondsToRead(Filled(before, comment, kBytes, after)), 100 * blanks)
          << before.substr(0, 20) << comment;
    }
  }
}

/// A text of pieces of JSON, comments and rubbish; some of them are valid.
std::string RandomText(std::minstd_rand& random) {
  static const std::vector<std::string> kPieces = {
      "{",          "}",     "[",      "]",         ",",      ":",       "\"a\"",      "\"b\":",
      "\"a\":[0],", "0",     "-1.5e3", "true",      "null",   " ",       "\n",         "\r\n",
      "\r",         "/*c*/", "/*\n*/", "/*c\r\n*/", "//c\n",  "//c\r",   "//",         "/*",
      "*/",         "/",     "\"",     "\\",        "\"/*\"", "[1,[2]]", "{\"c\":{}}", std::string(1, '\0'),
      "tru",        "1e999", "\xff",   "[]"};
  std::string text;
  for (auto count = 1 + random() % 14; count > 0; --count) text += kPieces[random() % kPieces.size()];
  switch (random() % 4) {  // most texts without a frame are no JSON
    case 0:
      return "[" + text + "]";
    case 1:
      return "{\"a\":" + text + "}";
    case 2:
      return "[0/*c*/," + text + "//c\n]//c";
    default:
      return text;
  }
}

TEST(FromStringTest, AcceptsTheSameTextsAsTheSameValuesWhetherItDropsCommentsOrCollectsThem) {
  std::minstd_rand random(1);
  int accepted = 0;
  int commented = 0;
  for (int count = 0; count < 60'000; ++count) {
    const std::string text = RandomText(random);
    Json::Value dropped;
    Json::Value collected;
    const bool accepts = FromString(text, dropped, Comments::kDrop);
    ASSERT_EQ(FromString(text, collected, Comments::kCollect), accepts) << text;
    if (!accepts) continue;
    ++accepted;
    commented += text.find("/*c") != std::string::npos || text.find("//c") != std::string::npos ? 1 : 0;
    ASSERT_EQ(dropped, collected) << text;
    ASSERT_EQ(ToString(dropped), ToString(collected)) << text;
  }
  EXPECT_GT(accepted, 5000);
  EXPECT_GT(commented, 2000);
}

TEST(FromStringTest, AcceptsWhatJsonReaderAcceptsAndNotWhatItsSuccessorDoes) {
  Json::Value value;
  EXPECT_TRUE(FromString(R"({"a":1} and more)", value));
  EXPECT_EQ(ToString(value), R"({"a":1})");
  EXPECT_FALSE(FromString("[1,]", value));
}

TEST(FromStringTest, FailsForWhatIsNoJson) {
  Json::Value value;
  for (const char* const text : {"", "   ", "{", R"({"a":})", "nonsense", "{'a':1}"}) {
    EXPECT_FALSE(FromString(text, value)) << text;
  }
}

TEST(FromStringTest, NestingBeyondTheReadersLimitFailsWithoutAnException) {
  Json::Value value;
  EXPECT_TRUE(FromString(Nested(900), value));
  EXPECT_FALSE(FromString(Nested(1200), value));
}

class FromFileTest : public test_support::ScriptedPlatformTest {
 protected:
  std::string Path(const std::string& text) {
    std::string path = platform_.folder() / "file.json";
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  Json::Value value_;
};

TEST_F(FromFileTest, ReadsTheWholeFile) {
  const std::string text(300000, 'x');
  EXPECT_TRUE(FromFile(Path("{\n\"a\": \"" + text + "\"\n}\n"), value_));
  EXPECT_EQ(value_["a"].asString(), text);
}

TEST_F(FromFileTest, FailsForWhatCannotBeRead) {
  EXPECT_FALSE(FromFile(platform_.folder() / "missing.json", value_));
  EXPECT_FALSE(FromFile(platform_.folder(), value_)) << "a directory";
}

TEST_F(FromFileTest, FailsForWhatIsNoJson) {
  EXPECT_FALSE(FromFile(Path(""), value_));
  EXPECT_FALSE(FromFile(Path("{"), value_));
  EXPECT_FALSE(FromFile(Path(Nested(1200)), value_));
}

TEST(ToStringTest, WritesOneSortedLine) {
  Json::Value value(Json::objectValue);
  value["token"] = "t\n\"";
  value["apps"] = Json::Value(Json::arrayValue);
  value["list"].append(true);
  value["list"].append(12);
  EXPECT_EQ(ToString(value), R"({"apps":[],"list":[true,12],"token":"t\n\""})");
}

TEST(ToStringTest, WritesAsciiOnly) { EXPECT_EQ(ToString(Json::Value("\u00e9\xff")), R"("\u00e9\ufffd")"); }

TEST(ToStringTest, DropsComments) {
  Json::Value value;
  ASSERT_TRUE(FromString("// one\n{\"a\": 1 // two\n} // three\n", value, Comments::kCollect));
  ASSERT_TRUE(value["a"].hasComment(Json::commentAfterOnSameLine));
  EXPECT_EQ(ToString(value), R"({"a":1})");
}

TEST(ToStringTest, WritesScalars) {
  EXPECT_EQ(ToString(Json::Value()), "null");
  EXPECT_EQ(ToString(Json::Value("text")), "\"text\"");
}

std::vector<Json::Value> NoObjects() {
  Json::Value array(Json::arrayValue);
  array.append("success");
  return {Json::Value(), array, Json::Value("success"), Json::Value(1), Json::Value(true)};
}

TEST(HasMemberTest, IsTrueForAnObjectsMemberOnly) {
  Json::Value object(Json::objectValue);
  object["null"] = Json::Value();
  EXPECT_TRUE(HasMember(object, "null"));
  EXPECT_FALSE(HasMember(object, "other"));
  EXPECT_FALSE(object.isMember("other")) << "the look-up added the member";
}

TEST(HasMemberTest, IsFalseForAnythingElseWithoutAnException) {
  for (const Json::Value& value : NoObjects()) EXPECT_FALSE(HasMember(value, "success"));
}

TEST(ReportsSuccessTest, IsTrueForTheBooleanTrueOnly) {
  Json::Value object(Json::objectValue);
  EXPECT_FALSE(ReportsSuccess(object));
  for (const Json::Value& other : {Json::Value("true"), Json::Value(1), Json::Value(false), Json::Value()}) {
    object["success"] = other;
    EXPECT_FALSE(ReportsSuccess(object)) << ToString(object);
  }
  object["success"] = true;
  EXPECT_TRUE(ReportsSuccess(object));
}

TEST(ReportsSuccessTest, IsFalseForWhatIsNoObject) {
  for (const Json::Value& value : NoObjects()) EXPECT_FALSE(ReportsSuccess(value));
}

}  // namespace
