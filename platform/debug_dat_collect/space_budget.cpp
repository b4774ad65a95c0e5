#include "space_budget.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace TARVO::SupportForm {
namespace {

/// What an entry usually costs besides its content: the tar header and the manifest's line. Only what is known between
/// two looks hangs on it.
constexpr std::uint64_t kUsualOverheadBytes = 2048;
/// More than anything comes to, and small enough to be multiplied and added.
constexpr std::uint64_t kRoomForAnything = std::numeric_limits<std::uint64_t>::max() / 4;
/// One part in so many is kept back: more than zstd adds to what it can't compress.
constexpr std::uint64_t kIncompressibleShare = 64;

std::uint64_t Less(std::uint64_t from, std::uint64_t what) { return from - std::min(from, what); }

}  // namespace

SpaceBudget::SpaceBudget(const Limits& limits, Look look) : limits_(limits), look_(std::move(look)) {}

Allowance SpaceBudget::Allow(std::uint64_t size, std::uint64_t least) {
  least = std::min(least, size);
  const std::uint64_t left = limits_.archive_bytes - bytes_;
  const std::uint64_t room = RoomFor(size);
  if (entries_ >= limits_.archive_entries) {
    return {{}, "left out: the archive has " + std::to_string(limits_.archive_entries) + " entries"};
  }
  if (left < least) {
    return {{},
            "left out: with its " + std::to_string(size) + " bytes the archive would pass " +
                std::to_string(limits_.archive_bytes)};
  }
  // Even an empty entry needs some room.
  if (room < least || room == 0) return {{}, "left out for want of space: " + WhyNoRoom()};
  return {std::min({size, left, room}), {}};
}

std::string SpaceBudget::WhyNoRoom() const {
  if (file_limit_binds_) {
    return "the collection may write no file of more than " + std::to_string(seen_.file_size_limit) +
           " bytes";
  }
  return std::to_string(seen_.free) + " bytes are free on the device, and " +
         std::to_string(limits_.free_bytes) + " must remain";
}

std::uint64_t SpaceBudget::RoomFor(std::uint64_t wanted) {
  if (wanted > room_ || since_look_ >= kLookBytes) LookAgain();
  return room_;
}

void SpaceBudget::LookAgain() {
  since_look_ = 0;
  const std::optional<DeviceSpace> seen = look_();
  if (!seen) {
    room_ = kRoomForAnything;
    return;
  }
  seen_ = *seen;
  const std::uint64_t needed = limits_.free_bytes + seen_.archive_end - seen_.archive_size;
  const std::uint64_t on_device = Less(seen_.free, needed);
  const std::uint64_t under_limit = Less(seen_.file_size_limit, seen_.archive_end);
  file_limit_binds_ = under_limit < on_device;
  room_ = std::min(on_device, under_limit);
  room_ -= room_ / kIncompressibleShare;
}

void SpaceBudget::Add(std::uint64_t size) {
  ++entries_;
  bytes_ += size;
  room_ = Less(room_, size + kUsualOverheadBytes);
  since_look_ += size + kUsualOverheadBytes;
}

}  // namespace TARVO::SupportForm
