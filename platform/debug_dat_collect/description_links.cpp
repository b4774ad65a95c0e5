#include "description_links.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iomanip>
#include <ostream>
#include <set>
#include <stdexcept>
#include <system_error>

#include "app_description.h"
#include "file_util.h"

namespace TARVO::SupportForm {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSuffix = ".json";

/// Whatever lies under the name of a description.
struct LinkPlace {
  fs::path path;
  fs::file_type type = fs::file_type::not_found;
  fs::path target;  ///< Of a link: its text.

  [[nodiscard]] bool is_there() const { return type != fs::file_type::not_found; }
  /// Whether it is a link to a ready description, though it be another installation's: all their folders end alike.
  [[nodiscard]] bool IsLinkTo(const fs::path& ready) const {
    const fs::path folder = ready.parent_path();
    const fs::path of_target = target.parent_path();
    return type == fs::file_type::symlink && target.filename() == ready.filename() &&
           of_target.filename() == folder.filename() &&
           of_target.parent_path().filename() == folder.parent_path().filename();
  }
};

LinkPlace LinkPlaceOf(const Paths& paths, const std::string& name) {
  LinkPlace place;
  place.path = fs::path(paths.descriptions) / (name + kSuffix);
  place.type = fs::symlink_status(place.path).type();
  if (place.type == fs::file_type::symlink) place.target = fs::read_symlink(place.path);
  return place;
}

fs::path ReadyPath(const Paths& paths, const std::string& name) {
  return fs::path(paths.ready_descriptions) / (name + kSuffix);
}

/// Adds the names of the applications that are described in a folder, which may be missing.
void AddNames(const fs::path& folder, std::set<std::string>& names) {
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    const fs::path& file = entry->path();
    if (file.extension() == kSuffix && IsAppName(file.stem().string())) names.insert(file.stem());
  }
  if (error && error != std::errc::no_such_file_or_directory) {
    throw std::runtime_error(folder.string() + " can't be read: " + error.message());
  }
}

DescriptionState StateOf(const Paths& paths, const std::string& name) {
  const LinkPlace place = LinkPlaceOf(paths, name);
  if (!place.is_there()) return DescriptionState::kAvailable;
  if (place.type == fs::file_type::symlink && !fs::exists(place.path)) return DescriptionState::kBrokenLink;
  return place.IsLinkTo(ReadyPath(paths, name)) ? DescriptionState::kEnabled : DescriptionState::kOwn;
}

AppDescription LoadReady(const Paths& paths, const Limits& limits, const std::string& name) {
  Paths ready = paths;
  ready.descriptions = paths.ready_descriptions;
  return LoadAppDescription(ready, limits, name);
}

std::string TextOf(const Paths& paths, const Limits& limits, const std::string& name,
                   DescriptionState state) {
  try {
    const bool ready = state == DescriptionState::kAvailable;
    return (ready ? LoadReady(paths, limits, name) : LoadAppDescription(paths, limits, name)).description;
  } catch (const DescriptionError& error) {
    return error.what();
  }
}

const char* Text(DescriptionState state) {
  switch (state) {  // and no table: the compiler tells which one has no name yet
    case DescriptionState::kEnabled:
      return "enabled";
    case DescriptionState::kAvailable:
      return "available";
    case DescriptionState::kOwn:
      return "own";
    case DescriptionState::kBrokenLink:
      return "broken link";
  }
  return "";
}

[[noreturn]] void FailToChange(const fs::path& path, int error) {
  const bool refused = error == EACCES || error == EPERM;
  throw std::runtime_error(path.string() + " can't be changed: " + ErrorText(error) +
                           (refused ? "; run this as root" : ""));
}

[[noreturn]] void RefuseToTouch(const LinkPlace& place) {
  throw std::runtime_error(place.path.string() +
                           " is not a link to the ready description and stays as it is" +
                           (place.target.empty() ? "" : ": it leads to " + place.target.string()));
}

[[noreturn]] void FailForUnknown(const Paths& paths, const std::string& name) {
  throw std::runtime_error("there is no ready description " + ReadyPath(paths, name).string() +
                           "; --list names those that there are");
}

/// Makes the folder of descriptions, which nobody but its owner may write to, whatever the caller's umask.
void MakeFolder(const fs::path& folder) {
  const mode_t former = umask(022);
  std::error_code error;
  fs::create_directories(folder, error);
  umask(former);
  if (error) FailToChange(folder, error.value());
}

}  // namespace

std::vector<ListedDescription> ListDescriptions(const Paths& paths, const Limits& limits) {
  std::set<std::string> names;
  AddNames(paths.ready_descriptions, names);
  AddNames(paths.descriptions, names);
  std::vector<ListedDescription> listed;
  for (const std::string& name : names) {
    const DescriptionState state = StateOf(paths, name);
    listed.push_back({name, state, TextOf(paths, limits, name, state)});
  }
  return listed;
}

bool EnableDescription(const Paths& paths, const Limits& limits, const std::string& name) {
  const fs::path ready = ReadyPath(paths, name);
  if (!fs::exists(ready)) FailForUnknown(paths, name);
  static_cast<void>(LoadReady(paths, limits, name));
  const LinkPlace place = LinkPlaceOf(paths, name);
  if (place.is_there() && !place.IsLinkTo(ready)) RefuseToTouch(place);
  if (fs::exists(place.path)) return false;
  if (place.is_there() && unlink(place.path.c_str()) != 0) FailToChange(place.path, errno);
  MakeFolder(paths.descriptions);
  if (symlink(ready.c_str(), place.path.c_str()) != 0) FailToChange(place.path, errno);
  return true;
}

bool DisableDescription(const Paths& paths, const std::string& name) {
  const fs::path ready = ReadyPath(paths, name);
  const LinkPlace place = LinkPlaceOf(paths, name);
  if (place.is_there() && !place.IsLinkTo(ready)) RefuseToTouch(place);
  if (!place.is_there() && !fs::exists(ready)) FailForUnknown(paths, name);
  if (!place.is_there()) return false;
  if (unlink(place.path.c_str()) != 0) FailToChange(place.path, errno);
  return true;
}

void PrintDescriptions(const Paths& paths, const Limits& limits, std::ostream& out) {
  for (const ListedDescription& description : ListDescriptions(paths, limits)) {
    out << std::left << std::setw(13) << Text(description.state) << std::setw(23) << description.name << " "
        << description.text << "\n";
  }
}

bool ChangeDescriptions(const Paths& paths, const Limits& limits, const std::vector<std::string>& names,
                        bool enable, std::ostream& out, std::ostream& err) {
  bool all = true;
  for (const std::string& name : names) {
    try {
      const bool changed = enable ? EnableDescription(paths, limits, name) : DisableDescription(paths, name);
      out << name << ": " << (changed ? "" : "already ") << (enable ? "enabled" : "disabled") << "\n";
    } catch (const std::exception& error) {
      err << "debug_dat_collect: " << name << ": " << FailureText(error) << "\n";
      all = false;
    }
  }
  return all;
}

}  // namespace TARVO::SupportForm
