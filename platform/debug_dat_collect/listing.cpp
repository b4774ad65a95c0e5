#include "listing.h"

#include <algorithm>
#include <utility>

#include "content_visit.h"
#include "file_util.h"

namespace TARVO::SupportForm {
namespace {

std::string Joined(const std::vector<std::string>& argv) {
  std::string text;
  for (const std::string& argument : argv) text += (text.empty() ? "" : " ") + argument;
  return text;
}

/// The dry run: names what the collection would take.
class Lister final : public ContentVisitor {
 public:
  explicit Lister(const Limits& limits) : limits_(limits) {}

  [[nodiscard]] Listing Result() { return std::move(listing_); }

  void TakeSystem(const SystemSource& source) override {
    Add("system", {source.name, std::nullopt, source.origin});
  }

  void TakeFirst(const std::vector<CommandEntry>& commands) override {
    std::string origin;
    for (const CommandEntry& entry : commands) {
      if (!origin.empty()) origin += "; where that gives nothing, " + entry.name + ": ";
      origin += Joined(entry.command.argv);
    }
    Add("system", {commands.front().name, std::nullopt, origin});
  }

  void BeginApplication(const std::string& app, const AppDescription& /*description*/) override {
    where_ = "apps/" + app;
  }

  bool TakeFile(ContentFile file) override {
    ListedEntry entry = {file.name, std::nullopt, file.source};
    if (!IsKernelFileSystem(file.fd.get())) {
      const std::uint64_t size =
          std::min(static_cast<std::uint64_t>(file.status.st_size), limits_.file_bytes);
      const std::uint64_t left = limits_.archive_bytes - bytes_;
      if (left < std::min(size, limits_.least_bytes)) {
        LeaveOut(where_, file.source + ": the archive would pass " + std::to_string(limits_.archive_bytes) +
                             " bytes");
        return true;
      }
      entry.size = std::min(size, left);
      bytes_ += *entry.size;
    }
    Add(where_, std::move(entry));
    return true;
  }

  void TakeCommand(const CommandEntry& entry) override {
    Add(where_, {entry.name, std::nullopt, Joined(entry.command.argv)});
  }

  void LeaveOut(const std::string& where, const std::string& why) override {
    listing_.left_out.push_back(where + ": " + why);
  }

  void RefuseDescription(const std::string& where, const DescriptionError& error) override {
    LeaveOut(where, error.what());
  }

  bool HasTime(const std::string& /*where*/) override { return true; }

 private:
  void Add(const std::string& where, ListedEntry entry) {
    if (listing_.entries.size() < limits_.archive_entries) {
      listing_.entries.push_back(std::move(entry));
    } else {
      LeaveOut(where,
               entry.origin + ": the archive has " + std::to_string(limits_.archive_entries) + " entries");
    }
  }

  const Limits& limits_;
  Listing listing_;
  std::uint64_t bytes_ = 0;  ///< Of the files listed.
  std::string where_;        ///< The application being listed.
};

}  // namespace

Listing ListArchive(const Paths& paths, const Limits& limits, const Json::Value& app_list) {
  Lister lister(limits);
  VisitContent(paths, limits, app_list, lister);
  return lister.Result();
}

}  // namespace TARVO::SupportForm
