#include "collection.h"

#include <fcntl.h>
#include <json/writer.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "file_entry.h"
#include "file_util.h"
#include "system_report.h"
#include "task_folder.h"

namespace TARVO::SupportForm {
namespace {

Json::Value Entry(const std::string& name) {
  Json::Value entry(Json::objectValue);
  entry["name"] = name;
  return entry;
}

Json::Value ToJson(const std::vector<std::string>& texts) {
  Json::Value list(Json::arrayValue);
  for (const std::string& text : texts) list.append(text);
  return list;
}

/// Length of the UTF-8 character at `at`; 0 when there is none.
std::size_t Utf8Length(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  const unsigned first = byte(at);
  if (first < 0x80) return 1;
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0U) != 0x80U) return 0;
  }
  const unsigned second = byte(at + 1);
  const bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
  const bool outside = (first == 0xED && second > 0x9F) || (first == 0xF4 && second > 0x8F);
  return overlong || outside ? 0 : length;
}

bool IsKernelFileSystem(int fd) {
  struct statfs status = {};
  if (fstatfs(fd, &status) != 0) return false;
  for (const long type : {PROC_SUPER_MAGIC, SYSFS_MAGIC, DEBUGFS_MAGIC, TRACEFS_MAGIC, CGROUP_SUPER_MAGIC,
                          CGROUP2_SUPER_MAGIC, SECURITYFS_MAGIC}) {
    if (status.f_type == type) return true;
  }
  return false;
}

/// Two digits and the program's name, as a file name: "01-ls.txt".
std::string CommandFileName(std::size_t number, const std::string& program) {
  std::string name = program.substr(program.rfind('/') + 1).substr(0, 64);
  for (char& c : name) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '_' || c == '-';
    if (!plain) c = '_';
  }
  const std::string digits = std::to_string(number);
  return (digits.size() < 2 ? "0" : "") + digits + "-" + name + ".txt";
}

std::uint64_t SizeOf(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

}  // namespace

std::string PrintablePath(const std::string& path) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string result;
  bool changed = false;
  for (std::size_t i = 0; i < path.size();) {
    const auto byte = static_cast<unsigned char>(path[i]);
    const std::size_t length = Utf8Length(path, i);
    if (length != 0 && byte >= 0x20 && byte != 0x7F && byte != '"' && byte != '\\' && byte != '%') {
      result.append(path, i, length);
      i += length;
      continue;
    }
    for (const char c : {'%', kDigits[byte >> 4U], kDigits[byte & 15U]}) result.push_back(c);
    changed = changed || byte != '%';
    ++i;
  }
  return changed ? result : path;
}

Collection::Collection(const Paths& paths, const Limits& limits, int folder_fd, int archive_fd,
                       const std::string& task_id, const Json::Value& app_list)
    : paths_(paths),
      limits_(limits),
      folder_fd_(folder_fd),
      archive_fd_(archive_fd),
      app_list_(app_list),
      deadline_ms_(MonotonicMs() + std::int64_t{limits.task_seconds} * 1000),
      progress_(folder_fd, limits.progress_interval_ms),
      archive_(archive_fd, limits.zstd_level, progress_),
      manifest_(task_id, app_list, limits.manifest_errors) {}

void Collection::Run() {
  TakeSystem();
  for (const Json::Value& asked : app_list_) TakeApplication(asked);
  archive_.AddText("manifest.json", manifest_.Text(), std::time(nullptr));
  archive_.Close();
  progress_.Write();
}

void Collection::TakeSystem() {
  TakeSystemFile("os-release", paths_.os_release);
  TakeSystemText("uname", "uname(2)", UnameText());
  TakeSystemText("uptime", paths_.proc, UptimeText(paths_.proc));
  TakeSystemText("df", "statvfs(3)", DiskText(paths_.proc));
  TakeSystemFile("meminfo", paths_.proc + "/meminfo");
  TakeSystemText("ps", paths_.proc, ProcessText(paths_.proc));
  TakeSystemFile("mounts", paths_.proc + "/self/mounts");
  TakeSystemText("network", "getifaddrs(3)", NetworkText());
  TakeSystemLog();
}

void Collection::TakeSystemFile(const std::string& name, const std::string& path) {
  std::string text;
  bool more = false;
  if (!ReadFileUpTo(path, limits_.kernel_file_bytes, text, more)) {
    return manifest_.AddError("system/" + name, path + ": " + ErrorText(errno));
  }
  if (more) manifest_.AddError("system/" + name, path + ": cut at " + std::to_string(text.size()) + " bytes");
  TakeSystemText(name, path, text);
}

void Collection::TakeSystemText(const std::string& name, const std::string& source, const std::string& text) {
  Json::Value entry = Entry("system/" + name);
  entry["source"] = source;
  TakeText(std::move(entry), text);
}

/// The recent journal; the kernel's log where no journal says anything.
void Collection::TakeSystemLog() {
  const CommandDescription journal = {
      {"journalctl", "--quiet", "-n", "5000", "--no-pager", "-o", "short-iso"},
      limits_.system_command_seconds};
  const CommandDescription kernel = {{"dmesg"}, limits_.system_command_seconds};
  if (!TakeSystemCommand("journal", journal)) TakeSystemCommand("kernel-log", kernel);
}

/// Returns whether the command gave anything.
bool Collection::TakeSystemCommand(const std::string& name, const CommandDescription& command) {
  const std::string where = "system/" + name;
  if (TimeIsUp(where)) return false;
  const UniqueFd spool = OpenSpool();
  const CommandResult result = Run(command, false, spool.get());
  if (SizeOf(spool.get()) == 0) {
    manifest_.AddError(where, command.argv.front() + " gave no output: " + result.Text());
    return false;
  }
  Json::Value entry = Entry(where);
  entry["argv"] = ToJson(command.argv);
  entry["result"] = result.Text();
  TakeSpool(std::move(entry), spool.get());
  return true;
}

void Collection::TakeApplication(const Json::Value& asked) {
  if (!asked.isString() || !IsAppName(asked.asString())) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return manifest_.AddError("apps", "not an application name: " + Json::writeString(builder, asked));
  }
  app_ = asked.asString();
  seen_.clear();
  const std::string where = "apps/" + app_;
  if (!apps_.insert(app_).second) return manifest_.AddError(where, "asked for more than once; taken once");
  try {
    const AppDescription description = LoadAppDescription(paths_, limits_, app_);
    manifest_.AddApplication(app_, description.description);
    for (const std::string& pattern : description.paths) {
      if (!TimeIsUp(where)) VisitMatches(pattern, limits_.folder_depth, *this);
    }
    for (std::size_t i = 0; i < description.commands.size(); ++i)
      TakeAppCommand(i + 1, description.commands[i]);
  } catch (const DescriptionError& error) {
    manifest_.AddError(where, error.what());
  }
}

void Collection::TakeAppCommand(std::size_t number, const CommandDescription& command) {
  Json::Value entry = Entry("apps/" + app_ + "/commands/" + CommandFileName(number, command.argv.front()));
  const std::string where = entry["name"].asString();
  if (TimeIsUp(where)) return;
  const UniqueFd spool = OpenSpool();
  const CommandResult result = Run(command, true, spool.get());
  if (result.end == CommandResult::End::kNotStarted) {
    return manifest_.AddError(where, command.argv.front() + " was " + result.Text());
  }
  entry["argv"] = ToJson(command.argv);
  entry["result"] = result.Text();
  if (result.end == CommandResult::End::kExited) entry["exit_status"] = result.code;
  TakeSpool(std::move(entry), spool.get());
}

bool Collection::TakeFile(const std::string& path, UniqueFd fd, const struct stat& status) {
  if (!seen_.insert(path).second || IsOwnArchive(status)) return true;
  const std::string printable = PrintablePath(path);
  if (TimeIsUp("apps/" + app_ + ": " + printable)) return false;
  Json::Value entry = Entry("apps/" + app_ + "/files" + printable);
  entry["source"] = printable;
  if (IsKernelFileSystem(fd.get())) {
    TakeKernelFile(std::move(entry), fd.get());
  } else {
    TakeRegularFile(std::move(entry), fd.get(), status);
  }
  return true;
}

bool Collection::LeaveOut(const std::string& path, const std::string& why) {
  if (seen_.insert(path).second) manifest_.AddError("apps/" + app_, PrintablePath(path) + ": " + why);
  return !TimeIsUp("apps/" + app_);
}

void Collection::TakeRegularFile(Json::Value entry, int fd, const struct stat& status) {
  const std::string name = entry["name"].asString();
  if (!HasRoom(name, std::min<std::uint64_t>(static_cast<std::uint64_t>(status.st_size), limits_.file_bytes)))
    return;
  const FileEntry taken = AddFile(archive_, name, fd, status, limits_.file_bytes);
  if (!taken.notes.empty()) entry["notes"] = ToJson(taken.notes);
  entry["modified"] = IsoTime(status.st_mtime);
  Record(std::move(entry), taken.size, taken.sha256);
}

/// A file of the kernel's tells its size only by being read.
void Collection::TakeKernelFile(Json::Value entry, int fd) {
  std::string text;
  bool more = false;
  const bool complete = ReadUpTo(fd, limits_.kernel_file_bytes, text, more);
  if (!complete) entry["notes"].append("could not be read to its end: " + ErrorText(errno));
  if (more) entry["notes"].append("cut at " + std::to_string(text.size()) + " bytes");
  TakeText(std::move(entry), text);
}

CommandResult Collection::Run(const CommandDescription& command, bool with_errors, int spool_fd) {
  const std::int64_t task_left = std::max<std::int64_t>(deadline_ms_ - MonotonicMs(), 0);
  CommandRequest request;
  request.argv = command.argv;
  request.programs = paths_.programs;
  request.time_limit_ms = std::min<std::int64_t>(std::int64_t{command.time_limit_seconds} * 1000, task_left);
  request.output_limit = limits_.output_bytes;
  request.with_errors = with_errors;
  progress_.Write();  // Nothing is counted while the command runs.
  return RunCommand(request, spool_fd);
}

/// A file without a name in the task folder, which goes with its descriptor.
UniqueFd Collection::OpenSpool() const {
  UniqueFd fd(openat(folder_fd_, kSpoolFile, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd.valid() || unlinkat(folder_fd_, kSpoolFile, 0) != 0) {
    throw ArchiveFailed("no room for the output of commands: " + ErrorText(errno));
  }
  return fd;
}

void Collection::TakeSpool(Json::Value entry, int spool_fd) {
  const std::string name = entry["name"].asString();
  EntrySource source;
  source.size = SizeOf(spool_fd);
  if (!HasRoom(name, source.size)) return;
  source.modified = std::time(nullptr);
  source.read = ReaderOf(spool_fd, 0);
  const WrittenEntry written = archive_.Add(name, source);
  Record(std::move(entry), source.size, written.sha256);
}

void Collection::TakeText(Json::Value entry, const std::string& text) {
  const std::string name = entry["name"].asString();
  if (!HasRoom(name, text.size())) return;
  const WrittenEntry written = archive_.AddText(name, text, std::time(nullptr));
  Record(std::move(entry), text.size(), written.sha256);
}

/// Whether one more entry fits in; its name is taken then. `where` is the entry's name.
bool Collection::HasRoom(const std::string& where, std::uint64_t bytes) {
  if (manifest_.entries() >= limits_.archive_entries) {
    manifest_.AddError(where,
                       "left out: the archive has " + std::to_string(limits_.archive_entries) + " entries");
  } else if (manifest_.bytes() + bytes > limits_.archive_bytes) {
    manifest_.AddError(where, "left out: with its " + std::to_string(bytes) +
                                  " bytes the archive would pass " + std::to_string(limits_.archive_bytes));
  } else if (!names_.insert(where).second) {
    manifest_.AddError(where, "left out: the archive has an entry of that name");
  } else {
    return true;
  }
  return false;
}

bool Collection::TimeIsUp(const std::string& where) {
  if (MonotonicMs() < deadline_ms_) return false;
  manifest_.AddError(where, "left out, with all that follows: the task's " +
                                std::to_string(limits_.task_seconds) + " seconds are over");
  return true;
}

/// A pattern may lead to the very archive that is being written.
bool Collection::IsOwnArchive(const struct stat& status) const {
  struct stat own = {};
  return fstat(archive_fd_, &own) == 0 && own.st_dev == status.st_dev && own.st_ino == status.st_ino;
}

void Collection::Record(Json::Value entry, std::uint64_t size, const std::string& sha256) {
  entry["size"] = Json::UInt64{size};
  entry["sha256"] = sha256;
  manifest_.AddEntry(entry);
}

void MakeArchive(const Paths& paths, const Limits& limits, int folder_fd, const std::string& task_id,
                 const Json::Value& app_list) {
  UniqueFd fd(openat(folder_fd, kUnfinishedFile, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd.valid()) throw ArchiveFailed("the archive can't be created: " + ErrorText(errno));
  try {
    Collection(paths, limits, folder_fd, fd.get(), task_id, app_list).Run();
    // A file system may tell only at the end that it had no room.
    if (close(fd.Release()) != 0 || renameat(folder_fd, kUnfinishedFile, folder_fd, kArchiveFile) != 0) {
      throw ArchiveFailed("the archive can't be completed: " + ErrorText(errno));
    }
  } catch (...) {
    unlinkat(folder_fd, kUnfinishedFile, 0);
    throw;
  }
}

}  // namespace TARVO::SupportForm
