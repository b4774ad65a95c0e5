#include "app_description.h"

#include <json/reader.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <system_error>

#include "file_util.h"
#include "json_text.h"
#include "trusted_path.h"

namespace TARVO::SupportForm {
namespace {

bool IsAsciiAlnum(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

/// The mistakes of one description: whoever wrote it wants to hear of all of them at once.
class Mistakes {
 public:
  /// Does a part of the work. What is wrong with it is kept, so that the next part is looked at as well.
  template <typename Part>
  void Try(const Part& part) {
    try {
      part();
    } catch (const DescriptionError& error) {
      Add(error.what());
    }
  }

  void Add(const std::string& text) {
    if (++count_ <= kMaxTold) text_ += (text_.empty() ? "" : "; ") + text;
  }

  /// Throws where there is one.
  void Tell() const {
    if (count_ == 0) return;
    const std::string rest = count_ > kMaxTold ? "; and " + std::to_string(count_ - kMaxTold) + " more" : "";
    throw DescriptionError(text_ + rest);
  }

 private:
  /// More would help nobody, and the text goes into the archive's manifest.
  static constexpr std::size_t kMaxTold = 20;

  std::size_t count_ = 0;
  std::string text_;
};

/// Tells of each member of `value` that is not in `known`.
void RefuseUnknownMembers(const Json::Value& value, const std::string& where,
                          const std::vector<std::string>& known, Mistakes& mistakes) {
  for (const std::string& name : value.getMemberNames()) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      mistakes.Add(std::string(where).append(": unknown member \"").append(name).append("\""));
    }
  }
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
  argv.reserve(value.size());
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
  Mistakes mistakes;
  RefuseUnknownMembers(value, where, {"path", "binary"}, mistakes);
  PathDescription path;
  mistakes.Try([&] { path.pattern = PathPattern(value["path"], where + ".path"); });
  if (value.isMember("binary") && !value["binary"].isBool()) {
    mistakes.Add(where + ".binary is neither true nor false");
  }
  mistakes.Tell();
  path.binary = value["binary"].asBool();
  return path;
}

CommandDescription Command(const Json::Value& value, const std::string& where, const Limits& limits) {
  if (!value.isObject()) throw DescriptionError(where + " is not an object");
  Mistakes mistakes;
  RefuseUnknownMembers(value, where, {"argv", "time_limit_seconds", "output_limit_bytes"}, mistakes);
  CommandDescription command;
  mistakes.Try([&] { command.argv = Arguments(value["argv"], where + ".argv"); });
  mistakes.Try([&] {
    command.time_limit_seconds =
        WholeNumber(value, "time_limit_seconds", where, limits.command_seconds, limits.command_seconds_max);
  });
  mistakes.Try([&] {
    command.output_limit_bytes =
        WholeNumber(value, "output_limit_bytes", where, limits.output_bytes, limits.output_bytes_max);
  });
  mistakes.Tell();
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
  Mistakes mistakes;
  mistakes.Try(
      [&] { unit.unit = is_object ? UnitName(value["unit"], where + ".unit") : UnitName(value, where); });
  const Json::Value& options = is_object ? value : Json::Value::nullSingleton();
  if (is_object) {
    RefuseUnknownMembers(value, where, {"unit", "lines", "output_limit_bytes", "since_hours"}, mistakes);
  }
  mistakes.Try([&] {
    unit.lines = WholeNumber(options, "lines", where, limits.journal_lines, limits.journal_lines_max);
  });
  mistakes.Try([&] {
    unit.output_limit_bytes =
        WholeNumber(options, "output_limit_bytes", where, limits.journal_bytes, limits.output_bytes_max);
  });
  mistakes.Try(
      [&] { unit.since_hours = WholeNumber(options, "since_hours", where, 0U, limits.journal_hours_max); });
  mistakes.Tell();
  return unit;
}

/// The elements of the array `name`; none when there is no such member.
template <typename Convert>
void ReadArray(const Json::Value& root, const std::string& name, Mistakes& mistakes, const Convert& convert) {
  if (!root.isMember(name)) return;
  const Json::Value& list = root[name];
  if (!list.isArray()) return mistakes.Add("\"" + name + "\" is not an array");
  for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
    mistakes.Try([&] { convert(list[i], name + "[" + std::to_string(i) + "]"); });
  }
}

AppDescription Convert(const Json::Value& root, const Limits& limits) {
  if (!root.isObject()) throw DescriptionError("not a JSON object");
  Mistakes mistakes;
  RefuseUnknownMembers(root, "description", {"description", "paths", "commands", "units"}, mistakes);
  AppDescription result;
  if (root.isMember("description")) {
    mistakes.Try([&] { result.description = SystemString(root["description"], "\"description\""); });
  }
  ReadArray(root, "paths", mistakes, [&](const Json::Value& value, const std::string& where) {
    result.paths.push_back(Path(value, where));
  });
  ReadArray(root, "commands", mistakes, [&](const Json::Value& value, const std::string& where) {
    result.commands.push_back(Command(value, where, limits));
  });
  ReadArray(root, "units", mistakes, [&](const Json::Value& value, const std::string& where) {
    result.units.push_back(Unit(value, where, limits));
  });
  mistakes.Tell();
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

/// Why there is nothing under the path of a description.
std::string MissingText(const std::string& path) {
  std::error_code no_link;
  const std::string target = std::filesystem::read_symlink(path, no_link);
  return no_link ? "unknown application: there is no description " + path
                 : path + " leads to " + target + ", which is not there";
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
    throw DescriptionError(error == ENOENT ? MissingText(path) : path + " can't be read: " + ErrorText(error),
                           error);
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
