#pragma once

#include <algorithm>
#include <chrono>

namespace TarvoOrvane::Internal {

/// How often something may be done: so many times at once, and once more for each interval that passes.
class Allowance {
 public:
  using Clock = std::chrono::steady_clock;

  Allowance(int at_once, Clock::duration interval) : most_(at_once * interval), interval_(interval) {}

  /// Uses one, if there is one.
  [[nodiscard]] bool Take(Clock::time_point now = Clock::now()) {
    const Clock::time_point empty_until = std::max(until_, now) + interval_;
    if (empty_until > now + most_) return false;
    until_ = empty_until;
    return true;
  }

  /// When there is one again.
  [[nodiscard]] Clock::time_point Next() const { return until_ + interval_ - most_; }

 private:
  Clock::duration most_;
  Clock::duration interval_;
  Clock::time_point until_{};  ///< When all that was used has come back.
};

}  // namespace TarvoOrvane::Internal
