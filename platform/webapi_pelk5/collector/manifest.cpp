#include "manifest.h"

#include <json/writer.h>

#include <ctime>

#include "file_util.h"
#include "system_report.h"

namespace TARVO::SupportForm {
namespace {

/// Replaces the value of every member "token" by a string of stars. The mask over the text would do that as
/// well, but where the value is no string the text would be no JSON any more.
void MaskTokenMembers(Json::Value& value) {
  if (value.isObject()) {
    for (const std::string& name : value.getMemberNames()) {
      Json::Value& member = value[name];
      if (name == "token") member = std::string(member.isString() ? member.asString().size() : 6, '*');
      MaskTokenMembers(member);
    }
  } else if (value.isArray()) {
    for (Json::Value& element : value) MaskTokenMembers(element);
  }
}

}  // namespace

Manifest::Manifest(const std::string& task_id, const Json::Value& asked, unsigned max_errors)
    : root_(Json::objectValue), max_errors_(max_errors) {
  root_["format"] = 1;
  root_["task_id"] = task_id;
  root_["host"]["name"] = HostName();
  root_["host"]["system"] = UnameText();
  root_["started"] = IsoTime(std::time(nullptr));
  root_["asked"]["app_list"] = asked;
  MaskTokenMembers(root_["asked"]);
  root_["applications"] = Json::arrayValue;
  root_["entries"] = Json::arrayValue;
  root_["errors"] = Json::arrayValue;
}

void Manifest::AddApplication(const std::string& name, const std::string& description) {
  Json::Value application;
  application["name"] = name;
  application["description"] = description;
  root_["applications"].append(application);
}

void Manifest::AddEntry(const Json::Value& entry) {
  root_["entries"].append(entry);
  ++entries_;
  bytes_ += entry["size"].asUInt64();
}

void Manifest::AddError(const std::string& where, const std::string& message) {
  if (root_["errors"].size() >= max_errors_) {
    ++errors_left_out_;
    return;
  }
  Json::Value error;
  error["where"] = where;
  error["message"] = message;
  root_["errors"].append(error);
}

std::string Manifest::Text() {
  root_["ended"] = IsoTime(std::time(nullptr));
  root_["totals"]["entries"] = Json::UInt64{entries_};
  root_["totals"]["bytes"] = Json::UInt64{bytes_};
  root_["totals"]["errors"] = Json::UInt64{root_["errors"].size() + errors_left_out_};
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  return Json::writeString(builder, root_) + "\n";
}

}  // namespace TARVO::SupportForm
