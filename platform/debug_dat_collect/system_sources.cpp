#include "system_sources.h"

#include <cerrno>
#include <utility>

#include "app_description.h"
#include "file_util.h"
#include "system_report.h"

namespace TARVO::SupportForm {
namespace {

SystemText Whole(std::string text) { return {std::move(text), {}, {}}; }

SystemText Bounded(BoundedText bounded) { return {std::move(bounded.text), std::move(bounded.note), {}}; }

SystemText FileText(const std::string& path, std::size_t limit) {
  std::string text;
  bool more = false;
  if (!ReadFileUpTo(path, limit, text, more)) return {{}, {}, path + ": " + ErrorText(errno)};
  const std::string cut = path + ": cut at " + std::to_string(text.size()) + " bytes";
  return {std::move(text), {}, more ? cut : std::string()};
}

SystemSource File(const char* name, const std::string& path, std::size_t limit) {
  return {name, path, [path, limit] { return FileText(path, limit); }};
}

}  // namespace

std::vector<SystemSource> SystemSources(const Paths& paths, const Limits& limits) {
  const std::string& proc = paths.proc;
  const std::size_t most = limits.kernel_file_bytes;
  return {
      File("system/os-release", paths.os_release, most),
      {"system/uname", "uname(2)", [] { return Whole(UnameText()); }},
      {"system/uptime", proc, [proc] { return Whole(UptimeText(proc)); }},
      {"system/df", "statvfs(3)", [proc, most] { return Bounded(DiskText(proc, most)); }},
      File("system/meminfo", proc + "/meminfo", most),
      {"system/ps", proc, [proc, most] { return Bounded(ProcessText(proc, most)); }},
      File("system/mounts", proc + "/self/mounts", most),
      {"system/network", "getifaddrs(3)", [] { return Whole(NetworkText()); }},
  };
}

std::vector<CommandEntry> SystemLogs(const Limits& limits) {
  const UnitDescription all_units = {{}, limits.journal_lines, limits.journal_bytes, 0};
  const CommandDescription kernel = {{"dmesg"}, limits.system_command_seconds, limits.output_bytes};
  return {
      {"system/journal", JournalCommand(all_units, limits), Output::kEndNoErrors},
      {"system/kernel-log", kernel, Output::kEndNoErrors},
  };
}

}  // namespace TARVO::SupportForm
