#include "file_visit.h"

#include <dirent.h>
#include <fcntl.h>
#include <glob.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include "file_util.h"

namespace TARVO::SupportForm {
namespace {

/// The names in a folder, sorted, "." and ".." left out. Takes the descriptor. Returns 0 or an errno value.
int ReadNames(UniqueFd folder, std::vector<std::string>& names) {
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(fdopendir(folder.get()), &closedir);
  if (!stream) return errno;
  static_cast<void>(folder.Release());
  errno = 0;
  while (const dirent* entry = readdir(stream.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  const int error = errno;
  std::sort(names.begin(), names.end());
  return error;
}

class Visit {
 public:
  explicit Visit(FileVisitor& visitor) : visitor_(visitor) {}

  /// Visits `name`, as seen from the folder `folder_fd`, whose full path is `path`.
  bool At(int folder_fd, const std::string& name, const std::string& path, unsigned depth) {
    struct stat status = {};
    if (fstatat(folder_fd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return Failed(path);
    if (S_ISREG(status.st_mode)) return File(folder_fd, name, path);
    if (S_ISDIR(status.st_mode)) return Folder(folder_fd, name, path, depth);
    return visitor_.LeaveOut(
        path, S_ISLNK(status.st_mode) ? "a symbolic link, not followed" : "not a regular file");
  }

 private:
  bool Failed(const std::string& path) {
    return visitor_.LeaveOut(path, errno == ENOENT ? "vanished before it was read" : ErrorText(errno));
  }

  bool File(int folder_fd, const std::string& name, const std::string& path) {
    // The name may stand for something else by now: no link is followed, no pipe waited for.
    UniqueFd fd(openat(folder_fd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    struct stat status = {};
    if (!fd.valid() || fstat(fd.get(), &status) != 0) return Failed(path);
    if (!S_ISREG(status.st_mode)) return visitor_.LeaveOut(path, "not a regular file");
    return visitor_.TakeFile(path, std::move(fd), status);
  }

  bool Folder(int folder_fd, const std::string& name, const std::string& path, unsigned depth) {
    if (depth == 0) return visitor_.LeaveOut(path, "a folder too many levels below the pattern's match");
    const UniqueFd fd(openat(folder_fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) return Failed(path);
    std::vector<std::string> names;
    const int error = ReadNames(UniqueFd(fcntl(fd.get(), F_DUPFD_CLOEXEC, 0)), names);
    if (error != 0 && !visitor_.LeaveOut(path, "the folder can't be read: " + ErrorText(error))) return false;
    const std::string prefix = path == "/" ? path : path + "/";
    return std::all_of(names.begin(), names.end(), [&](const std::string& entry) {
      return At(fd.get(), entry, prefix + entry, depth - 1);
    });
  }

  FileVisitor& visitor_;
};

/// A pattern such as "/a/.*" matches "." and ".." as well, and so would lead out of its folder.
bool HasDotPart(const std::string& path) {
  return (path + "/").find("/./") != std::string::npos || (path + "/").find("/../") != std::string::npos;
}

}  // namespace

void VisitMatches(const std::string& pattern, unsigned depth, FileVisitor& visitor) {
  glob_t found = {};
  const int result = glob(pattern.c_str(), 0, nullptr, &found);
  const std::unique_ptr<glob_t, void (*)(glob_t*)> release(&found, &globfree);
  if (result != 0) {
    visitor.LeaveOut(pattern, result == GLOB_NOMATCH ? "matches nothing" : "can't be searched for");
    return;
  }
  Visit visit(visitor);
  for (std::size_t i = 0; i < found.gl_pathc; ++i) {
    const std::string path = found.gl_pathv[i];
    if (!HasDotPart(path) && !visit.At(AT_FDCWD, path, path, depth)) return;
  }
}

}  // namespace TARVO::SupportForm
