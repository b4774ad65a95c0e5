/// libtarvocore: the plain system calls, and a pid file that one daemon holds at a time.
#include "platform/core.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace {

/// Takes the file for this process. The kernel drops the lock with the process, however that ends: a dead daemon's file
/// keeps nobody from starting. No child inherits it.
bool Lock(int fd) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return fcntl(fd, F_SETLK, &lock) == 0;
}

}  // namespace

int TLIBCProcPidFileCreate(const char* path) {
  const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return -1;
  if (!Lock(fd) || ftruncate(fd, 0) != 0 || dprintf(fd, "%d\n", static_cast<int>(getpid())) < 0) {
    close(fd);
    return -1;
  }
  return 0;  // the file stays open: to close it would give up the lock
}

int TLIBCProcFork() { return fork(); }

int TLIBCProcForkEx(int /*flags*/) { return fork(); }

int TLIBCFileExist(const char* path) { return access(path, F_OK) == 0 ? 1 : 0; }
