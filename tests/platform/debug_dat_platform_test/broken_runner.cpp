/// The template's libwebapi-Pelk5, with a fault.
#include <json/value.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "broken.h"
#include "platform/web_api_runner.h"

namespace TARVO {

/// The template's class, under another name.
class __attribute__((visibility("default"))) GoodRunner {
 public:
  static bool Exec(Json::Value& out, const char* api, int version, const char* method,
                   const Json::Value& params, const char* user);
};

namespace {

void BreakCollect(Json::Value& out) {
  if (Is("collect's success is 1")) out["success"] = 1;
  if (Is("collect's id is a number")) out["data"]["task_id"] = 12;
  if (Is("collect gives no data")) out.removeMember("data");
  if (Is("collect fails without applications")) out = Json::Value(Json::objectValue);
}

void BreakStatus(Json::Value& out) {
  if (Is("status finished is a text")) out["data"]["finished"] = "true";
  if (Is("status gives no path")) out["data"].removeMember("path");
  if (Is("status gives a path to nothing")) out["data"]["path"] = "/nowhere/debug.dat";
  if (Is("status gives a folder")) out["data"]["path"] = "/var/tmp";
}

void BreakError(const std::string& method, Json::Value& out) {
  if (method == "status") {
    if (Is("an unknown task has succeeded")) out["success"] = true;
    if (Is("an unknown task ends the process")) _Exit(3);
    return;
  }
  if (Is("an unknown method throws")) throw std::runtime_error("there is no such method");
  if (Is("an error is a text")) out["error"] = "there is no such method";
  if (Is("an error is no answer")) out = Json::Value(Json::objectValue);
}

}  // namespace

bool APIRunner::Exec(Json::Value& out, const char* api, int version, const char* method,
                     const Json::Value& params, const char* user) {
  const bool result = GoodRunner::Exec(out, api, version, method, params, user);
  if (!result) {
    BreakError(method, out);
  } else if (method == std::string("collect")) {
    BreakCollect(out);
  } else {
    BreakStatus(out);
  }
  return result;
}

}  // namespace TARVO
