/// Room on the disk for uploads. What others were promised counts as used, so that many uploads that each fit alone
/// don't fill the disk together.
#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>

namespace TarvoOrvane::SupportService {

/// Any thread may use it.
class DiskRoom {
 public:
  /// @param folder      On the file system that is meant; it exists.
  /// @param stays_free  So many bytes are given to nobody; nothing for a twentieth of the file system, a GiB at most.
  DiskRoom(std::filesystem::path folder, std::optional<std::uint64_t> stays_free);

  /// Promises room.
  /// @return false when there is too little, or when the system can't tell.
  [[nodiscard]] bool Reserve(std::uint64_t bytes);
  /// From now on, as in the constructor.
  void SetStaysFree(std::optional<std::uint64_t> bytes);

  /// How it is with the disk now.
  struct View {
    std::uint64_t free_bytes = 0;  ///< As the system says; what was promised is not taken off.
    std::uint64_t whole_bytes = 0;
    std::uint64_t stays_free_bytes = 0;
    std::uint64_t promised_bytes = 0;
  };
  /// All of it is 0 when the system can't tell.
  [[nodiscard]] View Look() const;

  /// So many of the promised bytes were written, or are not wanted any more.
  void Release(std::uint64_t bytes);

 private:
  const std::filesystem::path folder_;
  mutable std::mutex mutex_;  ///< Guards what follows.
  std::optional<std::uint64_t> stays_free_;
  std::uint64_t promised_ = 0;
};

/// A promise of room that ends with the object. Used by one thread at a time.
class RoomReservation {
 public:
  explicit RoomReservation(DiskRoom& room) : room_(room) {}
  ~RoomReservation() { room_.Release(bytes_); }
  RoomReservation(const RoomReservation&) = delete;
  RoomReservation& operator=(const RoomReservation&) = delete;

  /// @return false when there is too little room for so much more.
  [[nodiscard]] bool Add(std::uint64_t bytes);
  /// Makes sure of room for what is to be written next, and takes it for written.
  /// @return false when there is too little.
  [[nodiscard]] bool Use(std::uint64_t bytes);

 private:
  DiskRoom& room_;
  std::uint64_t bytes_ = 0;  ///< Promised and not written.
};

}  // namespace TarvoOrvane::SupportService
