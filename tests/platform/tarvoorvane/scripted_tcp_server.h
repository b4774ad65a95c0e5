/// A loopback TCP server whose every move the test scripts.
#pragma once

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "loopback_server.h"
#include "scoped_fd.h"

namespace TarvoOrvane::Testing {

class ScriptedTcpServer {
 public:
  /// @param serve  Runs in the server's thread for one connection after the other. What it reads comes within a
  ///               minute or fails. Connections stay open until the server goes.
  explicit ScriptedTcpServer(std::function<void(int)> serve)
      : serve_(std::move(serve)),
        server_([this](int connection) { Serve(fcntl(connection, F_DUPFD_CLOEXEC, 0)); }) {}

  [[nodiscard]] std::string host_and_port() const { return "127.0.0.1:" + std::to_string(port()); }
  [[nodiscard]] std::string url() const { return "http://" + host_and_port() + "/"; }
  [[nodiscard]] int port() const { return server_.port(); }
  [[nodiscard]] int listener() const { return server_.listener(); }
  [[nodiscard]] int connections() const { return connections_; }

 private:
  /// @param connection  Kept open, whatever becomes of its duplicate.
  void Serve(int connection) {
    open_.emplace_back(connection);
    ++connections_;
    const timeval limit{60, 0};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    serve_(connection);
  }

  const std::function<void(int)> serve_;
  std::vector<Internal::ScopedFd> open_;  ///< Only the thread's until it has ended.
  std::atomic<int> connections_{0};
  LoopbackServer server_;
};

/// Reads a request's head, and no more of its body than came with it.
/// @return What was read; empty when the client stopped before the head's end.
inline std::string ReadHead(int connection) {
  std::string text;
  char chunk[4096];
  while (text.find("\r\n\r\n") == std::string::npos) {
    const ssize_t size = read(connection, chunk, sizeof chunk);
    if (size <= 0) return {};
    text.append(chunk, static_cast<std::size_t>(size));
  }
  return text;
}

/// Reads the rest of the body of the request whose beginning ReadHead() returned.
inline void ReadBody(int connection, const std::string& begin) {
  const std::size_t body = begin.find("\r\n\r\n") + 4;
  const std::size_t length_at = begin.find("Content-Length: ");
  std::size_t left = std::strtoul(begin.c_str() + length_at + 16, nullptr, 10) - (begin.size() - body);
  std::string chunk(1 << 16, '\0');
  while (left > 0) {
    const ssize_t size = read(connection, chunk.data(), chunk.size());
    if (size <= 0) return;
    left -= static_cast<std::size_t>(size);
  }
}

inline constexpr char kAnswer[] = "HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nanswer";

inline void WriteAnswer(int connection) {
  static_cast<void>(!write(connection, kAnswer, sizeof kAnswer - 1));
}

}  // namespace TarvoOrvane::Testing
