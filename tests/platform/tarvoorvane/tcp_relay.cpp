#include "tcp_relay.h"

#include <poll.h>
#include <unistd.h>

#include "loopback.h"

namespace TarvoOrvane::Testing {
namespace {

constexpr int kLookMs = 10;  // between two looks at the flags

bool IsReadable(int fd) {
  pollfd readable{fd, POLLIN, 0};
  return poll(&readable, 1, kLookMs) > 0;
}

}  // namespace

TcpRelay::TcpRelay(int server_port)
    : listener_(BindLoopback(SOCK_STREAM, port_)), thread_([this, server_port] { Run(server_port); }) {}

TcpRelay::~TcpRelay() {
  stop_ = true;
  thread_.join();
}

void TcpRelay::Run(int server_port) {
  while (!IsReadable(listener_.get())) {
    if (stop_) return;
  }
  const Internal::ScopedFd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  const Internal::ScopedFd server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = LoopbackAddress(server_port);
  if (connect(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return;
  while (!stop_) {
    if (Pass(client.get(), server.get())) ++passed_;
    (void)Pass(server.get(), client.get());
  }
}

bool TcpRelay::Pass(int from, int to) const {
  if (!IsReadable(from) || frozen_) return false;
  char chunk[4096];
  const ssize_t size = read(from, chunk, sizeof chunk);
  return size > 0 && write(to, chunk, static_cast<size_t>(size)) == size;
}

}  // namespace TarvoOrvane::Testing
