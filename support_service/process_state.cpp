#include "process_state.h"

#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <system_error>

namespace TarvoOrvane::SupportService {
namespace {

double SecondsIn(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// Nothing where none is left to look with.
std::optional<std::uint64_t> CountDescriptors() {
  std::error_code error;
  std::uint64_t count = 0;
  std::filesystem::directory_iterator descriptors("/proc/self/fd", error);
  while (!error && descriptors != std::filesystem::directory_iterator()) {
    ++count;
    descriptors.increment(error);
  }
  if (error) return std::nullopt;
  return count - 1;  // the look itself has one open
}

}  // namespace

ProcessState LookAtProcess() {
  ProcessState state;
  rusage usage{};
  if (getrusage(RUSAGE_SELF, &usage) == 0) {
    state.cpu_seconds = SecondsIn(usage.ru_utime) + SecondsIn(usage.ru_stime);
  }
  const auto page_bytes = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  std::ifstream pages("/proc/self/statm");
  std::uint64_t all = 0;
  std::uint64_t resident = 0;
  if (pages >> all >> resident) {
    state.virtual_bytes = all * page_bytes;
    state.resident_bytes = resident * page_bytes;
  }
  state.open_descriptors = CountDescriptors();
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) state.most_descriptors = limit.rlim_cur;
  return state;
}

}  // namespace TarvoOrvane::SupportService
