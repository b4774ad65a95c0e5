// The platform core library for an ordinary Linux machine: pid file, forks, a look for a file.
//
// One process holds the pid file at a time. What tells is a write lock on the file, not its content: the kernel
// drops the lock with the process, however it ends, so a stale file never keeps a daemon from starting.
//
// Any user could lock a file that they once might read, and keep that lock. So every daemon makes a file of its own,
// which nobody else ever could open: first beside the pid file, with ".new" behind its name, then renamed to it. Who
// holds the lock of the file with that name may look at the pid file and replace it; no two processes do at a time.
//
// A daemon without root's rights can make no file in /run. So where root has put a link in the pid file's place, the
// pid file lies where it leads to: in a folder of that daemon's user.

#include "platform/core.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>

namespace {

/// The locked pid file; -1 when this process holds none. It stays open for the life of the process: closing any
/// descriptor of the file would drop the lock.
int pid_file_fd = -1;

constexpr mode_t kOwnersMode = 0600;

/// Several daemons that start at once may put each other off; each time one of them gets further.
constexpr int kMaxTries = 100;

/// Keeps tokens that the process will hold out of core dumps, and processes of the same user out of its memory.
void ShieldMemory() { static_cast<void>(prctl(PR_SET_DUMPABLE, 0)); }

/// Takes the lock on the whole file without waiting for a holder.
bool LockWholeFile(int fd) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return fcntl(fd, F_SETLK, &lock) == 0;
}

/// Whether `path` names the open file.
bool IsNamed(int fd, const char* path) {
  struct stat opened = {};
  struct stat named = {};
  return fstat(fd, &opened) == 0 && lstat(path, &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

/// Where a pid file really lies.
struct Place {
  char path[PATH_MAX];
  uid_t owner;  ///< Whose daemons may hold it, beside root's.
};

/// The folder of a path: what stands before its last '/'.
bool FolderOf(const char* path, char* folder, std::size_t size) {
  const char* const slash = strrchr(path, '/');
  const int length = slash == nullptr ? 0 : static_cast<int>(slash - path + 1);
  const int written =
      slash == nullptr ? snprintf(folder, size, ".") : snprintf(folder, size, "%.*s", length, path);
  return written >= 0 && static_cast<std::size_t>(written) < size;
}

/// Whether none but root can have put the link there.
bool IsRootsLink(const char* path, const struct stat& link) {
  char folder[PATH_MAX];
  struct stat status = {};
  return link.st_uid == 0 && FolderOf(path, folder, sizeof(folder)) && stat(folder, &status) == 0 &&
         status.st_uid == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

/// Where the link leads to. errno tells why that is no place for a pid file.
bool FollowLink(const char* path, Place& place) {
  char target[PATH_MAX];
  char folder[PATH_MAX] = "";
  const ssize_t length = readlink(path, target, sizeof(target) - 1);
  if (length < 0) return false;
  target[length] = '\0';
  errno = ENAMETOOLONG;
  if (target[0] != '/' && !FolderOf(path, folder, sizeof(folder))) return false;
  const int written = snprintf(place.path, sizeof(place.path), "%s%s", folder, target);
  if (written < 0 || static_cast<std::size_t>(written) >= sizeof(place.path)) return false;
  struct stat status = {};
  if (!FolderOf(place.path, folder, sizeof(folder)) || stat(folder, &status) != 0) return false;
  place.owner = status.st_uid;
  return true;
}

/// Finds the place of the pid file. errno tells why there is none: ELOOP for a link of another user's.
bool FindPlace(const char* path, Place& place) {
  struct stat link = {};
  if (lstat(path, &link) == 0 && S_ISLNK(link.st_mode)) {
    errno = ELOOP;
    return IsRootsLink(path, link) && FollowLink(path, place);
  }
  place.owner = geteuid();
  errno = ENAMETOOLONG;
  return snprintf(place.path, sizeof(place.path), "%s", path) < static_cast<int>(sizeof(place.path));
}

/// Whether only this user can have opened the file.
bool IsPrivate(const struct stat& file) {
  return S_ISREG(file.st_mode) && file.st_uid == geteuid() && file.st_nlink <= 1 &&
         (file.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

/// Whether a daemon holds the file: only who may write to a file can have a write lock on it.
bool HasDaemonsLock(int fd, const struct stat& file, uid_t owner) {
  const bool is_a_daemons = (file.st_uid == geteuid() || file.st_uid == owner || file.st_uid == 0) &&
                            (file.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  struct flock lock = {};
  lock.l_type = F_RDLCK;  // which others' read locks don't keep away
  lock.l_whence = SEEK_SET;
  return is_a_daemons && fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type == F_WRLCK;
}

/// Root's file is given to the folder's user, whose daemon has to see root's lock.
bool WriteOwnPid(int fd, const Place& place) {
  char text[16];
  const int length = snprintf(text, sizeof(text), "%d\n", static_cast<int>(getpid()));
  return fchmod(fd, kOwnersMode) == 0 && ftruncate(fd, 0) == 0 &&
         pwrite(fd, text, static_cast<std::size_t>(length), 0) == length &&
         (place.owner == geteuid() || fchown(fd, place.owner, static_cast<gid_t>(-1)) == 0);
}

int CloseFailed(int fd) {
  const int error = errno;
  close(fd);
  errno = error;
  return -1;
}

/// Opens and locks the file that may become the pid file.
/// @return -1, with errno set, on failure: EAGAIN or EACCES when another daemon is starting.
int OpenFresh(const char* fresh) {
  for (int tries = 0; tries < kMaxTries; ++tries) {
    const int fd = open(fresh, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kOwnersMode);
    struct stat status = {};
    if (fd < 0 || fstat(fd, &status) != 0) return fd < 0 ? -1 : CloseFailed(fd);
    if (!IsPrivate(status)) {
      errno = EPERM;
      return CloseFailed(fd);
    }
    if (!LockWholeFile(fd)) return CloseFailed(fd);
    if (IsNamed(fd, fresh)) return fd;
    close(fd);  // its former holder has renamed or removed it
  }
  errno = EAGAIN;
  return -1;
}

/// Whether the pid file, if there is one, may be replaced. errno tells why not.
bool IsFree(const Place& place) {
  const int fd = open(place.path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return errno == ENOENT;
  struct stat status = {};
  errno = EINVAL;
  bool is_free = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  if (is_free && HasDaemonsLock(fd, status, place.owner)) {
    is_free = false;
    errno = EAGAIN;
  }
  const int error = errno;
  close(fd);
  errno = error;
  return is_free;
}

/// Gives up the file that is not to become the pid file.
int DropFresh(int fd, const char* fresh) {
  const int error = errno;
  unlink(fresh);
  errno = error;
  return CloseFailed(fd);
}

}  // namespace

/// A process records itself once: a further call fails with EALREADY as long as the process holds a pid file.
/// What has its place must be a regular file, or not exist yet. A symbolic link is followed, once, where none but root
/// can have put it there; any other is refused. errno tells the cause of a failure: EAGAIN or EACCES when another daemon
/// has the file or is about to take it, EPERM when the file that is to become it is there already and is not this
/// user's alone, ELOOP for a link that is refused.
///
/// From here on the process leaves no core dump, and none but root may trace it or look into its memory; nor its
/// children.
int TLIBCProcPidFileCreate(const char* path) {
  ShieldMemory();
  char fresh[PATH_MAX];
  if (path == nullptr || *path == '\0') {
    errno = EINVAL;
    return -1;
  }
  if (pid_file_fd >= 0) {
    errno = EALREADY;
    return -1;
  }
  Place place = {};
  if (!FindPlace(path, place)) return -1;
  if (snprintf(fresh, sizeof(fresh), "%s.new", place.path) >= static_cast<int>(sizeof(fresh))) {
    errno = ENAMETOOLONG;
    return -1;
  }
  const int fd = OpenFresh(fresh);
  if (fd < 0) return -1;
  if (!WriteOwnPid(fd, place) || !IsFree(place) || rename(fresh, place.path) != 0) {
    return DropFresh(fd, fresh);
  }
  pid_file_fd = fd;
  return 0;
}

/// The child doesn't inherit the lock on the pid file, and its copy of the descriptor is closed, so that it keeps
/// nothing of its parent's pid file. It leaves no core dump and can't be traced, whether or not its parent is so.
int TLIBCProcFork() {
  const pid_t pid = fork();
  if (pid == 0) {
    ShieldMemory();
    if (pid_file_fd >= 0) close(pid_file_fd);
    pid_file_fd = -1;
  }
  return pid;
}

/// This library gives the flags no meaning: with every value it forks as TLIBCProcFork() does.
int TLIBCProcForkEx(int /*flags*/) { return TLIBCProcFork(); }

/// A symbolic link counts as existing, whatever it points to: the question is asked before unlink(), which
/// removes the link itself. A null or empty path exists never.
int TLIBCFileExist(const char* path) {
  struct stat status = {};
  return path != nullptr && *path != '\0' && lstat(path, &status) == 0 ? 1 : 0;
}
