/// Which tickets were taken, for when the service delivers one again.
#pragma once

#include <deque>
#include <string>

namespace TarvoOrvane::Internal {

/// Remembers which tickets the daemon has taken, so that one whose answer was lost is not worked on twice when
/// the service delivers it again. In the worker's memory only: a new worker remembers nothing.
class TicketMemory {
 public:
  static constexpr std::size_t kCapacity = 256;  ///< Older ids are forgotten.

  /// Makes `id` the youngest. The empty id is not remembered: it can't tell two tickets apart.
  void Add(const std::string& id);
  /// Whether `id` is among those that were added last. False for the empty id.
  [[nodiscard]] bool Contains(const std::string& id) const;

 private:
  std::deque<std::string> hashes_;  ///< Of the ids, oldest first. An id itself may have 64 KiB.
};

}  // namespace TarvoOrvane::Internal
