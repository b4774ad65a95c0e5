#include "http_exchange.h"

#include <unistd.h>

namespace TarvoOrvane::SupportService {

struct FileSlice::Descriptor {
  explicit Descriptor(int the_fd) : fd(the_fd) {}
  ~Descriptor() {
    if (fd != -1) close(fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int fd;
};

FileSlice::FileSlice(int fd, std::uint64_t offset, std::uint64_t size)
    : descriptor_(std::make_shared<Descriptor>(fd)), offset_(offset), size_(size) {}

int FileSlice::TakeDescriptor() { return std::exchange(descriptor_->fd, -1); }

bool RefusedExchange::TakeBody(std::string_view data) {
  dropped_bytes_ += data.size();
  return dropped_bytes_ <= kMaxDroppedBytes;
}

bool RefusedExchange::IsWorthReading(const HttpRequest& request) {
  // One of unknown length may be as small.
  const std::uint64_t length = request.body_length().value_or(kMaxDroppedBytes);
  if (length == 0 || request.awaits_continue()) return false;
  return length <= kMaxDroppedBytes;
}

}  // namespace TarvoOrvane::SupportService
