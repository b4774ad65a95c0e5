/// The template's libtarvocore, with a fault.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <set>
#include <string>

#include "broken.h"
#include "platform/core.h"

// The template's.
extern "C" {
int GoodPidFileCreate(const char* path);
int GoodFork();
int GoodForkEx(int flags);
int GoodFileExist(const char* path);
}

namespace {

[[maybe_unused]] const bool kLoaded = [] {
  if (Is("constructor aborts")) static_cast<void>(raise(SIGKILL));
  return true;
}();

/// The child forks again and ends, so that its child is nobody's.
int ForkTwice() {
  int ends[2] = {-1, -1};
  static_cast<void>(!pipe(ends));
  const pid_t child = fork();
  if (child == 0) {
    const pid_t grandchild = fork();
    if (grandchild == 0) return 0;
    static_cast<void>(!write(ends[1], &grandchild, sizeof(grandchild)));
    _exit(0);
  }
  if (child < 0) return -1;
  pid_t grandchild = -1;
  static_cast<void>(!read(ends[0], &grandchild, sizeof(grandchild)));
  waitpid(child, nullptr, 0);
  close(ends[0]);
  close(ends[1]);
  return grandchild;
}

int WritePidFile(const char* path, int flags, const char* format, pid_t pid) {
  const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | flags, 0600);
  if (fd < 0) return -1;
  dprintf(fd, format, static_cast<int>(pid));
  return 0;  // still open: to close it would give up the lock that the template may have
}

}  // namespace

int TLIBCProcPidFileCreate(const char* path) {
  if (Is("pid file without a lock")) return WritePidFile(path, O_TRUNC, "%d\n", getpid());
  if (Is("pid file tells by its being there")) return WritePidFile(path, O_EXCL, "%d\n", getpid());
  if (Is("pid file emptied by the second") && truncate(path, 0) != 0 && errno != ENOENT) return -1;
  const int result = GoodPidFileCreate(path);
  if (Is("pid file of the parent") && result == 0) return WritePidFile(path, O_TRUNC, "%d\n", getppid());
  if (Is("pid file in letters") && result == 0) return WritePidFile(path, O_TRUNC, "id %d\n", getpid());
  if (Is("pid file's failure is 0") && result < 0 && errno == ENOENT) return 0;
  if (Is("pid file's failure is a crash") && result < 0 && errno == ENOENT) static_cast<void>(raise(SIGSEGV));
  return result;
}

int TLIBCProcFork() {
  if (Is("fork twice")) return ForkTwice();
  const int result = GoodFork();
  if (Is("fork gives the child its id") && result == 0) return getpid();
  if (Is("fork gives the parent 0") && result > 0) return 0;
  if (Is("fork's failure is 0") && result < 0) return 0;
  return result;
}

int TLIBCProcForkEx(int flags) {
  if (Is("fork-ex refuses the flags")) return -1;
  const int result = GoodForkEx(flags);
  if (Is("fork-ex gives the child 1") && result == 0) return 1;
  if (Is("fork-ex's failure is errno") && result < 0) return errno;
  return result;
}

int TLIBCFileExist(const char* path) {
  static std::set<std::string> seen;
  const int result = GoodFileExist(path);
  if (Is("file exists is 2") && result == 1) return 2;
  if (Is("file exists for the empty path") && *path == '\0') return 1;
  if (Is("file hangs for the empty path") && *path == '\0') pause();
  if (Is("file is remembered")) {
    if (result == 1) seen.insert(path);
    return seen.count(path) != 0 ? 1 : 0;
  }
  return result;
}
