/// The owner of a descriptor, for this library's own.
#pragma once

#include <unistd.h>

#include <utility>

namespace TarvoOrvane::Internal {

/// Owns one descriptor and closes it; -1 when it holds none. platform/support_form_log has an
/// owner of its own: the libraries share no code, because a device maker may replace each of them alone.
class ScopedFd {
 public:
  /// Takes what open() and its like return, also a failure's -1.
  explicit ScopedFd(int fd = -1) : fd_(fd) {}
  ScopedFd(ScopedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  /// The former descriptor goes to `other`, which closes it at its end.
  ScopedFd& operator=(ScopedFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  ~ScopedFd() {
    if (fd_ >= 0) close(fd_);
  }

  /// The number; it stays this object's.
  [[nodiscard]] int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_;
};

}  // namespace TarvoOrvane::Internal
