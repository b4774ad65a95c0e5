#include "file_visit.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "file_util.h"
#include "trusted_path.h"

namespace TARVO::SupportForm {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

/// A name in a folder.
struct FolderEntry {
  std::string text;
  unsigned char type;  ///< DT_REG and so on; DT_UNKNOWN where the file system doesn't tell.

  bool operator<(const FolderEntry& other) const { return text < other.text; }
};

/// A folder on the way from the root to what is visited: a real one, no link.
struct Folder {
  UniqueFd fd;
  std::string name;
  dev_t device = 0;
  ino_t inode = 0;
  /// Nobody but root and the own user could have changed what is here, or on the way here. Who has no number in a user
  /// namespace is neither of them.
  bool trusted = false;
};

/// The root first. A copy shares the folders.
using Way = std::vector<std::shared_ptr<const Folder>>;

int EnterOpened(Way& way, UniqueFd fd, const std::string& name) {
  struct stat status = {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) return errno;
  const bool others_write = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  const bool trusted = (way.empty() || way.back()->trusted) && IsRootOrSelf(status.st_uid) && !others_write;
  way.push_back(
      std::make_shared<const Folder>(Folder{std::move(fd), name, status.st_dev, status.st_ino, trusted}));
  return 0;
}

/// Opens the folder `name` of the last folder as the next one. Returns 0 or an errno value.
int Enter(Way& way, const std::string& name) {
  return EnterOpened(way, UniqueFd(openat(way.back()->fd.get(), name.c_str(), kFolderFlags)), name);
}

/// Where the link `name` leads. Returns 0 or an errno value.
int ReadLink(const Folder& folder, const std::string& name, std::string& target) {
  std::array<char, PATH_MAX> text = {};
  const ssize_t length = readlinkat(folder.fd.get(), name.c_str(), text.data(), text.size());
  if (length < 0) return errno;
  target.assign(text.data(), static_cast<std::size_t>(length));
  return 0;
}

/// Follows `name` in the last folder for as long as it is a link.
/// @param way   Leads to the folder of the real thing afterwards,
/// @param name  and this is its name there.
/// @return 0 or an errno value; ELOOP for a link that is not to be followed.
int Resolve(Way& way, FolderEntry& name, unsigned max_links) {
  std::deque<std::string> todo = {name.text};
  name = {".", DT_DIR};
  for (unsigned links = 0; !todo.empty();) {
    const std::string part = todo.front();
    todo.pop_front();
    if (part == "." || (part == ".." && way.size() == 1)) continue;
    if (part == "..") {
      way.pop_back();
      continue;
    }
    struct stat status = {};
    if (fstatat(way.back()->fd.get(), part.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return errno;
    if (S_ISLNK(status.st_mode)) {
      if (!way.back()->trusted || !IsRootOrSelf(status.st_uid) || ++links > max_links) return ELOOP;
      std::string target;
      if (const int error = ReadLink(*way.back(), part, target)) return error;
      if (target.front() == '/') way.resize(1);
      const std::deque<std::string> parts = PartsOf(target);
      todo.insert(todo.begin(), parts.begin(), parts.end());
    } else if (todo.empty()) {
      name = {part, static_cast<unsigned char>(IFTODT(status.st_mode))};
      return 0;
    } else if (const int error = Enter(way, part)) {
      return error;
    }
  }
  // The target ended in the middle of the way.
  if (way.size() > 1) {
    name.text = way.back()->name;
    way.pop_back();
  }
  return 0;
}

/// The names in a folder, sorted, "." and ".." left out.
/// @param max  No more are read.
/// @return 0 or an errno value; E2BIG when there are more.
int ReadNames(const Folder& folder, std::size_t max, std::vector<FolderEntry>& names) {
  // A descriptor of its own: a duplicate would share the place in the list.
  const int fd = openat(folder.fd.get(), ".", kFolderFlags);
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(fd < 0 ? nullptr : fdopendir(fd), &closedir);
  if (!stream) {
    const int error = errno;
    if (fd >= 0) close(fd);
    return error;
  }
  int error = 0;
  errno = 0;
  while (const dirent* entry = readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (names.size() == max) {
      error = E2BIG;
      break;
    }
    names.push_back({std::string(name), entry->d_type});
    errno = 0;
  }
  if (error == 0) error = errno;
  std::sort(names.begin(), names.end());
  return error;
}

std::string Below(const std::string& folder, const std::string& name) {
  return folder == "/" ? folder + name : folder + "/" + name;
}

bool IsWildcard(const std::string& part) { return part.find_first_of("*?[\\") != std::string::npos; }

/// One pattern's visit. Its operations return false to end it.
class Visit {
 public:
  Visit(const Limits& limits, FileVisitor& visitor) : limits_(limits), visitor_(visitor) {}

  void Run(const std::string& pattern) {
    Way way;
    if (const int error = EnterOpened(way, UniqueFd(open("/", kFolderFlags)), "/")) {
      visitor_.LeaveOut("/", ErrorText(error));
      return;
    }
    const std::deque<std::string> parts = PartsOf(pattern);
    const bool goes_on = parts.empty() ? WalkLast(way, "/", limits_.folder_depth) : Match(way, "", parts);
    if (goes_on && !met_something_) visitor_.LeaveOut(pattern, "matches nothing");
  }

 private:
  bool LeaveOut(const std::string& path, const std::string& why) {
    met_something_ = true;
    return visitor_.LeaveOut(path, why);
  }
  bool Failed(const std::string& path, int error) {
    if (error == ELOOP) return LeaveOut(path, "a symbolic link, not followed");
    return LeaveOut(path, error == ENOENT ? "vanished before it was read" : ErrorText(error));
  }

  /// Visits what `parts`, the rest of the pattern, match in the last folder, which is called `path`.
  bool Match(const Way& way, const std::string& path, std::deque<std::string> parts) {
    const std::string part = parts.front();
    parts.pop_front();
    if (!IsWildcard(part)) return MatchPlain(way, Below(path, part), part, parts);
    std::vector<FolderEntry> names;
    if (!List(*way.back(), path, names)) return false;
    const bool goes_on = std::all_of(names.begin(), names.end(), [&](const FolderEntry& name) {
      return fnmatch(part.c_str(), name.text.c_str(), FNM_PERIOD) != 0 ||
             Found(way, name, Below(path, name.text), parts);
    });
    names_held_ -= names.size();
    return goes_on;
  }

  /// A part without wildcards: the one place where links are followed.
  bool MatchPlain(Way way, const std::string& path, const std::string& part,
                  const std::deque<std::string>& rest) {
    FolderEntry name = {part, DT_UNKNOWN};
    const int error = Resolve(way, name, limits_.links);
    if (error == ENOENT || error == ENOTDIR) return true;
    return error == 0 ? Found(way, name, path, rest) : Failed(path, error);
  }

  /// A name that matches; `rest` is the pattern below it.
  bool Found(const Way& way, const FolderEntry& name, const std::string& path,
             const std::deque<std::string>& rest) {
    if (rest.empty()) return At(way, name, path, limits_.folder_depth);
    Way below = way;
    const int error = Enter(below, name.text);
    // Of a link the kernel says that it is no folder.
    if (error == ENOTDIR && TypeOf(way, name) == DT_LNK) return Failed(path, ELOOP);
    if (error == ENOTDIR || error == ENOENT) return true;
    return error == 0 ? Match(below, path, rest) : Failed(path, error);
  }

  /// DT_UNKNOWN, with errno set, when it can't be told.
  static unsigned char TypeOf(const Way& way, const FolderEntry& name) {
    if (name.type != DT_UNKNOWN) return name.type;
    struct stat status = {};
    return fstatat(way.back()->fd.get(), name.text.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0
               ? static_cast<unsigned char>(DT_UNKNOWN)
               : static_cast<unsigned char>(IFTODT(status.st_mode));
  }

  /// Visits `name` in the last folder; its full path is `path`.
  bool At(const Way& way, const FolderEntry& name, const std::string& path, unsigned depth) {
    switch (TypeOf(way, name)) {
      case DT_REG:
        return File(*way.back(), name.text, path);
      case DT_DIR:
        return Walk(way, name.text, path, depth);
      case DT_LNK:
        return Failed(path, ELOOP);
      case DT_UNKNOWN:
        return Failed(path, errno);
      default:
        return LeaveOut(path, "not a regular file");
    }
  }

  bool File(const Folder& folder, const std::string& name, const std::string& path) {
    // The name may stand for something else by now: no link is followed, no pipe waited for.
    UniqueFd fd(
        openat(folder.fd.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    struct stat status = {};
    if (!fd.valid() || fstat(fd.get(), &status) != 0) return Failed(path, errno);
    if (!S_ISREG(status.st_mode)) return LeaveOut(path, "not a regular file");
    if (status.st_nlink > 1 && !folder.trusted) {
      return LeaveOut(path, "a file with several names in a folder that others may write to");
    }
    met_something_ = true;
    return visitor_.TakeFile(path, std::move(fd), status);
  }

  bool Walk(Way way, const std::string& name, const std::string& path, unsigned depth) {
    if (depth == 0) return LeaveOut(path, "a folder too many levels below the pattern's match");
    if (const int error = Enter(way, name)) return Failed(path, error);
    const Folder& folder = *way.back();
    const bool above = std::any_of(way.begin(), way.end() - 1, [&](const auto& other) {
      return other->device == folder.device && other->inode == folder.inode;
    });
    if (above) return LeaveOut(path, "a folder that is met below itself");
    return WalkLast(way, path, depth);
  }

  /// Visits everything in the last folder.
  bool WalkLast(const Way& way, const std::string& path, unsigned depth) {
    met_something_ = true;
    std::vector<FolderEntry> names;
    if (!List(*way.back(), path, names)) return false;
    const std::size_t held = names.size();
    const auto links = std::stable_partition(names.begin(), names.end(),
                                             [](const FolderEntry& name) { return name.type != DT_LNK; });
    const bool goes_on = std::all_of(names.begin(), links,
                                     [&](const FolderEntry& name) {
                                       return At(way, name, Below(path, name.text), depth - 1);
                                     }) &&
                         LeaveOutLinks(path, {links, names.end()});
    names_held_ -= held;
    return goes_on;
  }

  /// The links in a folder are one note: some folders hold nothing but hundreds of them.
  bool LeaveOutLinks(const std::string& folder, const std::vector<FolderEntry>& links) {
    if (links.empty()) return true;
    const std::string first = Below(folder, links.front().text);
    if (links.size() == 1) return Failed(first, ELOOP);
    return LeaveOut(first, "the first of " + std::to_string(links.size()) +
                               " symbolic links in its folder, not followed");
  }

  bool List(const Folder& folder, const std::string& path, std::vector<FolderEntry>& names) {
    const std::size_t max = std::min(limits_.folder_names, 2 * limits_.folder_names - names_held_);
    const int error = ReadNames(folder, max, names);
    names_held_ += names.size();
    if (error == 0) return true;
    return LeaveOut(path, error == E2BIG ? "more than " + std::to_string(max) +
                                               " names in a folder: the others are left out"
                                         : "the folder can't be read: " + ErrorText(error));
  }

  const Limits& limits_;
  FileVisitor& visitor_;
  bool met_something_ = false;
  std::size_t names_held_ = 0;  ///< Of the folders on the way, each of which is being gone through.
};

}  // namespace

void VisitMatches(const std::string& pattern, const Limits& limits, FileVisitor& visitor) {
  Visit(limits, visitor).Run(pattern);
}

}  // namespace TARVO::SupportForm
