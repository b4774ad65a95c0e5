/// libwebapi-Pelk5: the web API "TARVO.Core.SupportForm.Log". Here the archive is a text, which is complete when
/// "collect" returns. A collection that takes longer goes on in a process of its own, and "status" says {"finished":
/// false} until it has ended.
#include "platform/web_api_runner.h"

#include <fcntl.h>
#include <json/value.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace TARVO {
namespace {

constexpr char kFolder[] = "/var/tmp/";
constexpr char kEnding[] = ".debug.dat";

Json::Value Success(const Json::Value& data) {
  Json::Value answer(Json::objectValue);
  answer["success"] = true;
  answer["data"] = data;
  return answer;
}

Json::Value Failure(const std::string& message) {
  Json::Value answer(Json::objectValue);
  answer["success"] = false;
  answer["error"]["message"] = message;
  return answer;
}

Json::Value Collect(const Json::Value& app_list) {
  if (!app_list.isArray()) return Failure("app_list is no array");
  std::string path = std::string(kFolder) + "XXXXXX" + kEnding;
  const int fd = mkostemps(path.data(), sizeof(kEnding) - 1, O_CLOEXEC);
  if (fd < 0) return Failure("no archive can be made in " + std::string(kFolder));
  for (const Json::Value& app : app_list) {
    if (app.isString()) dprintf(fd, "Here stands what your device has of %s.\n", app.asCString());
  }
  close(fd);
  Json::Value data(Json::objectValue);
  data["task_id"] = path.substr(sizeof(kFolder) - 1, 6);
  return Success(data);
}

Json::Value Status(const Json::Value& task_id) {
  const std::string id = task_id.isString() ? task_id.asString() : "";
  const std::string path = kFolder + id + kEnding;
  if (id.size() != 6 || id.find('/') != std::string::npos || access(path.c_str(), R_OK) != 0) {
    return Failure("there is no such task");
  }
  Json::Value data(Json::objectValue);
  data["finished"] = true;
  data["path"] = path;
  return Success(data);
}

Json::Value Answer(const std::string& api, int version, const std::string& method,
                   const Json::Value& params) {
  if (api != "TARVO.Core.SupportForm.Log" || version != 1) return Failure("there is no such API");
  if (!params.isObject()) return Failure("the parameters are no object");
  if (method == "collect") return Collect(params["app_list"]);
  if (method == "status") return Status(params["task_id"]);
  return Failure("there is no such method");
}

}  // namespace

bool APIRunner::Exec(Json::Value& out, const char* api, int version, const char* method,
                     const Json::Value& params, const char* /*user*/) {
  out = Answer(api, version, method, params);
  return out["success"].asBool();
}

}  // namespace TARVO
