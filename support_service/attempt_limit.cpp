#include "attempt_limit.h"

#include <algorithm>
#include <utility>

namespace TarvoOrvane::SupportService {

AttemptLimit::AttemptLimit(int burst, std::chrono::milliseconds pause, Clock clock)
    : burst_(burst), pause_(pause), clock_(std::move(clock)) {}

bool AttemptLimit::Try(const std::string& key) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const Time now = clock_();
  if (full_at_.size() >= kMaxKeys) ForgetOld(now);
  const auto found = full_at_.find(key);
  if (found == full_at_.end() && full_at_.size() >= kMaxKeys) return false;
  const Time full_at = std::max(found == full_at_.end() ? now : found->second, now) + pause_;
  if (full_at > now + burst_ * pause_) return false;
  full_at_[key] = full_at;
  return true;
}

void AttemptLimit::Forgive(const std::string& key) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = full_at_.find(key);
  if (found != full_at_.end()) found->second -= pause_;
}

void AttemptLimit::ForgetOld(Time now) {
  for (auto each = full_at_.begin(); each != full_at_.end();) {
    each = each->second <= now ? full_at_.erase(each) : std::next(each);
  }
}

}  // namespace TarvoOrvane::SupportService
