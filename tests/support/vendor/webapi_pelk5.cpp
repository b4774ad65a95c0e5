/// Another maker's libwebapi-Pelk5: the archive is one line of text.

#include <json/value.h>

#include <fstream>

#include "platform/web_api_runner.h"
#include "record_call.h"

namespace TARVO {

bool APIRunner::Exec(Json::Value& out, const char* api, int version, const char* method,
                     const Json::Value& params, const char* user) {
  RecordCall(std::string("Exec(") + api + ',' + std::to_string(version) + ',' + method + ',' + user + ')');
  const std::string path = std::string(kVendorFolder) + "/debug.dat";
  out["success"] = true;
  if (std::string(method) == "collect") {
    std::ofstream file(path);
    file << "another maker's archive of";
    for (const Json::Value& app : params["app_list"]) {
      file << ' ' << app.asString();
    }
    out["data"]["task_id"] = "vendor-1";
    return true;
  }
  out["data"]["finished"] = true;
  out["data"]["path"] = path;
  return true;
}

}  // namespace TARVO
