/// A notification server that lets its client write no answer, however long one waits.
#pragma once

#include <string>

#include "loopback_server.h"

namespace TarvoOrvane::Testing {

/// Speaks HTTP/2 itself, since no server library offers to close a stream's flow control window: what the client
/// writes stays with it then. Knows one stream for each connection.
class UnreadServer {
 public:
  /// What it does, once.
  enum class Act {
    kDeliversAtOnce,      ///< Delivers its ticket when the stream is opened. There is never a window.
    kDeliversAfterHello,  ///< Closes the window when it has the client's first message, and delivers its ticket.
    kComplainsOfPings  ///< When the stream is opened, as servers do that are not built on gRPC's own core: by a
                       ///< GOAWAY, then the connection's end. There is never a window.
  };
  explicit UnreadServer(Act act, const std::string& ticket_id = "", const std::string& ticket_json = "");

  [[nodiscard]] std::string Url() const { return server_.Url(); }

 private:
  struct Frame;

  void Serve(int fd) const;
  void React(int fd, const Frame& frame) const;
  bool ReadFrame(int fd, Frame& frame) const;
  bool ReadExactly(int fd, std::string& out, std::size_t size) const;

  const Act act_;
  const std::string reply_;  ///< The frames that it sends.
  LoopbackServer server_;
};

}  // namespace TarvoOrvane::Testing
