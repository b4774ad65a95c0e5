#pragma once

#include <cstdint>

namespace TARVO::SupportForm {

/// Room on the device that a growing file is given ahead of its end, so that nobody else can take it: the archive can
/// be completed then though others fill the device. Where the file system can't do that, only the process's file-size
/// limit is looked at. Used by the archive's writer, in its thread.
class ReservedRoom {
 public:
  /// @param fd  The file, open for writing, empty; borrowed.
  explicit ReservedRoom(int fd);

  /// Sees to it that the file may grow to so many bytes.
  /// @return false, with errno set (ENOSPC, EDQUOT, EFBIG, EIO), when there is no room for them; what was reserved
  ///         before stays. More is reserved than asked for where there is so much, so that most calls cost nothing.
  [[nodiscard]] bool Reserve(std::uint64_t bytes);

  /// The size in bytes up to which room is reserved, the file's own included; 0 where the file system can't do that.
  [[nodiscard]] std::uint64_t reserved() const { return reserved_; }

  /// Gives back what the file, which has grown to so many bytes, did not need. To be called once, when it is complete.
  void Release(std::uint64_t bytes);

 private:
  /// Has the file system reserve up to so many bytes, and notes where it can't.
  /// @return As Reserve().
  bool Extend(std::uint64_t bytes);

  int fd_;
  std::uint64_t limit_;         ///< FileSizeLimit() when the file was new.
  std::uint64_t reserved_ = 0;  ///< See reserved().
  bool supported_ = true;       ///< The file system has not said yet that it can't reserve.
};

/// The largest size in bytes that the process may give a file now (RLIMIT_FSIZE). Others may change it at any time.
[[nodiscard]] std::uint64_t FileSizeLimit();

}  // namespace TARVO::SupportForm
