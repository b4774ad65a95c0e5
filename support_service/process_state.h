/// What this process takes of its machine.
#pragma once

#include <cstdint>
#include <optional>

namespace TarvoOrvane::SupportService {

/// What the system does not say is not there.
struct ProcessState {
  std::optional<double> cpu_seconds;  ///< User and system.
  std::optional<std::uint64_t> resident_bytes;
  std::optional<std::uint64_t> virtual_bytes;
  std::optional<std::uint64_t> open_descriptors;
  std::optional<std::uint64_t> most_descriptors;
};

/// As the system says now. Throws nothing.
[[nodiscard]] ProcessState LookAtProcess();

}  // namespace TarvoOrvane::SupportService
