#include "api_registry.h"

#include <cstring>
#include <utility>

#include "api_error.h"

namespace TARVO {
namespace {

Json::Value Failure(ApiErrorCode code, const std::string& message) {
  Json::Value answer(Json::objectValue);
  answer["success"] = false;
  answer["error"]["code"] = static_cast<int>(code);
  answer["error"]["message"] = message;
  return answer;
}

}  // namespace

void ApiRegistry::Add(const std::string& api, int version, const std::string& method, ApiMethod run) {
  entries_.push_back({api, version, method, std::move(run)});
}

Json::Value ApiRegistry::Run(const char* api, int version, const char* method, const Json::Value& params,
                             const char* user) const {
  try {
    const ApiMethod& run = Find(api, version, method);
    if (user == nullptr || std::strcmp(user, "admin") != 0) {
      throw ApiError(ApiErrorCode::kUserRefused, "the method runs for the user \"admin\" only");
    }
    if (!params.isObject()) {
      throw ApiError(ApiErrorCode::kBadParameters, "the parameters are not a JSON object");
    }
    Json::Value answer(Json::objectValue);
    answer["data"] = run(params);
    answer["success"] = true;
    return answer;
  } catch (const ApiError& error) {
    return Failure(error.code, error.what());
  } catch (const std::exception& error) {
    return Failure(ApiErrorCode::kSystem, error.what());
  }
}

const ApiMethod& ApiRegistry::Find(const char* api, int version, const char* method) const {
  bool api_known = false;
  bool version_known = false;
  for (const Entry& entry : entries_) {
    if (api == nullptr || entry.api != api) continue;
    api_known = true;
    if (entry.version != version) continue;
    version_known = true;
    if (method != nullptr && entry.method == method) return entry.run;
  }
  if (!api_known) {
    throw ApiError(ApiErrorCode::kUnknownApi,
                   api ? "no API named \"" + std::string(api) + "\"" : "no API was named");
  }
  if (!version_known) {
    throw ApiError(ApiErrorCode::kUnknownVersion,
                   std::string(api) + " has no version " + std::to_string(version));
  }
  throw ApiError(ApiErrorCode::kUnknownMethod,
                 method ? std::string(api) + " has no method \"" + method + "\"" : "no method was named");
}

}  // namespace TARVO
