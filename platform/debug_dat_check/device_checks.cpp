#include "device_checks.h"

#include <fcntl.h>
#include <json/value.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <set>
#include <system_error>

#include "app_description.h"
#include "daemon_json.h"
#include "file_util.h"
#include "program_path.h"
#include "redaction_rules.h"
#include "trusted_path.h"

namespace DebugDatCheck {
namespace {

namespace client = TarvoOrvane::Internal;
namespace form = TARVO::SupportForm;
namespace fs = std::filesystem;

// The checks' names, as they are printed, a line each; docs/debug_dat_check.md lists them.
constexpr char kConfiguration[] = "configuration";
constexpr char kTls[] = "TLS files";
constexpr char kSerial[] = "serial number";
constexpr char kSpace[] = "free space";
constexpr char kPatterns[] = "pattern file";
constexpr char kDebugLog[] = "debug log";
constexpr char kApplication[] = "application";

/// Far more than two addresses need.
constexpr std::size_t kMaxConfigurationBytes = std::size_t{1} << 20;

constexpr char kConfigurationForm[] =
    R"(Write {"debug_dat_file_transmitter": {"grpc_server": {"url": "https://HOST:PORT"}, )"
    R"("css_server": {"url": "https://HOST"}}} there, then restart the daemon)";

/// What others could change in a path's place, be anything there or not.
form::Distrust DistrustOf(const std::string& path) { return form::OpenTrusted(path, O_PATH).distrust; }

Check Distrusted(const std::string& name, const form::Distrust& distrust) {
  return Problem(name, distrust.text, distrust.advice);
}

/// `check`, unless it is no problem and others could change what lies under the path.
Check UnlessDistrusted(const Check& check, const std::string& path) {
  if (check.state == State::kProblem) return check;
  const form::Distrust distrust = DistrustOf(path);
  return distrust ? Distrusted(check.name, distrust) : check;
}

/// By the effective user, as the daemon's files are read; access() would ask for the real one, who stays root.
bool HasAccess(const std::string& path, int mode) {
  return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

// ---- configuration ----

/// Takes the string debug_dat_file_transmitter.SERVER.url.
/// @return What is wrong with it; empty when nothing is.
std::string TakeUrl(const Json::Value& root, const char* server, std::string& url) {
  const Json::Value* value = &root;
  std::string place;
  for (const char* key : {"debug_dat_file_transmitter", server, "url"}) {
    // Before any member is looked at: jsoncpp throws where there can be none.
    if (!value->isObject()) return (place.empty() ? "the document" : place) + " is no object";
    place += (place.empty() ? "" : ".") + std::string(key);
    if (!value->isMember(key)) return place + " is missing";
    value = &(*value)[key];
  }
  if (!value->isString()) return place + " is no string";
  url = value->asString();
  return url.empty() ? place + " is empty" : "";
}

// ---- TLS files ----

std::string AsSentence(std::string text) {
  text.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(text.front())));
  return text;
}

// ---- serial number ----

/// One of the files that may tell the serial number. The library tells the number and not where it found it, so it is
/// asked for each file alone.
struct SerialSource {
  std::string file;
  client::SerialNumberPaths paths;  ///< This source alone.
  std::string description;
};

std::array<SerialSource, 3> SourcesOf(const client::SerialNumberPaths& paths) {
  return {{{paths.configured, {paths.configured, "", ""}, "from " + paths.configured},
           {paths.dmi, {"", paths.dmi, ""}, "from the board's maker, " + paths.dmi},
           {paths.machine_id, {"", "", paths.machine_id}, "a hash of " + paths.machine_id}}};
}

bool MayNotRead(const std::string& path) { return !HasAccess(path, R_OK) && errno == EACCES; }

// ---- free space ----

/// The folder itself, or the nearest one above it that is there.
fs::path NearestFolder(fs::path folder) {
  std::error_code error;
  while (!fs::exists(folder, error) && folder.has_relative_path()) folder = folder.parent_path();
  return folder;
}

std::string SizeText(std::uint64_t bytes) {
  std::array<char, 32> text{};
  constexpr double kMebibyte = 1UL << 20;
  const double mebibytes = static_cast<double>(bytes) / kMebibyte;
  const bool large = mebibytes >= 1024;
  static_cast<void>(std::snprintf(text.data(), text.size(), large ? "%.1f GiB" : "%.0f MiB",
                                  large ? mebibytes / 1024 : mebibytes));
  return text.data();
}

// ---- application descriptions ----

bool IsProgram(const std::string& path) {
  std::error_code ignored;
  return fs::is_regular_file(path, ignored) && HasAccess(path, X_OK);
}

/// What commands of the description can't be run, and why; empty where all can.
std::string MissingPrograms(const form::AppDescription& app, const form::Paths& paths) {
  std::vector<std::string> programs;
  programs.reserve(app.commands.size() + 1);
  for (const form::CommandDescription& command : app.commands) programs.push_back(command.argv.front());
  if (!app.units.empty()) programs.push_back(form::JournalCommand({}, {}).argv.front());
  std::string text;
  std::set<std::string> seen;
  for (const std::string& program : programs) {
    if (!seen.insert(program).second) continue;
    const form::ProgramPath found = form::FindProgram(program, paths.programs);
    if (found.distrust) {
      text += (text.empty() ? "" : "; ") + found.distrust.text;
    } else if (!IsProgram(found.path)) {
      text += (text.empty() ? "" : "; ") + std::string("there is no program ") + program;
    }
  }
  return text;
}

/// One entry of the folder of descriptions.
/// @param file  Its name there.
Check CheckDescription(const form::Paths& paths, const form::Limits& limits, const std::string& file) {
  constexpr char kSuffix[] = ".json";
  constexpr std::size_t kSuffixSize = sizeof kSuffix - 1;
  const std::string path = paths.descriptions + "/" + file;
  if (file.size() < kSuffixSize || file.substr(file.size() - kSuffixSize) != kSuffix) {
    return Warning(kApplication, path + ": is not read, its name does not end in .json",
                   "Rename it to NAME.json, or remove it");
  }
  const std::string name = file.substr(0, file.size() - kSuffixSize);
  if (!form::IsAppName(name)) {
    return Problem(kApplication, path + ": no ticket can ask for an application of this name",
                   "Rename it: a letter or digit, then up to 63 of letters, digits, '.', '_' and '-', "
                   "then .json");
  }
  try {
    const auto app = LoadAppDescription(paths, limits, name);
    if (const std::string missing = MissingPrograms(app, paths); !missing.empty()) {
      // Ready descriptions are for many devices, of which some lack one program or another.
      std::error_code ignored;
      const bool is_ready = fs::read_symlink(path, ignored).parent_path() == paths.ready_descriptions;
      const std::string advice =
          "Install what has it, or take it out of the file; until then it is missing in each archive";
      return is_ready ? Warning(kApplication, path + ": " + missing, "Install what has it, if it is wanted")
                      : Problem(kApplication, path + ": " + missing, advice);
    }
    return Ok(kApplication, name + ": " + Counted(app.paths.size(), "path") + ", " +
                                Counted(app.commands.size(), "command") + ", " +
                                Counted(app.units.size(), "journal unit"));
  } catch (const form::DescriptionError& error) {
    return Problem(kApplication, error.what(),
                   "Correct the file; until then a ticket for " + name + " gets nothing of it",
                   error.error());
  }
}

}  // namespace

Check CheckConfiguration(const std::string& path, ServiceUrls& urls) {
  std::string text;
  bool more = false;
  if (!form::ReadFileUpTo(path, kMaxConfigurationBytes, text, more)) {
    const int error = errno;
    return Problem(kConfiguration, path + " can't be read: " + form::ErrorText(error), kConfigurationForm,
                   error);
  }
  if (more) return Problem(kConfiguration, path + " is longer than 1 MiB", kConfigurationForm);
  Json::Value root;
  if (const std::string fault = ParseAsTheDaemon(text, root); !fault.empty()) {
    return Problem(kConfiguration, path + " is not valid JSON: " + fault,
                   "Correct it, then restart the daemon");
  }
  const std::string notification_fault = TakeUrl(root, "grpc_server", urls.notification);
  std::string css_fault = TakeUrl(root, "css_server", urls.css);
  if (css_fault == notification_fault) css_fault.clear();  // both servers lack the same thing
  if (notification_fault.empty() && css_fault.empty()) {
    return UnlessDistrusted(Ok(kConfiguration, path + " names both servers"), path);
  }
  const bool both = !notification_fault.empty() && !css_fault.empty();
  return Problem(kConfiguration, path + ": " + notification_fault + (both ? ", " : "") + css_fault,
                 kConfigurationForm);
}

std::vector<Check> CheckTlsFiles(const std::string& folder, std::optional<client::TlsFiles>& out) {
  client::TlsFiles files;
  std::vector<Check> checks;
  for (const client::TlsFault& fault : client::LoadTlsFiles(folder, files)) {
    checks.push_back(Problem(kTls, fault.file + ": " + fault.what, AsSentence(fault.advice), fault.error));
  }
  if (!checks.empty()) return checks;
  std::set<std::string> told;  // a folder that others can change is one problem, not three
  for (const char* name : {"/ca.pem", "/client.pem", "/client.key"}) {
    const form::Distrust distrust = DistrustOf(folder + name);
    if (distrust && told.insert(distrust.text).second) checks.push_back(Distrusted(kTls, distrust));
  }
  const std::string trust = files.authorities.empty()
                                ? "the system's authorities are trusted (no " + folder + "/ca.pem)"
                                : "the authorities in " + folder + "/ca.pem are trusted, and no others";
  const std::string identity =
      files.client_key.empty() ? "" : ", and the device shows " + folder + "/client.pem";
  // The files work, whoever else may have a say: the servers can be looked at with them.
  out = std::move(files);
  if (checks.empty()) checks.push_back(Ok(kTls, trust + identity));
  return checks;
}

Check CheckSerialNumber(const client::SerialNumberPaths& paths) {
  const std::string advice = "Write the number, 1 to 128 printable ASCII characters, to " + paths.configured;
  std::string hidden;  // the first source that this process may not read
  for (const SerialSource& source : SourcesOf(paths)) {
    auto number = client::ReadSerialNumber(source.paths);
    if (!number && hidden.empty() && MayNotRead(source.file)) hidden = source.file;
    if (!number) continue;
    std::string text = *number + ", " + source.description;
    if (!hidden.empty()) {
      // An earlier source is hidden from this user, and the daemon may find its number there.
      return Warning(kSerial, text.append(", but this may not read ").append(hidden),
                     "Run this as root, as the daemon runs; it may find another number");
    }
    if (source.file != paths.configured && HasAccess(paths.configured, F_OK)) {
      return Warning(kSerial, text + ", because " + paths.configured + " holds no serial number", advice);
    }
    return UnlessDistrusted(Ok(kSerial, text), paths.configured);
  }
  const std::string refused = hidden.empty() ? "" : " (" + hidden + ": " + form::ErrorText(EACCES) + ")";
  return Problem(kSerial, "none is found, so the service can't tell this device from others" + refused,
                 advice, hidden.empty() ? 0 : EACCES);
}

Check CheckFreeSpace(const form::Paths& paths, const form::Limits& limits) {
  if (const form::Distrust distrust = DistrustOf(paths.state)) return Distrusted(kSpace, distrust);
  const std::string folder = NearestFolder(paths.state);
  struct statvfs status {};
  if (statvfs(folder.c_str(), &status) != 0) {
    const int error = errno;
    return Problem(kSpace, folder + " can't be looked at: " + form::ErrorText(error),
                   "Mend the file system; archives are made in " + paths.state, error);
  }
  if ((status.f_flag & ST_RDONLY) != 0) {
    return Problem(kSpace, folder + " is on a read-only file system",
                   "Make " + paths.state + " writable; archives are made there");
  }
  // f_bavail: what is kept for root is not for archives.
  const std::uint64_t available = std::uint64_t{status.f_bavail} * status.f_frsize;
  const std::string text = SizeText(available) + " for archives in " + paths.state;
  const std::string advice = "Make room on the file system of " + folder;
  if (available < limits.free_bytes + limits.least_bytes) {
    return Problem(kSpace,
                   "only " + text + ", of which a collection leaves " + SizeText(limits.free_bytes) + " free",
                   advice);
  }
  if (available < limits.free_bytes + limits.archive_bytes) {
    return Warning(kSpace, text + ", but the largest take " + SizeText(limits.archive_bytes), advice);
  }
  return Ok(kSpace, text);
}

Check CheckPatterns(const form::Paths& paths) {
  const std::string advice = "Mend the file, or remove it; until then nothing is collected";
  std::string text;
  bool more = false;
  form::Distrust distrust;
  if (form::ReadTrustedFile(paths.redaction, form::kPatternFileBytes, text, more, distrust)) {
    if (more) {
      const std::string limit = std::to_string(form::kPatternFileBytes);
      return Problem(kPatterns, paths.redaction + " is longer than " + limit + " bytes", advice);
    }
    try {
      const form::RedactionRules rules(paths.redaction);
      return Ok(kPatterns, paths.redaction + ": " + Counted(rules.pattern_count(), "pattern"));
    } catch (const form::RedactionError& error) {
      return Problem(kPatterns, error.what(), advice);
    }
  }
  const int error = errno;  // of the reading; what follows may change it
  if (distrust) return Distrusted(kPatterns, distrust);
  std::error_code ignored;
  // A link to nothing is no missing file: somebody meant to have patterns.
  if (error == ENOENT && !fs::is_symlink(paths.redaction, ignored)) {
    return Ok(kPatterns, "none (no " + paths.redaction + "): the built-in rules hold");
  }
  return Problem(kPatterns, paths.redaction + " can't be read: " + form::ErrorText(error), advice, error);
}

Check CheckDebugFlag(const client::LoggerOptions& logger) {
  const bool on = HasAccess(logger.flag_file, F_OK);
  return UnlessDistrusted(
      Ok(kDebugLog, on ? "log lines go to " + logger.log_file + ", because there is " + logger.flag_file
                       : "off: log lines go to syslog (no " + logger.flag_file + ")"),
      logger.flag_file);
}

std::vector<Check> CheckApplications(const form::Paths& paths, const form::Limits& limits) {
  if (const form::Distrust distrust = DistrustOf(paths.descriptions)) {
    return {Distrusted(kApplication, distrust)};
  }
  const std::string advice =
      "Describe each application whose data may be asked for in " + paths.descriptions + "/NAME.json";
  std::error_code error;
  std::vector<std::string> files;
  // All entries, not only *.json: a file that is not read is worth a word.
  for (fs::directory_iterator entry(paths.descriptions, error), end; !error && entry != end;
       entry.increment(error)) {
    files.push_back(entry->path().filename());
  }
  if (error == std::errc::no_such_file_or_directory || (!error && files.empty())) {
    return {Warning(kApplication, "none is described: archives hold the system's data only", advice)};
  }
  if (error) {
    return {Problem(kApplication, paths.descriptions + " can't be read: " + form::ErrorText(error.value()),
                    advice, error.value())};
  }
  std::sort(files.begin(), files.end());
  std::vector<Check> checks;
  checks.reserve(files.size());
  for (const std::string& file : files) checks.push_back(CheckDescription(paths, limits, file));
  return checks;
}

}  // namespace DebugDatCheck
