/// What searching a text for secrets may cost: so much for each of its bytes, whatever the text is. A text made of
/// nothing but words that are looked around at can't hold up the collection.
#pragma once

#include <algorithm>
#include <cstdint>

namespace TARVO::SupportForm {

/// Counts what the search of one text costs, in nanoseconds of processor time as estimated for each kind of look: not
/// measured, so that the same text is masked in the same way on every machine. A text earns by its length; ordinary
/// logs spend a tenth of that and save some for denser parts. Part of a Redactor, so there is one for each text.
class SearchAllowance {
 public:
  /// Nanoseconds that each byte earns.
  static constexpr std::int64_t kPerByte = 11;
  /// Nanoseconds that a text begins with, and saves at most.
  static constexpr std::int64_t kSavedAtMost = 2'000'000;

  /// Takes what the text has earned since the last call and gives what it has cost.
  /// @param position  Offset in the text up to which it is searched; never less than before.
  /// @param cost      Of the last look, in nanoseconds: what look_cost has grown by.
  void Spend(std::uint64_t position, std::uint64_t cost) {
    const auto bytes = static_cast<std::int64_t>(position - position_);
    left_ = std::min(kSavedAtMost, left_ + bytes * kPerByte) - static_cast<std::int64_t>(cost);
    position_ = position;
  }

  /// Forgives what was spent too much, so that one part of a text is given up for it and no more.
  void Forgive() { left_ = 0; }

  /// Whether the text has cost more than it earned. What is being searched is to be masked as a whole then.
  [[nodiscard]] bool IsSpent() const { return left_ < 0; }

 private:
  std::int64_t left_ = kSavedAtMost;  ///< Nanoseconds; below 0 once more was spent than earned.
  std::uint64_t position_ = 0;        ///< Up to here the text has earned.
};

}  // namespace TARVO::SupportForm
