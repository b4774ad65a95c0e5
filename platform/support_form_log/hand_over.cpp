#include "hand_over.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "file_util.h"

namespace TARVO::SupportForm {
namespace {

/// What sendmsg() and recvmsg() want to know: a piece of text, and room for one descriptor.
class Frame {
 public:
  Frame(void* bytes, std::size_t size) : piece_{bytes, size} {
    header_.msg_iov = &piece_;
    header_.msg_iovlen = 1;
  }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;

  /// @return the header, with room for exactly one descriptor; with the padding's there would be two.
  msghdr* WithRoomForDescriptor() {
    header_.msg_control = control_.data();
    header_.msg_controllen = CMSG_LEN(sizeof(int));
    return &header_;
  }

  msghdr* WithDescriptor(int fd) {
    if (fd < 0) return &header_;
    cmsghdr* const attached = CMSG_FIRSTHDR(WithRoomForDescriptor());
    attached->cmsg_level = SOL_SOCKET;
    attached->cmsg_type = SCM_RIGHTS;
    attached->cmsg_len = CMSG_LEN(sizeof(fd));
    std::memcpy(CMSG_DATA(attached), &fd, sizeof(fd));
    return &header_;
  }

  /// The descriptor that came; invalid where none did.
  [[nodiscard]] UniqueFd TakeDescriptor() {
    const cmsghdr* const attached = CMSG_FIRSTHDR(&header_);
    int fd = -1;
    if (attached == nullptr || attached->cmsg_level != SOL_SOCKET) return {};
    if (attached->cmsg_type != SCM_RIGHTS) return {};
    std::memcpy(&fd, CMSG_DATA(attached), sizeof(fd));
    return UniqueFd(fd);
  }

 private:
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control_ = {};
  iovec piece_;
  msghdr header_ = {};
};

bool WaitUntilReady(int socket_fd, short events, std::int64_t deadline_ms) {
  pollfd waiting = {socket_fd, events, 0};
  for (;;) {
    const std::int64_t left = std::max<std::int64_t>(deadline_ms - MonotonicMs(), 0);
    const int ready = poll(&waiting, 1, static_cast<int>(left));
    if (ready > 0) return true;
    if (ready == 0) errno = ETIMEDOUT;
    if (errno != EINTR) return false;
  }
}

bool IsToBeTriedAgain() { return errno == EAGAIN || errno == EINTR; }

}  // namespace

bool SendMessage(int socket_fd, std::string_view text, int attached_fd, std::int64_t deadline_ms) {
  while (!text.empty()) {
    if (!WaitUntilReady(socket_fd, POLLOUT, deadline_ms)) return false;
    Frame frame(const_cast<char*>(text.data()), text.size());
    const ssize_t sent = sendmsg(socket_fd, frame.WithDescriptor(attached_fd), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && IsToBeTriedAgain()) continue;
    if (sent < 0) return false;
    attached_fd = -1;
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
  return shutdown(socket_fd, SHUT_WR) == 0;
}

bool ReceiveMessage(int socket_fd, std::size_t limit, std::int64_t deadline_ms, Message& message) {
  std::array<char, 16384> buffer;
  for (;;) {
    if (!WaitUntilReady(socket_fd, POLLIN, deadline_ms)) return false;
    Frame frame(buffer.data(), buffer.size());
    const ssize_t count = recvmsg(socket_fd, frame.WithRoomForDescriptor(), MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (count < 0 && IsToBeTriedAgain()) continue;
    if (count <= 0) {
      // A side that ends without having read all resets the connection behind what it has sent.
      return count == 0 || (errno == ECONNRESET && !message.text.empty());
    }
    if (UniqueFd attached = frame.TakeDescriptor(); attached.valid()) message.attached = std::move(attached);
    if (message.text.size() + static_cast<std::size_t>(count) > limit) {
      errno = EMSGSIZE;
      return false;
    }
    message.text.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

}  // namespace TARVO::SupportForm
