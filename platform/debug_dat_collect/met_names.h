#pragma once

#include <cstddef>
#include <string>
#include <unordered_set>

#include "collection_limits.h"

namespace TARVO::SupportForm {

/// The names that the patterns of one application have met, whether taken or not. Bounds the search: users may fill
/// folders that a pattern matches, and what the search meets is kept in memory and may come to stand in the manifest.
/// Used by the visit of an archive's content, for one application after the other.
class MetNames {
 public:
  /// @param limits  app_names and app_name_bytes count; borrowed.
  explicit MetNames(const Limits& limits) : limits_(limits) {}

  /// Begins afresh, with the next application.
  /// @param patterns  How many there are. Several may meet a name again and again; one meets it once.
  void Begin(std::size_t patterns) {
    may_repeat_ = patterns > 1;
    seen_.clear();
    count_ = 0;
    bytes_ = 0;
  }

  /// Counts a name that was met, unless it was before.
  /// @param path  With its folders, as the pattern has it.
  /// @return whether it is a new one; each name of a single pattern is.
  bool Add(const std::string& path) {
    if (may_repeat_ && !seen_.insert(path).second) return false;
    ++count_;
    bytes_ += path.size();
    return true;
  }

  /// Whether the search is to end: the last name that was counted reached one of the limits.
  [[nodiscard]] bool full() const { return count_ >= limits_.app_names || bytes_ >= limits_.app_name_bytes; }
  /// Different names of the application so far.
  [[nodiscard]] std::size_t count() const { return count_; }

 private:
  const Limits& limits_;
  bool may_repeat_ = true;  ///< A name may be met by several patterns.
  std::unordered_set<std::string>
      seen_;               ///< Empty where a name is met only once: it would cost time and memory.
  std::size_t count_ = 0;  ///< See count().
  std::size_t bytes_ = 0;  ///< Of their text.
};

}  // namespace TARVO::SupportForm
