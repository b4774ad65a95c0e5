#include "manifest.h"

#include <json/writer.h>

#include <ctime>
#include <stdexcept>

#include "file_util.h"
#include "sha256.h"
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

std::string Quoted(const std::string& text) { return Json::valueToQuotedString(text.c_str()); }

std::string ListText(const std::vector<std::string>& texts) {
  std::string list;
  for (const std::string& text : texts) list += (list.empty() ? "" : ", ") + Quoted(text);
  return "[" + list + "]";
}

/// One error line's length, roughly.
constexpr std::uint64_t kErrorBytes = 256;

}  // namespace

Manifest::Manifest(const std::string& task_id, const Json::Value& asked, bool redaction, unsigned max_errors)
    : root_(Json::objectValue), max_errors_(max_errors) {
  root_["format"] = 1;
  root_["task_id"] = task_id;
  root_["host"]["name"] = HostName();
  root_["host"]["system"] = UnameText();
  root_["started"] = IsoTime(std::time(nullptr));
  root_["asked"]["app_list"] = asked;
  MaskTokenMembers(root_["asked"]);
  root_["redaction"] = redaction;
  root_["applications"] = Json::arrayValue;
  root_["errors"] = Json::arrayValue;
}

void Manifest::AddApplication(const std::string& name, const std::string& description) {
  Json::Value application;
  application["name"] = name;
  application["description"] = description;
  root_["applications"].append(application);
}

void Manifest::AddEntry(const ManifestEntry& entry) {
  entry_lines_ += (entries_ == 0 ? "    {\"name\": " : ",\n    {\"name\": ") + Quoted(entry.name);
  const auto add = [this](const char* name, const std::string& value) {
    entry_lines_.append(", \"").append(name).append("\": ").append(value);
  };
  add("size", std::to_string(entry.size));
  entry_lines_ += ", \"sha256\": \"";
  sum_places_.push_back(entry_lines_.size());
  entry_lines_.append(kSumDigits, '0').push_back('"');
  if (!entry.source.empty()) add("source", Quoted(entry.source));
  if (entry.modified) add("modified", Quoted(IsoTime(*entry.modified)));
  if (!entry.argv.empty()) add("argv", ListText(entry.argv));
  if (!entry.result.empty()) add("result", Quoted(entry.result));
  if (entry.exit_status) add("exit_status", std::to_string(*entry.exit_status));
  if (entry.redacted > 0) add("redacted", std::to_string(entry.redacted));
  if (entry.masked_parts > 0) add("masked_parts", std::to_string(entry.masked_parts));
  if (!entry.notes.empty()) add("notes", ListText(entry.notes));
  entry_lines_ += "}";
  ++entries_;
  bytes_ += entry.size;
  redacted_ += entry.redacted;
}

void Manifest::AddError(const std::string& where, const std::string& message) {
  if (++errors_ > max_errors_) return;
  Json::Value error;
  error["where"] = where;
  error["message"] = message;
  root_["errors"].append(error);
}

std::uint64_t Manifest::TextBytes() const {
  return entry_lines_.size() + (root_["errors"].size() + root_["applications"].size() + 8) * kErrorBytes;
}

std::string Manifest::Text(std::string_view sums) {
  if (sums.size() != sum_places_.size() * kSumDigits) throw std::logic_error("a digest belongs to no entry");
  for (std::size_t i = 0; i < sum_places_.size(); ++i) {
    entry_lines_.replace(sum_places_[i], kSumDigits, sums.substr(i * kSumDigits, kSumDigits));
  }
  root_["ended"] = IsoTime(std::time(nullptr));
  root_["totals"]["entries"] = Json::UInt64{entries_};
  root_["totals"]["bytes"] = Json::UInt64{bytes_};
  root_["totals"]["redacted"] = Json::UInt64{redacted_};
  root_["totals"]["errors"] = Json::UInt64{errors_};
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  std::string text = Json::writeString(builder, root_);
  text.resize(text.rfind("\n}"));
  text += ",\n  \"entries\": [\n";
  text += entry_lines_;
  return text + "\n  ]\n}\n";
}

}  // namespace TARVO::SupportForm
