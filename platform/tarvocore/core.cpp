// The platform core library for an ordinary Linux machine: pid file, forks, a look for a file.
//
// One process holds the pid file at a time. What tells is a record lock on the file, not its content: the
// kernel drops the lock with the process, however it ends, so a stale file never keeps a daemon from
// starting.

#include "platform/core.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// The locked pid file; -1 when this process holds none. It stays open for the life of the process: closing
/// any descriptor of the file would drop the lock.
int pid_file_fd = -1;

bool IsRegularFile(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

/// Takes the lock on the whole file without waiting for a holder.
bool LockWholeFile(int fd) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return fcntl(fd, F_SETLK, &lock) == 0;
}

/// Replaces the file's content in place, so that its inode, and the lock with it, stays.
bool WriteOwnPid(int fd) {
  char text[16];
  const int length = snprintf(text, sizeof(text), "%d\n", static_cast<int>(getpid()));
  return ftruncate(fd, 0) == 0 && pwrite(fd, text, static_cast<size_t>(length), 0) == length;
}

int CloseFailed(int fd) {
  const int error = errno;
  close(fd);
  errno = error;
  return -1;
}

}  // namespace

/// A process records itself once: a further call fails with EALREADY as long as the process holds a pid file.
/// The file must be a regular file, or not exist yet; a symbolic link in its place is refused. errno tells
/// the cause of a failure: EAGAIN or EACCES when another process holds the file.
int TLIBCProcPidFileCreate(const char* path) {
  if (path == nullptr || *path == '\0') {
    errno = EINVAL;
    return -1;
  }
  if (pid_file_fd >= 0) {
    errno = EALREADY;
    return -1;
  }
  // O_NONBLOCK: a pipe or a device in the file's place must not hold the start.
  const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644);
  if (fd < 0) return -1;
  if (!IsRegularFile(fd)) {
    errno = EINVAL;
    return CloseFailed(fd);
  }
  if (!LockWholeFile(fd) || !WriteOwnPid(fd)) return CloseFailed(fd);
  pid_file_fd = fd;
  return 0;
}

/// The child doesn't inherit the lock on the pid file, and its copy of the descriptor is closed, so that it
/// keeps nothing of its parent's pid file.
int TLIBCProcFork() {
  const pid_t pid = fork();
  if (pid == 0 && pid_file_fd >= 0) {
    close(pid_file_fd);
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
