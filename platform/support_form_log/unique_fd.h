#pragma once

#include <unistd.h>

#include <utility>

namespace TARVO::SupportForm {

/// Owns one descriptor, or none, and closes it when it goes. What closing reports is lost: a writer that wants to know
/// takes the descriptor back with Release() and closes it itself.
class UniqueFd {
 public:
  UniqueFd() = default;
  /// @param fd  From now on its own; negative, as a failed open() returns it: it holds none.
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Close();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Close(); }

  /// Closes it at once. Leaves errno as close() sets it.
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

  /// The descriptor for calls that only use it; negative when none is held.
  [[nodiscard]] int get() const { return fd_; }
  /// Whether one is held; it need not be open any more where somebody closed it by number.
  [[nodiscard]] bool valid() const { return fd_ >= 0; }

  /// Gives the descriptor away: the caller closes it, and none is held here any more.
  [[nodiscard]] int Release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;  ///< -1 when none is held.
};

}  // namespace TARVO::SupportForm
