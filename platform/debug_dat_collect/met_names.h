#pragma once

#include <cstddef>
#include <string>
#include <unordered_set>

#include "collection_limits.h"

namespace TARVO::SupportForm {

/// The names that the patterns of one application have met, whether taken or not. Bounds the search: users may fill
/// folders that a pattern matches.
class MetNames {
 public:
  /// @param limits  Borrowed.
  explicit MetNames(const Limits& limits) : limits_(limits) {}

  /// Begins afresh.
  /// @param patterns  How many there are. Several may meet a name again and again; one meets it once.
  void Begin(std::size_t patterns) {
    may_repeat_ = patterns > 1;
    seen_.clear();
    count_ = 0;
    bytes_ = 0;
  }

  /// Returns whether the name is a new one.
  bool Add(const std::string& path) {
    if (may_repeat_ && !seen_.insert(path).second) return false;
    ++count_;
    bytes_ += path.size();
    return true;
  }

  /// Whether the search is to end.
  [[nodiscard]] bool full() const { return count_ >= limits_.app_names || bytes_ >= limits_.app_name_bytes; }
  /// Different names.
  [[nodiscard]] std::size_t count() const { return count_; }

 private:
  const Limits& limits_;
  bool may_repeat_ = true;
  std::unordered_set<std::string>
      seen_;  ///< Empty where a name is met only once: it would cost time and memory.
  std::size_t count_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace TARVO::SupportForm
