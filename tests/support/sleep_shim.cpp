/// libsleep_shim.so, for LD_PRELOAD: the daemon's pauses, its calls of sleep() and usleep(), cut short or held by files
/// in /run/sleep_shim while it runs. Nothing else that waits is touched.
///
/// - `instant`: as long as it exists, every sleep() ends at once.
/// - `hold`: as long as it exists, no sleep() ends but by a signal; one that has begun then ends with it.
/// - `scale`: every pause is divided by the number that stands in it.

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>

namespace {

/// Appends "PID SECONDS instant" or "PID SECONDS real" to /run/sleep_shim/sleeps, before the sleep.
void RecordSleep(unsigned seconds, bool instant) {
  const int fd = open("/run/sleep_shim/sleeps", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    return;
  }
  const std::string line =
      std::to_string(getpid()) + ' ' + std::to_string(seconds) + (instant ? " instant\n" : " real\n");
  static_cast<void>(!write(fd, line.data(), line.size()));
  close(fd);
}

/// 1 without the file.
unsigned Scale() {
  std::array<char, 16> text = {};
  const int fd = open("/run/sleep_shim/scale", O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return 1;
  }
  static_cast<void>(!read(fd, text.data(), text.size() - 1));
  close(fd);
  return static_cast<unsigned>(std::max(1L, std::strtol(text.data(), nullptr, 10)));
}

bool IsHeld() { return access("/run/sleep_shim/hold", F_OK) == 0; }

int RealUsleep(unsigned microseconds) {
  static const auto real_usleep = reinterpret_cast<int (*)(useconds_t)>(dlsym(RTLD_NEXT, "usleep"));
  return real_usleep(microseconds);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) unsigned sleep(unsigned seconds) {
  static const auto real_sleep = reinterpret_cast<unsigned (*)(unsigned)>(dlsym(RTLD_NEXT, "sleep"));
  const bool instant = access("/run/sleep_shim/instant", F_OK) == 0;
  RecordSleep(seconds, instant);
  if (instant) {
    return 0;
  }
  if (IsHeld()) {
    while (IsHeld()) {
      if (RealUsleep(20'000) != 0) {
        return seconds;
      }
    }
    return 0;
  }
  const unsigned scale = Scale();
  if (scale == 1) {
    return real_sleep(seconds);
  }
  RealUsleep(seconds * 1'000'000 / scale);
  return 0;
}

extern "C" __attribute__((visibility("default"))) int usleep(useconds_t microseconds) {
  return RealUsleep(microseconds / Scale());
}
