#include "json_util.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "scripted_platform.h"

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

TEST(FromStringTest, CollectsComments) {
  Json::Value value;
  EXPECT_TRUE(FromString("// note\n{\"a\": 1}", value));
  EXPECT_TRUE(value.hasComment(Json::commentBefore));
  EXPECT_EQ(value["a"].asInt(), 1);
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
  ASSERT_TRUE(FromString("// one\n{\"a\": 1 // two\n} // three\n", value));
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
