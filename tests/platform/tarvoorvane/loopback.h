#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <stdexcept>

#include "scoped_fd.h"

namespace TarvoOrvane::Testing {

inline sockaddr_in LoopbackAddress(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

/// A socket of `type` (SOCK_STREAM listens) on a loopback port that the kernel chose.
inline Internal::ScopedFd BindLoopback(int type, int& port) {
  Internal::ScopedFd fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
  sockaddr_in address = LoopbackAddress(0);
  socklen_t size = sizeof address;
  if (bind(fd.get(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      (type == SOCK_STREAM && listen(fd.get(), 5) != 0) ||
      getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("no loopback port");
  }
  port = ntohs(address.sin_port);
  return fd;
}

}  // namespace TarvoOrvane::Testing
