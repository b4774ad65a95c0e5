/// To be preloaded: time() tells as many seconds more as /run/clock-shift holds. Only time(), by which the daemon counts
/// a collection's seconds. gRPC waits by the kernel's clock, which a container shares with the machine: told another
/// time than the kernel's, it would wait in vain or not at all.
#include <ctime>
#include <fstream>

extern "C" __attribute__((visibility("default"))) time_t time(time_t* result) noexcept {
  long shift = 0;
  std::ifstream("/run/clock-shift") >> shift;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  now.tv_sec += shift;
  if (result != nullptr) *result = now.tv_sec;
  return now.tv_sec;
}
