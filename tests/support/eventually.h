/// Waiting for what another thread or process brings about.
#pragma once

#include <chrono>
#include <thread>

namespace test_support {

/// How long a test waits for what takes well under a second: only a hung program misses it.
constexpr std::chrono::seconds kPatience{60};

/// Looks at `condition` again and again until it holds.
/// @return false when it did not within `limit`.
template <typename Condition>
[[nodiscard]] bool Eventually(const Condition& condition, std::chrono::milliseconds limit = kPatience) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // between two looks
  }
  return true;
}

}  // namespace test_support
