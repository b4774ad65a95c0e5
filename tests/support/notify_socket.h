/// A service manager's end of the protocol of sd_notify(3).
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string>
#include <system_error>
#include <vector>

#include "eventually.h"

namespace test_support {

/// For the messages of a test that failed, and to look for what stands in several of them.
inline std::string Joined(const std::vector<std::string>& messages) {
  std::string text;
  for (const std::string& message : messages) text += message + "\n--\n";
  return text;
}

class NotifySocket {
 public:
  /// @param path  Of the socket; one that begins with "@" is not in the file system.
  /// @throws std::system_error when it can't be bound.
  explicit NotifySocket(const std::string& path) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (path[0] == '@') address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    if (bind(fd_, reinterpret_cast<const sockaddr*>(&address), size) != 0) {
      throw std::system_error(errno, std::generic_category(), path);
    }
  }
  ~NotifySocket() { close(fd_); }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  /// All messages that have come, in their order.
  const std::vector<std::string>& Messages() {
    std::string text(4096, '\0');
    for (ssize_t size = 0; (size = recv(fd_, text.data(), text.size(), MSG_DONTWAIT)) >= 0;) {
      messages_.push_back(text.substr(0, static_cast<std::size_t>(size)));
    }
    return messages_;
  }

  /// Waits for a message in which `part` stands.
  [[nodiscard]] bool WaitFor(const std::string& part) {
    return Eventually([&] {
      const std::vector<std::string>& all = Messages();
      return std::any_of(all.begin(), all.end(),
                         [&](const std::string& message) { return message.find(part) != std::string::npos; });
    });
  }

 private:
  const int fd_;
  std::vector<std::string> messages_;
};

}  // namespace test_support
