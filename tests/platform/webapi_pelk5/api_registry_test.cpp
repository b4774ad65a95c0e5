#include "api_registry.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "api_error.h"

namespace TARVO {
namespace {

class ApiRegistryTest : public testing::Test {
 protected:
  ApiRegistryTest() {
    registry_.Add("Api", 1, "echo", [](const Json::Value& params) { return params; });
    registry_.Add("Api", 2, "refuse", [](const Json::Value&) -> Json::Value {
      throw ApiError(ApiErrorCode::kTaskFailed, "refused");
    });
    registry_.Add("Api", 2, "throw",
                  [](const Json::Value&) -> Json::Value { throw std::logic_error("broken"); });
    params_["a"] = 1;
  }

  void ExpectError(const Json::Value& answer, ApiErrorCode code) {
    EXPECT_EQ(answer["success"], Json::Value(false));
    EXPECT_EQ(answer["error"]["code"], Json::Value(static_cast<int>(code)));
    EXPECT_TRUE(answer["error"]["message"].isString());
    EXPECT_NE(answer["error"]["message"].asString(), "");
    EXPECT_FALSE(answer.isMember("data"));
  }

  ApiRegistry registry_;
  Json::Value params_{Json::objectValue};
};

TEST_F(ApiRegistryTest, AnswersWithTheMethodsData) {
  const Json::Value answer = registry_.Run("Api", 1, "echo", params_, "admin");
  EXPECT_EQ(answer["success"], Json::Value(true));
  EXPECT_EQ(answer["data"], params_);
  EXPECT_FALSE(answer.isMember("error"));
}

TEST_F(ApiRegistryTest, TellsApiVersionAndMethodApartWhereUnknown) {
  ExpectError(registry_.Run("Other", 1, "echo", params_, "admin"), ApiErrorCode::kUnknownApi);
  ExpectError(registry_.Run(nullptr, 1, "echo", params_, "admin"), ApiErrorCode::kUnknownApi);
  ExpectError(registry_.Run("Api", 3, "echo", params_, "admin"), ApiErrorCode::kUnknownVersion);
  ExpectError(registry_.Run("Api", 2, "echo", params_, "admin"), ApiErrorCode::kUnknownMethod);
  ExpectError(registry_.Run("Api", 1, nullptr, params_, "admin"), ApiErrorCode::kUnknownMethod);
}

TEST_F(ApiRegistryTest, RefusesOtherUsersAndParametersThatAreNoObject) {
  for (const char* user : {"root", "Admin", "", static_cast<const char*>(nullptr)}) {
    ExpectError(registry_.Run("Api", 1, "echo", params_, user), ApiErrorCode::kUserRefused);
  }
  ExpectError(registry_.Run("Api", 1, "echo", Json::Value(), "admin"), ApiErrorCode::kBadParameters);
  ExpectError(registry_.Run("Api", 1, "echo", Json::Value("text"), "admin"), ApiErrorCode::kBadParameters);
  ExpectError(registry_.Run("Api", 1, "echo", Json::Value(Json::arrayValue), "admin"),
              ApiErrorCode::kBadParameters);
}

TEST_F(ApiRegistryTest, ExceptionsBecomeErrorAnswers) {
  const Json::Value refused = registry_.Run("Api", 2, "refuse", params_, "admin");
  ExpectError(refused, ApiErrorCode::kTaskFailed);
  EXPECT_EQ(refused["error"]["message"].asString(), "refused");
  ExpectError(registry_.Run("Api", 2, "throw", params_, "admin"), ApiErrorCode::kSystem);
}

}  // namespace
}  // namespace TARVO
