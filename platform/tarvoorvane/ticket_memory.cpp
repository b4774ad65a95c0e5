#include "ticket_memory.h"

#include <algorithm>

namespace TarvoOrvane::Internal {

void TicketMemory::Add(const std::string& id) {
  if (id.empty()) return;
  ids_.erase(std::remove(ids_.begin(), ids_.end(), id), ids_.end());
  ids_.push_back(id);
  if (ids_.size() > kCapacity) ids_.pop_front();
}

bool TicketMemory::Contains(const std::string& id) const {
  return std::find(ids_.begin(), ids_.end(), id) != ids_.end();
}

}  // namespace TarvoOrvane::Internal
