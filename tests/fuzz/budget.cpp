#include "budget.h"

#include <sys/resource.h>

#include <ctime>

#include "fuzz_support.h"

// Linked in the place of the target, which it calls.
extern "C" int __real_LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {
namespace {

// A second is promised for an input as the device has it, and less than 32 MiB; the sanitizers take four times the
// time, and, as they keep what is freed, six times the memory.
constexpr double kCpuSeconds = 4;
constexpr long kMemoryKib = 192L << 10;

/// The most that was resident, in KiB.
long PeakMemory() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

}  // namespace

double CpuSeconds() {
  timespec now = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

}  // namespace fuzz

extern "C" int __wrap_LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const double cpu_seconds = fuzz::CpuSeconds();
  const long memory = fuzz::PeakMemory();
  const int result = __real_LLVMFuzzerTestOneInput(data, size);
  fuzz::Require(fuzz::CpuSeconds() - cpu_seconds < fuzz::kCpuSeconds, "an input takes little processor time");
  fuzz::Require(fuzz::PeakMemory() - memory < fuzz::kMemoryKib, "an input takes little memory");
  return result;
}
