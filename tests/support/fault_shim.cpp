/// libfault_shim.so, for LD_PRELOAD: what goes wrong on a device, switched on and off by files in /run/fault_shim
/// while the daemon runs.
///
/// - `fork`: as long as it exists, fork() fails with EAGAIN: with 1 in it not in the supervisor, but in its children.
/// - `clock`: time() is wrong by the number of seconds that stands in it.

#include <dlfcn.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "number_file.h"

namespace {

using test_support::NumberIn;

constexpr char kForkFails[] = "/run/fault_shim/fork";
constexpr char kClock[] = "/run/fault_shim/clock";

/// How many calls of fork() lie between this process and the program's start.
long generation = 0;

}  // namespace

extern "C" __attribute__((visibility("default"))) pid_t fork() {
  static const auto real_fork = reinterpret_cast<pid_t (*)()>(dlsym(RTLD_NEXT, "fork"));
  if (access(kForkFails, F_OK) == 0 && generation >= NumberIn(kForkFails)) {
    errno = EAGAIN;
    return -1;
  }
  const pid_t pid = real_fork();
  generation += pid == 0 ? 1 : 0;
  return pid;
}

extern "C" __attribute__((visibility("default"))) time_t time(time_t* result) noexcept {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const time_t seconds = now.tv_sec + NumberIn(kClock);
  if (result != nullptr) {
    *result = seconds;
  }
  return seconds;
}
