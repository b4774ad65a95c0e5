#include "json_util.h"

#include <json/reader.h>
#include <json/writer.h>

#include <fstream>
#include <sstream>

namespace TarvoOrvane::Utils {

bool ParseJson(const std::string& text, Json::Value& value, bool collect_comments) {
  // jsoncpp marks Json::Reader as deprecated; its successor accepts other texts (it refuses, for
  // instance, anything behind the value), and what the pipes and the servers accept is not to change.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  try {
    return Json::Reader().parse(text, value, collect_comments);
  } catch (const std::exception&) {  // nesting beyond the reader's limit
    return false;
  }
#pragma GCC diagnostic pop
}

bool FromFile(const std::string& path, Json::Value& value) {
  const std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  // An empty or unreadable file (a directory, say) makes the insertion fail; neither is a document.
  if (!file || !(text << file.rdbuf())) {
    return false;
  }
  return FromString(text.str(), value);
}

bool FromString(const std::string& text, Json::Value& value) { return ParseJson(text, value, true); }

std::string ToString(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["commentStyle"] = "None";
  return Json::writeString(builder, value);
}

bool HasMember(const Json::Value& value, const char* key) { return value.isObject() && value.isMember(key); }

}  // namespace TarvoOrvane::Utils
