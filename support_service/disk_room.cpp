#include "disk_room.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <utility>

namespace TarvoOrvane::SupportService {
namespace {

constexpr std::uint64_t kMostKeptFree = std::uint64_t{1} << 30;
constexpr std::uint64_t kShareKeptFree = 20;
/// Where an upload's size was not announced, room is looked for so often.
constexpr std::uint64_t kStep = std::uint64_t{8} << 20;

}  // namespace

DiskRoom::DiskRoom(std::filesystem::path folder, std::optional<std::uint64_t> stays_free)
    : folder_(std::move(folder)), stays_free_(stays_free) {}

bool DiskRoom::Reserve(std::uint64_t bytes) {
  struct statvfs system {};
  if (statvfs(folder_.c_str(), &system) == -1) return false;
  const std::uint64_t free = std::uint64_t{system.f_bavail} * system.f_frsize;
  const std::uint64_t whole = std::uint64_t{system.f_blocks} * system.f_frsize;
  const std::uint64_t stays_free = stays_free_.value_or(std::min(whole / kShareKeptFree, kMostKeptFree));
  const std::lock_guard<std::mutex> lock(mutex_);
  // Compared without a sum: the bytes are a stranger's number.
  const std::uint64_t taken = std::min(free, stays_free + promised_);
  if (bytes > free - taken) return false;
  promised_ += bytes;
  return true;
}

void DiskRoom::Release(std::uint64_t bytes) {
  const std::lock_guard<std::mutex> lock(mutex_);
  promised_ -= bytes;
}

bool RoomReservation::Add(std::uint64_t bytes) {
  if (!room_.Reserve(bytes)) return false;
  bytes_ += bytes;
  return true;
}

bool RoomReservation::Use(std::uint64_t bytes) {
  if (bytes > bytes_ && !Add(std::max(bytes - bytes_, kStep))) return false;
  room_.Release(bytes);
  bytes_ -= bytes;
  return true;
}

}  // namespace TarvoOrvane::SupportService
