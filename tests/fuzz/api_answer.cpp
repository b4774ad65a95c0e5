#include "api_answer.h"

#include <json/reader.h>

#include <memory>
#include <string>

#include "fuzz_support.h"

namespace fuzz {

Json::Value Parameters(std::string_view input) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  try {
    if (reader->parse(input.data(), input.data() + input.size(), &value, nullptr)) return value;
  } catch (const Json::Exception&) {  // nested too deeply: no caller has such a value
  }
  return std::string(input);
}

Json::Value DataOf(const Json::Value& answer) {
  Require(answer.isObject() && answer["success"].isBool(), "an answer tells whether it is a success");
  if (!answer["success"].asBool()) {
    Require(answer["error"]["code"].isInt() && answer["error"]["message"].isString(),
            "a failure has its reason");
    return {};
  }
  Require(answer["data"].isObject(), "a success has data");
  return answer["data"];
}

}  // namespace fuzz
