/// A server that never lets its client write on the stream, and sends one thing itself.
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
  explicit UnreadServer(const std::string& ticket_json);

  struct ComplaintOfPings {};
  /// As servers that are not built on gRPC's own core complain: by a GOAWAY, then the connection's end.
  explicit UnreadServer(ComplaintOfPings);
  ~UnreadServer();
  UnreadServer(const UnreadServer&) = delete;
  UnreadServer& operator=(const UnreadServer&) = delete;

  [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  UnreadServer(std::string reply, bool is_its_last);
  void Run();
  void Serve(int fd) const;
  bool ReadExactly(int fd, std::string& out, std::size_t size) const;

  const std::string reply_;  ///< The frames that are sent when a stream is opened.
  const bool is_its_last_;   ///< No more is sent on the connection then.
  int port_ = 0;
  Internal::ScopedFd listener_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace TarvoOrvane::Testing
