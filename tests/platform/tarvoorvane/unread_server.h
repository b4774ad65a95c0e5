/// A server that delivers a ticket but never lets its client write on the stream.
#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "scoped_fd.h"

namespace TarvoOrvane::Testing {

/// Speaks just enough HTTP/2 for one stream, and gives it no window: what the client writes stays with it.
class UnreadServer {
 public:
  /// @param ticket_json  The one ticket, delivered when a stream is opened.
  explicit UnreadServer(std::string ticket_json);
  ~UnreadServer();
  UnreadServer(const UnreadServer&) = delete;
  UnreadServer& operator=(const UnreadServer&) = delete;

  [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  void Run();
  void Serve(int fd) const;
  bool ReadExactly(int fd, std::string& out, size_t size) const;

  const std::string ticket_json_;
  int port_ = 0;
  Internal::ScopedFd listener_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace TarvoOrvane::Testing
