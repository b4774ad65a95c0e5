#include "json_text.h"

#include <json/writer.h>

namespace TARVO::SupportForm {

std::string CompactJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

}  // namespace TARVO::SupportForm
