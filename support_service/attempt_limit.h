/// How often something may be tried, by whoever tries it.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace TarvoOrvane::SupportService {

/// A budget for each key: a burst, and then one more after each pause. Any thread may use it.
class AttemptLimit {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  /// @param burst  So many failures at once are let pass.
  /// @param pause  After each of these one more is.
  AttemptLimit(int burst, std::chrono::milliseconds pause, Clock clock = std::chrono::steady_clock::now);

  /// Whether who is meant by this key may try now. If so it counts as a failure, until Forgive(): many tries at once
  /// are no way around.
  [[nodiscard]] bool Try(const std::string& key);
  /// A try did not fail.
  void Forgive(const std::string& key);

  /// So many keys are known at once. While there are as many, no other one may try.
  static constexpr std::size_t kMaxKeys = 10'000;

 private:
  using Time = std::chrono::steady_clock::time_point;

  void ForgetOld(Time now);

  const int burst_;
  const std::chrono::milliseconds pause_;
  const Clock clock_;
  std::mutex mutex_;                     ///< Guards what follows.
  std::map<std::string, Time> full_at_;  ///< From then on all of the burst may come again.
};

}  // namespace TarvoOrvane::SupportService
