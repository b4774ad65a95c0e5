#include "json_util.h"

#include <json/reader.h>
#include <json/writer.h>

#include <fstream>
#include <sstream>

namespace TarvoOrvane::Utils {

bool FromFile(const std::string& path, Json::Value& value) {
  const std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  // An empty or unreadable file (a directory, say) makes the insertion fail; neither is a document.
  if (!file || !(text << file.rdbuf())) {
    return false;
  }
  return FromString(text.str(), value);
}

bool FromString(const std::string& text, Json::Value& value, Comments comments) {
  // jsoncpp marks Json::Reader as deprecated; its successor accepts other texts (for instance "[1,]"), and
  // what the pipes and the servers' answers accept is not to change.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  try {
    return Json::Reader().parse(text, value, comments == Comments::kCollect);
  } catch (const Json::Exception&) {  // nesting beyond the reader's limit
    return false;
  }
#pragma GCC diagnostic pop
}

std::string ToString(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["commentStyle"] = "None";
  return Json::writeString(builder, value);
}

bool HasMember(const Json::Value& value, const char* key) { return value.isObject() && value.isMember(key); }

bool ReportsSuccess(const Json::Value& value) {
  return HasMember(value, "success") && value["success"].isBool() && value["success"].asBool();
}

bool FindServerUrl(const Json::Value& config, const char* server, std::string& url) {
  constexpr char kSection[] = "debug_dat_file_transmitter";
  // The section and the server's entry are each tested twice; the repetition is kept.
  if (config.isObject() && config.isMember(kSection) && config[kSection].isObject() &&
      config[kSection].isObject() && config[kSection].isMember(server) &&
      config[kSection][server].isObject() && config[kSection][server].isObject() &&
      config[kSection][server].isMember("url") && config[kSection][server]["url"].isString()) {
    url = config[kSection][server]["url"].asString();
    return true;
  }
  return false;
}

}  // namespace TarvoOrvane::Utils
