#include "daemon_json.h"

#include <json/reader.h>

#include <algorithm>

namespace DebugDatCheck {

std::string ParseAsTheDaemon(const std::string& text, Json::Value& root) {
  // The successor of Json::Reader, which jsoncpp marks as deprecated, accepts other texts than the daemon.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  Json::Reader reader;
  try {
    if (reader.parse(text, root, false)) return {};
  } catch (const Json::Exception& error) {  // nesting beyond the reader's limit
    return error.what();
  }
  const auto errors = reader.getStructuredErrors();
#pragma GCC diagnostic pop
  if (errors.empty()) return "no JSON document";
  const auto fault_begin = text.begin() + errors.front().offset_start;
  return "line " + std::to_string(1 + std::count(text.begin(), fault_begin, '\n')) + ": " +
         errors.front().message;
}

}  // namespace DebugDatCheck
