#include <gtest/gtest.h>

#include <string>

#include "platform/web_api_runner.h"

namespace {

constexpr const char* kApi = "TARVO.Core.SupportForm.Log";

/// Calls the library and checks that it answers with an error.
/// @return The error's code.
int ErrorCode(const char* api, int version, const char* method, const Json::Value& params, const char* user) {
  Json::Value out;
  out["left"] = "over";
  EXPECT_FALSE(TARVO::APIRunner::Exec(out, api, version, method, params, user));
  EXPECT_EQ(out["success"], Json::Value(false));
  EXPECT_TRUE(out["error"]["message"].isString());
  EXPECT_FALSE(out.isMember("left"));
  return out["error"]["code"].asInt();
}

TEST(ApiRunnerTest, UnknownNamesAndUsersAndNullPointersAreErrors) {
  const Json::Value none(Json::objectValue);
  EXPECT_EQ(ErrorCode("No.Such.Api", 1, "collect", none, "admin"), 1);
  EXPECT_EQ(ErrorCode(kApi, 2, "collect", none, "admin"), 2);
  EXPECT_EQ(ErrorCode(kApi, 1, "remove", none, "admin"), 3);
  EXPECT_EQ(ErrorCode(kApi, 1, "collect", none, "guest"), 4);
  EXPECT_EQ(ErrorCode(nullptr, 1, nullptr, none, nullptr), 1);
  EXPECT_EQ(ErrorCode(kApi, 1, "collect", none, nullptr), 4);
}

TEST(ApiRunnerTest, ParametersOfTheWrongKindAreErrors) {
  Json::Value params(Json::objectValue);
  EXPECT_EQ(ErrorCode(kApi, 1, "collect", params, "admin"), 5);
  params["app_list"] = "demo";
  EXPECT_EQ(ErrorCode(kApi, 1, "collect", params, "admin"), 5);
  EXPECT_EQ(ErrorCode(kApi, 1, "collect", Json::Value(Json::arrayValue), "admin"), 5);
  for (const Json::Value& id : {Json::Value(12), Json::Value(""), Json::Value("../../etc"),
                                Json::Value(std::string(31, 'a')), Json::Value(std::string(33, 'a')),
                                Json::Value(std::string(32, 'A')), Json::Value(std::string(31, 'a') + "/")}) {
    params["task_id"] = id;
    EXPECT_EQ(ErrorCode(kApi, 1, "status", params, "admin"), 5) << id.toStyledString();
  }
}

TEST(ApiRunnerTest, StatusOfATaskThatNeverWasIsAnError) {
  Json::Value params(Json::objectValue);
  params["task_id"] = std::string(32, '0');
  EXPECT_EQ(ErrorCode(kApi, 1, "status", params, "admin"), 6);
}

}  // namespace
