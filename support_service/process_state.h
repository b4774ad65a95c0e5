/// What this process takes of its machine.
#pragma once

#include <cstdint>

namespace TarvoOrvane::SupportService {

struct ProcessState {
  double cpu_seconds = 0;  ///< User and system.
  std::uint64_t resident_bytes = 0;
  std::uint64_t virtual_bytes = 0;
  std::uint64_t open_descriptors = 0;
  std::uint64_t most_descriptors = 0;
};

/// As the system says now. What it does not say is 0.
[[nodiscard]] ProcessState LookAtProcess();

}  // namespace TarvoOrvane::SupportService
