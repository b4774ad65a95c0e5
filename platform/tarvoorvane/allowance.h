/// A rate limit that lets a burst pass.
#pragma once

#include <algorithm>
#include <chrono>

namespace TarvoOrvane::Internal {

/// How often something may be done: so many times at once, and once more for each interval that passes. It keeps one
/// time and no count: each use moves on the time at which all that was used has come back. Not for several threads at
/// once.
class Allowance {
 public:
  using Clock = std::chrono::steady_clock;

  /// @param at_once   How many uses are there at first, and after a long pause; from 1.
  /// @param interval  How long it takes until one use has come back.
  Allowance(int at_once, Clock::duration interval) : most_(at_once * interval), interval_(interval) {}

  /// Uses one, if there is one.
  /// @param now  The present; a test passes its own.
  /// @return Whether there was one. If not, nothing has changed.
  [[nodiscard]] bool Take(Clock::time_point now = Clock::now()) {
    const Clock::time_point empty_until = std::max(until_, now) + interval_;
    if (empty_until > now + most_) return false;
    until_ = empty_until;
    return true;
  }

  /// When there is one again; in the past while there is one.
  [[nodiscard]] Clock::time_point Next() const { return until_ + interval_ - most_; }

 private:
  Clock::duration most_;       ///< How far ahead of the present until_ may lie.
  Clock::duration interval_;   ///< How much one use adds to until_.
  Clock::time_point until_{};  ///< When all that was used has come back.
};

}  // namespace TarvoOrvane::Internal
