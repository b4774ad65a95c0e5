#include "listing.h"

#include <algorithm>
#include <unordered_set>

#include "app_description.h"
#include "entry_name.h"
#include "file_util.h"
#include "file_visit.h"
#include "met_names.h"

namespace TARVO::SupportForm {
namespace {

std::string Joined(const std::vector<std::string>& argv) {
  std::string text;
  for (const std::string& argument : argv) text += (text.empty() ? "" : " ") + argument;
  return text;
}

class Lister final : private FileVisitor {
 public:
  Lister(const Paths& paths, const Limits& limits) : paths_(paths), limits_(limits), met_(limits) {}

  Listing Run(const Json::Value& app_list) {
    ListSystem();
    for (const Json::Value& asked : app_list) ListApplication(asked);
    return std::move(listing_);
  }

 private:
  void ListSystem() {
    const UnitDescription journal = {{}, limits_.journal_lines, limits_.journal_bytes, 0};
    for (const auto& [name, origin] : std::initializer_list<std::pair<const char*, std::string>>{
             {"os-release", paths_.os_release},
             {"uname", "uname(2)"},
             {"uptime", paths_.proc},
             {"df", "statvfs(3)"},
             {"meminfo", paths_.proc + "/meminfo"},
             {"ps", paths_.proc},
             {"mounts", paths_.proc + "/self/mounts"},
             {"network", "getifaddrs(3)"},
             {"journal", Joined(JournalCommand(journal, limits_).argv)}}) {
      listing_.entries.push_back({std::string("system/") + name, std::nullopt, origin});
    }
  }

  void ListApplication(const Json::Value& asked) {
    if (!asked.isString() || !IsAppName(asked.asString())) {
      listing_.left_out.push_back("apps: " + NotAnAppName(asked));
      return;
    }
    app_ = asked.asString();
    if (!apps_.insert(app_).second) return Note("asked for more than once; taken once");
    try {
      ListDescription(LoadAppDescription(paths_, limits_, app_));
    } catch (const DescriptionError& error) {
      Note(error.what());
    }
  }

  void ListDescription(const AppDescription& description) {
    met_.Begin(description.paths.size());
    for (const PathDescription& path : description.paths) VisitMatches(path.pattern, limits_, *this);
    std::size_t number = 0;
    for (const CommandDescription& command : description.commands) {
      Add({CommandEntryName(app_, ++number, command.argv.front()), std::nullopt, Joined(command.argv)});
    }
    number = 0;
    for (const UnitDescription& unit : description.units) {
      const CommandDescription command = JournalCommand(unit, limits_);
      Add({UnitEntryName(app_, ++number, unit.unit), std::nullopt, Joined(command.argv)});
    }
  }

  bool TakeFile(const std::string& path, UniqueFd fd, const struct stat& status) override {
    if (!met_.Add(path)) return true;
    const std::string printable = PrintablePath(path);
    ListedEntry entry = {FileEntryName(app_, printable), std::nullopt, printable};
    if (!IsKernelFileSystem(fd.get())) {
      const std::uint64_t size = std::min(static_cast<std::uint64_t>(status.st_size), limits_.file_bytes);
      const std::uint64_t left = limits_.archive_bytes - bytes_;
      if (left < std::min(size, limits_.least_bytes)) {
        Note(printable + ": the archive would pass " + std::to_string(limits_.archive_bytes) + " bytes");
        return true;
      }
      entry.size = std::min(size, left);
      bytes_ += *entry.size;
    }
    Add(std::move(entry));
    return !met_.full();
  }

  bool LeaveOut(const std::string& path, const std::string& why) override {
    if (met_.Add(path)) Note(PrintablePath(path) + ": " + why);
    return !met_.full();
  }

  void Add(ListedEntry entry) {
    if (listing_.entries.size() < limits_.archive_entries) {
      listing_.entries.push_back(std::move(entry));
    } else {
      Note(entry.origin + ": the archive has " + std::to_string(limits_.archive_entries) + " entries");
    }
  }

  void Note(const std::string& text) { listing_.left_out.push_back("apps/" + app_ + ": " + text); }

  const Paths& paths_;
  const Limits& limits_;
  Listing listing_;
  std::uint64_t bytes_ = 0;               ///< Of the files listed.
  std::unordered_set<std::string> apps_;  ///< Applications listed so far.
  std::string app_;                       ///< The application being listed.
  MetNames met_;                          ///< By its patterns.
};

}  // namespace

Listing ListArchive(const Paths& paths, const Limits& limits, const Json::Value& app_list) {
  return Lister(paths, limits).Run(app_list);
}

}  // namespace TARVO::SupportForm
