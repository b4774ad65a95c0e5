#include "process_state.h"

#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace TarvoOrvane::SupportService {
namespace {

double SecondsIn(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
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
  std::error_code error;
  const std::filesystem::directory_iterator descriptors("/proc/self/fd", error);
  if (!error) {
    // The look itself has one open.
    state.open_descriptors =
        static_cast<std::uint64_t>(std::distance(begin(descriptors), end(descriptors))) - 1;
  }
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) state.most_descriptors = limit.rlim_cur;
  return state;
}

}  // namespace TarvoOrvane::SupportService
