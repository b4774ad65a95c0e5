#pragma once

#include <cstdint>

namespace TARVO::SupportForm {

/// Room on the device that a growing file is given ahead of its end, so that nobody else can take it. Where the file
/// system can't do that, only the process's file-size limit is looked at.
class ReservedRoom {
 public:
  /// @param fd  The file, open for writing, empty; borrowed.
  explicit ReservedRoom(int fd);

  /// Sees to it that the file may grow to so many bytes.
  /// @return false, with errno set, when there is no room for them; what was reserved before stays.
  [[nodiscard]] bool Reserve(std::uint64_t bytes);

  /// The size up to which room is reserved.
  [[nodiscard]] std::uint64_t reserved() const { return reserved_; }

  /// Gives back what the file, which has grown to so many bytes, did not need.
  void Release(std::uint64_t bytes);

 private:
  bool Extend(std::uint64_t bytes);

  int fd_;
  std::uint64_t limit_;
  std::uint64_t reserved_ = 0;
  bool supported_ = true;
};

/// The largest size that the process may give a file.
[[nodiscard]] std::uint64_t FileSizeLimit();

}  // namespace TARVO::SupportForm
