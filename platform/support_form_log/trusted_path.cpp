#include "trusted_path.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <sstream>
#include <utility>
#include <vector>

#include "file_util.h"

namespace TARVO::SupportForm {
namespace {

constexpr unsigned kMaxLinks = 40;  // as the kernel's own

/// What the kernel gives as the owner where a file's real one has no number in this user namespace.
constexpr unsigned kOverflowUser = 65534;

/// Whether the number `user` belongs to a user of this process's user namespace.
bool IsMapped(unsigned user) {
  std::string map;
  bool more = false;
  if (!ReadFileUpTo("/proc/self/uid_map", 65536, map, more)) return true;
  std::istringstream ranges(map);
  unsigned long first = 0;
  unsigned long outside = 0;
  unsigned long count = 0;
  while (ranges >> first >> outside >> count) {
    if (user >= first && user - first < count) return true;
  }
  return false;
}

/// One of the folders on the way from the root.
struct Folder {
  UniqueFd fd;
  std::string path;
  bool all_may_add = false;  ///< Others may write to it; its sticky bit keeps them from what is others'.
};

bool OthersMayWrite(const struct stat& status) { return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0; }

Distrust Distrusted(const std::string& path, const struct stat& status, const std::string& why,
                    const std::string& advice) {
  std::array<char, 16> mode = {};
  static_cast<void>(snprintf(mode.data(), mode.size(), "%04o", status.st_mode & 07777U));
  const std::string owner = status.st_uid == 0 ? "root" : "user " + std::to_string(status.st_uid);
  const std::string who = geteuid() == 0 ? "others than root" : "others than root and this user";
  return {path + " (owner " + owner + ", mode " + mode.data() + ") " + why + " by " + who, advice};
}

/// Judges one thing on the way.
/// @param in_folder   The folder that it lies in; null for the root.
/// @param is_last     It is what the path leads to.
Distrust Judge(const std::string& path, const struct stat& status, const Folder* in_folder, bool is_last) {
  const bool is_link = S_ISLNK(status.st_mode);
  const bool is_folder = S_ISDIR(status.st_mode);
  const bool is_sticky = is_folder && !is_last && (status.st_mode & S_ISVTX) != 0;
  if (!IsTrustedUser(status.st_uid)) {
    const std::string option = is_link ? "-h " : "";
    return Distrusted(path, status, "can be changed",
                      "chown " + option + "root " + path + (is_link ? "" : " && chmod go-w " + path));
  }
  if (!is_link && OthersMayWrite(status) && !is_sticky) {
    return Distrusted(path, status, "can be changed", "chmod go-w " + path);
  }
  if (!is_folder && in_folder != nullptr && in_folder->all_may_add) {
    return Distrusted(path, status, "can be put there",
                      "move it to a folder that only its owner may write to");
  }
  return {};
}

/// One look-up.
class Walk {
 public:
  explicit Walk(const std::string& path, int flags) : todo_(PartsOf(path)), flags_(flags) {}

  OpenedPath Run() {
    struct stat status = {};
    Take(UniqueFd(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)), "/", status);
    while (!Failed() && !todo_.empty()) {
      const std::string part = todo_.front();
      todo_.pop_front();
      if (part == "..") {
        if (way_.size() > 1) way_.pop_back();
      } else if (part != ".") {
        Step(part);
      }
    }
    if (!Failed() && !result_.fd.valid()) OpenLast(way_.back().path, ".");
    return std::move(result_);
  }

 private:
  [[nodiscard]] bool Failed() const { return result_.error != 0 || result_.distrust; }

  /// Judges what was opened under `path` and goes into it where it is a folder.
  void Take(UniqueFd fd, const std::string& path, struct stat& status) {
    if (!fd.valid() || fstat(fd.get(), &status) != 0) {
      result_.error = errno;
      return;
    }
    result_.distrust = Judge(path, status, way_.empty() ? nullptr : &way_.back(), todo_.empty());
    if (!result_.distrust && S_ISDIR(status.st_mode)) {
      way_.push_back({std::move(fd), path, OthersMayWrite(status)});
    }
  }

  void Step(const std::string& part) {
    const std::string path = (way_.size() > 1 ? way_.back().path : "") + "/" + part;
    const int folder_fd = way_.back().fd.get();
    struct stat status = {};
    Take(UniqueFd(openat(folder_fd, part.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)), path, status);
    if (Failed() || S_ISDIR(status.st_mode)) return;
    if (S_ISLNK(status.st_mode)) {
      Follow(part);
    } else if (!todo_.empty()) {
      result_.error = ENOTDIR;
    } else {
      OpenLast(path, part);
    }
  }

  void Follow(const std::string& link) {
    std::array<char, PATH_MAX> target = {};
    const ssize_t length = readlinkat(way_.back().fd.get(), link.c_str(), target.data(), target.size());
    if (length <= 0 || ++links_ > kMaxLinks) {
      result_.error = length < 0 ? errno : ELOOP;
      return;
    }
    const std::deque<std::string> parts = PartsOf({target.data(), static_cast<std::size_t>(length)});
    if (target.front() == '/') way_.resize(1);
    todo_.insert(todo_.begin(), parts.begin(), parts.end());
  }

  /// Opens, and judges as opened, what the path leads to.
  void OpenLast(const std::string& path, const std::string& name) {
    UniqueFd fd(openat(way_.back().fd.get(), name.c_str(), flags_ | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (!fd.valid() || fstat(fd.get(), &status) != 0) {
      result_.error = errno;
      return;
    }
    result_.distrust = Judge(path, status, S_ISDIR(status.st_mode) ? nullptr : &way_.back(), true);
    if (!result_.distrust) result_.fd = std::move(fd);
  }

  std::deque<std::string> todo_;  ///< Names that are still to be looked up.
  int flags_;
  std::vector<Folder> way_;
  unsigned links_ = 0;
  OpenedPath result_;
};

}  // namespace

bool IsRootOrSelf(unsigned user) { return user == 0 || user == geteuid(); }

bool IsTrustedUser(unsigned user) {
  // What belongs to nobody in this user namespace belongs to whoever made it, as all its root's rights do.
  return IsRootOrSelf(user) || (user == kOverflowUser && !IsMapped(user));
}

std::deque<std::string> PartsOf(const std::string& path) {
  std::deque<std::string> parts;
  for (std::size_t begin = 0; begin < path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    if (end > begin) parts.push_back(path.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

OpenedPath OpenTrusted(const std::string& path, int flags) {
  if (path.empty() || path.front() != '/') {
    OpenedPath refused;
    refused.error = path.empty() ? ENOENT : EINVAL;
    return refused;
  }
  return Walk(path, flags).Run();
}

bool ReadTrustedFile(const std::string& path, std::size_t limit, std::string& out, bool& more,
                     Distrust& distrust) {
  // O_NONBLOCK: a pipe in the file's place must not hold the caller.
  OpenedPath file = OpenTrusted(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  distrust = file.distrust;
  struct stat status = {};
  if (file.fd.valid() && (fstat(file.fd.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
    file.error = EINVAL;
  }
  errno = file.error;
  return file.error == 0 && !distrust && ReadUpTo(file.fd.get(), limit, out, more);
}

}  // namespace TARVO::SupportForm
