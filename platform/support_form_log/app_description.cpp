#include "app_description.h"

#include <json/reader.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "file_util.h"
#include "json_text.h"
#include "trusted_path.h"

namespace TARVO::SupportForm {
namespace {

bool IsAsciiAlnum(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

/// Throws where `value` has a member that is not in `known`.
void RefuseUnknownMembers(const Json::Value& value, const std::string& where,
                          const std::vector<std::string>& known) {
  const std::vector<std::string> names = value.getMemberNames();
  const auto unknown = std::find_if(names.begin(), names.end(), [&](const std::string& name) {
    return std::find(known.begin(), known.end(), name) == known.end();
  });
  if (unknown != names.end()) throw DescriptionError(where + ": unknown member \"" + *unknown + "\"");
}

/// A string that can be handed to the system: without a NUL byte in it.
std::string SystemString(const Json::Value& value, const std::string& where) {
  if (!value.isString()) throw DescriptionError(where + " is not a string");
  std::string text = value.asString();
  if (text.find('\0') != std::string::npos) throw DescriptionError(where + " contains a NUL character");
  return text;
}

std::string PathPattern(const Json::Value& value, const std::string& where) {
  std::string pattern = SystemString(value, where);
  if (pattern.empty() || pattern.front() != '/') {
    throw DescriptionError(where + " is not an absolute path: \"" + pattern + "\"");
  }
  const std::string closed = pattern + "/";
  const auto has = [&](const char* part) { return closed.find(part) != std::string::npos; };
  if (pattern != "/" && (has("//") || has("/./") || has("/../"))) {
    throw DescriptionError(where + R"( has an empty, "." or ".." part or ends in a slash: ")" + pattern +
                           "\"");
  }
  return pattern;
}

std::vector<std::string> Arguments(const Json::Value& value, const std::string& where) {
  if (!value.isArray() || value.empty()) {
    throw DescriptionError(where + " is not an array of at least one string");
  }
  std::vector<std::string> argv;
  for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
    argv.push_back(SystemString(value[i], where + "[" + std::to_string(i) + "]"));
  }
  const std::string& program = argv.front();
  if (program.empty() || (program.find('/') != std::string::npos && program.front() != '/')) {
    throw DescriptionError(where + "[0] is neither a program's name nor an absolute path: \"" + program +
                           "\"");
  }
  return argv;
}

/// The whole number `name` from 1 to `max`; `fallback` when there is no such member.
template <typename Number>
Number WholeNumber(const Json::Value& value, const std::string& name, const std::string& where,
                   Number fallback, Number max) {
  if (!value.isMember(name)) return fallback;
  const Json::Value& number = value[name];
  // isUInt64() holds for 2.0 as well, and not for booleans.
  if (!number.isUInt64() || number.asUInt64() < 1 || number.asUInt64() > max) {
    throw DescriptionError(where + "." + name + " is not a whole number from 1 to " + std::to_string(max));
  }
  return static_cast<Number>(number.asUInt64());
}

PathDescription Path(const Json::Value& value, const std::string& where) {
  if (!value.isObject()) return {PathPattern(value, where), false};
  RefuseUnknownMembers(value, where, {"path", "binary"});
  PathDescription path;
  path.pattern = PathPattern(value["path"], where + ".path");
  if (value.isMember("binary")) {
    if (!value["binary"].isBool()) throw DescriptionError(where + ".binary is neither true nor false");
    path.binary = value["binary"].asBool();
  }
  return path;
}

CommandDescription Command(const Json::Value& value, const std::string& where, const Limits& limits) {
  if (!value.isObject()) throw DescriptionError(where + " is not an object");
  RefuseUnknownMembers(value, where, {"argv", "time_limit_seconds", "output_limit_bytes"});
  CommandDescription command;
  command.argv = Arguments(value["argv"], where + ".argv");
  command.time_limit_seconds =
      WholeNumber(value, "time_limit_seconds", where, limits.command_seconds, limits.command_seconds_max);
  command.output_limit_bytes =
      WholeNumber(value, "output_limit_bytes", where, limits.output_bytes, limits.output_bytes_max);
  return command;
}

/// A unit's name or a pattern of names: the characters that units may have, and those of a pattern.
std::string UnitName(const Json::Value& value, const std::string& where) {
  std::string name = SystemString(value, where);
  const bool plain = std::all_of(name.begin(), name.end(), [](char c) {
    return IsAsciiAlnum(c) || std::string_view(":-_.\\@*?[]").find(c) != std::string_view::npos;
  });
  if (name.empty() || name.size() > 255 || name.front() == '-' || !plain) {
    throw DescriptionError(where + " is not a unit's name: \"" + name + "\"");
  }
  return name;
}

UnitDescription Unit(const Json::Value& value, const std::string& where, const Limits& limits) {
  const bool is_object = value.isObject();
  UnitDescription unit;
  unit.unit = is_object ? UnitName(value["unit"], where + ".unit") : UnitName(value, where);
  const Json::Value& options = is_object ? value : Json::Value::nullSingleton();
  if (is_object) RefuseUnknownMembers(value, where, {"unit", "lines", "output_limit_bytes", "since_hours"});
  unit.lines = WholeNumber(options, "lines", where, limits.journal_lines, limits.journal_lines_max);
  unit.output_limit_bytes =
      WholeNumber(options, "output_limit_bytes", where, limits.journal_bytes, limits.output_bytes_max);
  unit.since_hours = WholeNumber(options, "since_hours", where, 0U, limits.journal_hours_max);
  return unit;
}

/// The elements of the array `name`; none when there is no such member.
template <typename Convert>
void ReadArray(const Json::Value& root, const std::string& name, const Convert& convert) {
  if (!root.isMember(name)) return;
  const Json::Value& list = root[name];
  if (!list.isArray()) throw DescriptionError("\"" + name + "\" is not an array");
  for (Json::ArrayIndex i = 0; i < list.size(); ++i) convert(list[i], name + "[" + std::to_string(i) + "]");
}

AppDescription Convert(const Json::Value& root, const Limits& limits) {
  if (!root.isObject()) throw DescriptionError("not a JSON object");
  RefuseUnknownMembers(root, "description", {"description", "paths", "commands", "units"});
  AppDescription result;
  if (root.isMember("description")) result.description = SystemString(root["description"], "\"description\"");
  ReadArray(root, "paths", [&](const Json::Value& value, const std::string& where) {
    result.paths.push_back(Path(value, where));
  });
  ReadArray(root, "commands", [&](const Json::Value& value, const std::string& where) {
    result.commands.push_back(Command(value, where, limits));
  });
  ReadArray(root, "units", [&](const Json::Value& value, const std::string& where) {
    result.units.push_back(Unit(value, where, limits));
  });
  return result;
}

Json::Value ParseStrictly(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  bool parsed = false;
  try {
    parsed = reader->parse(text.data(), text.data() + text.size(), &root, &errors);
  } catch (const std::exception& error) {  // Nesting beyond the reader's limit throws.
    errors = error.what();
  }
  if (!parsed) throw DescriptionError("not valid JSON: " + errors);
  return root;
}

}  // namespace

bool IsAppName(std::string_view name) {
  return !name.empty() && name.size() <= 64 && IsAsciiAlnum(name.front()) &&
         std::all_of(name.begin(), name.end(),
                     [](char c) { return IsAsciiAlnum(c) || c == '.' || c == '_' || c == '-'; });
}

std::string NotAnAppName(const Json::Value& asked) {
  return "not an application name: " + CompactJson(asked);
}

AppDescription LoadAppDescription(const Paths& paths, const Limits& limits, const std::string& name) {
  const std::string path = paths.descriptions + "/" + name + ".json";
  std::string text;
  bool more = false;
  Distrust distrust;
  if (!ReadTrustedFile(path, limits.description_bytes, text, more, distrust)) {
    const int error = errno;
    if (distrust) throw DescriptionError(path + " is not used: " + distrust.Line());
    throw DescriptionError(error == ENOENT ? "unknown application: there is no description " + path
                                           : path + " can't be read: " + ErrorText(error));
  }
  if (more) {
    throw DescriptionError(path + ": longer than " + std::to_string(limits.description_bytes) + " bytes");
  }
  try {
    return Convert(ParseStrictly(text), limits);
  } catch (const DescriptionError& error) {
    throw DescriptionError(path + ": " + error.what());
  }
}

CommandDescription JournalCommand(const UnitDescription& unit, const Limits& limits) {
  CommandDescription command;
  command.argv = {"journalctl", "--quiet", "--no-pager", "--output=short-iso",
                  "--lines=" + std::to_string(unit.lines)};
  if (!unit.unit.empty()) command.argv.push_back("--unit=" + unit.unit);
  if (unit.since_hours > 0) command.argv.push_back("--since=-" + std::to_string(unit.since_hours) + "h");
  command.time_limit_seconds = limits.system_command_seconds;
  command.output_limit_bytes = unit.output_limit_bytes;
  return command;
}

}  // namespace TARVO::SupportForm
