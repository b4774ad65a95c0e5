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

struct DiskSize {
  std::uint64_t free;
  std::uint64_t whole;
};

/// Nothing when the system can't tell.
std::optional<DiskSize> SizeOf(const std::filesystem::path& folder) {
  struct statvfs system {};
  if (statvfs(folder.c_str(), &system) == -1) return std::nullopt;
  return DiskSize{std::uint64_t{system.f_bavail} * system.f_frsize,
                  std::uint64_t{system.f_blocks} * system.f_frsize};
}

std::uint64_t StaysFree(const std::optional<std::uint64_t>& wanted, const DiskSize& size) {
  return wanted.value_or(std::min(size.whole / kShareKeptFree, kMostKeptFree));
}

}  // namespace

DiskRoom::DiskRoom(std::filesystem::path folder, std::optional<std::uint64_t> stays_free)
    : folder_(std::move(folder)), stays_free_(stays_free) {}

bool DiskRoom::Reserve(std::uint64_t bytes) {
  const auto size = SizeOf(folder_);
  if (!size) return false;
  const std::lock_guard<std::mutex> lock(mutex_);
  // Compared without a sum: the bytes are a stranger's number.
  const std::uint64_t taken = std::min(size->free, StaysFree(stays_free_, *size) + promised_);
  if (bytes > size->free - taken) return false;
  promised_ += bytes;
  return true;
}

void DiskRoom::SetStaysFree(std::optional<std::uint64_t> bytes) {
  const std::lock_guard<std::mutex> lock(mutex_);
  stays_free_ = bytes;
}

DiskRoom::View DiskRoom::Look() const {
  const auto size = SizeOf(folder_);
  if (!size) return {};
  const std::lock_guard<std::mutex> lock(mutex_);
  return {size->free, size->whole, StaysFree(stays_free_, *size), promised_};
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
