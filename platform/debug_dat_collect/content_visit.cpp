#include "content_visit.h"

#include <cstddef>
#include <unordered_set>
#include <utility>

#include "entry_name.h"
#include "file_visit.h"
#include "met_names.h"

namespace TARVO::SupportForm {
namespace {

/// Goes through the applications one after the other.
class ApplicationVisit final : private FileVisitor {
 public:
  ApplicationVisit(const Paths& paths, const Limits& limits, ContentVisitor& visitor)
      : paths_(paths), limits_(limits), visitor_(visitor), met_(limits) {}

  void Visit(const Json::Value& asked) {
    if (!asked.isString() || !IsAppName(asked.asString())) {
      return visitor_.LeaveOut("apps", NotAnAppName(asked));
    }
    app_ = asked.asString();
    where_ = "apps/" + app_;
    if (!visited_.insert(app_).second) {
      return visitor_.LeaveOut(where_, "asked for more than once; taken once");
    }
    try {
      VisitDescription(LoadAppDescription(paths_, limits_, app_));
    } catch (const DescriptionError& error) {
      visitor_.RefuseDescription(where_, error);
    }
  }

 private:
  void VisitDescription(const AppDescription& description) {
    visitor_.BeginApplication(app_, description);
    met_.Begin(description.paths.size());
    for (const PathDescription& path : description.paths) {
      binary_allowed_ = path.binary;
      if (visitor_.HasTime(where_)) VisitMatches(path.pattern, limits_, *this);
    }
    std::size_t number = 0;
    for (const CommandDescription& command : description.commands) {
      visitor_.TakeCommand({CommandEntryName(app_, ++number, command.argv.front()), command, Output::kBegin});
    }
    number = 0;
    for (const UnitDescription& unit : description.units) {
      visitor_.TakeCommand(
          {UnitEntryName(app_, ++number, unit.unit), JournalCommand(unit, limits_), Output::kEndNoErrors});
    }
  }

  bool TakeFile(const std::string& path, UniqueFd fd, const struct stat& status) override {
    if (!FirstSight(path)) return visitor_.HasTime(where_);
    const std::string source = PrintablePath(path);
    ContentFile file = {FileEntryName(app_, source), source, std::move(fd), status, binary_allowed_};
    return visitor_.TakeFile(std::move(file)) && !met_.full();
  }

  bool LeaveOut(const std::string& path, const std::string& why) override {
    if (FirstSight(path)) visitor_.LeaveOut(where_, PrintablePath(path) + ": " + why);
    return !met_.full() && visitor_.HasTime(where_);
  }

  /// Whether the application's patterns meet a name for the first time.
  bool FirstSight(const std::string& path) {
    if (!met_.Add(path)) return false;
    if (met_.full()) {
      visitor_.LeaveOut(where_, "the search ends after " + std::to_string(met_.count()) + " names");
    }
    return true;
  }

  const Paths& paths_;
  const Limits& limits_;
  ContentVisitor& visitor_;
  std::unordered_set<std::string> visited_;  ///< Applications so far.
  std::string app_;                          ///< The one being visited, and
  std::string where_;                        ///< "apps/NAME" of it.
  bool binary_allowed_ = false;              ///< Of the pattern being visited.
  MetNames met_;                             ///< By the application's patterns.
};

}  // namespace

void VisitContent(const Paths& paths, const Limits& limits, const Json::Value& app_list,
                  ContentVisitor& visitor) {
  for (const SystemSource& source : SystemSources(paths, limits)) visitor.TakeSystem(source);
  visitor.TakeFirst(SystemLogs(limits));
  ApplicationVisit applications(paths, limits, visitor);
  for (const Json::Value& asked : app_list) applications.Visit(asked);
}

}  // namespace TARVO::SupportForm
