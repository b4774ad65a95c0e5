/// What the tests' servers share: sockets on loopback ports that the kernel chooses.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>

inline sockaddr_in LoopbackAddressOf(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

/// A socket of `type` bound to that loopback port, 0 for one of the kernel's choice. It doesn't listen yet.
/// @throws std::runtime_error when that fails.
inline int BindTo(int type, int port) {
  const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  const sockaddr_in address = LoopbackAddressOf(port);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1) {
    throw std::runtime_error("no loopback port");
  }
  return fd;
}

/// The same on a port of the kernel's choice, which goes to `port`.
inline int BindToLoopback(int type, int& port) {
  const int chooser = BindTo(type, 0);
  sockaddr_in address = {};
  socklen_t size = sizeof(address);
  getsockname(chooser, reinterpret_cast<sockaddr*>(&address), &size);
  port = ntohs(address.sin_port);
  // A socket that was not bound to a certain port loses it when it stops to listen.
  const int fd = BindTo(type, port);
  close(chooser);
  return fd;
}

/// A listening TCP socket on a loopback port of the kernel's choice, which goes to `port`.
inline int ListenOnLoopback(int& port) {
  const int fd = BindToLoopback(SOCK_STREAM, port);
  if (listen(fd, 32) == -1) {
    throw std::runtime_error("cannot listen on the loopback port");
  }
  return fd;
}

/// Waits until one of `events` holds of `fd`.
inline bool WaitFor(int fd, short events, int milliseconds) {
  pollfd wait = {fd, events, 0};
  return poll(&wait, 1, milliseconds) == 1;
}

/// Whether the peer, which is on this machine, has read all that was sent to it, or has gone.
bool HasReadAll(int connection);

/// Closes the connection by a reset.
inline void CloseByReset(int fd) {
  const linger at_once = {1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  close(fd);
}

/// A loopback address at which nobody listens; the port stays taken while the object lives.
class UnusedAddress {
 public:
  UnusedAddress() : fd_(BindToLoopback(SOCK_STREAM, port_)) {}
  ~UnusedAddress() { close(fd_); }
  UnusedAddress(const UnusedAddress&) = delete;
  UnusedAddress& operator=(const UnusedAddress&) = delete;

  [[nodiscard]] int port() const { return port_; }
  [[nodiscard]] std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  int port_ = 0;  ///< Before the socket, whose initialisation sets it.
  int fd_;
};
