/// The file server's two paths over HTTP: archives come to /orvane/ps_files as multipart forms, result
/// reports to /orvane/ps_results as small JSON documents.
///
/// Bodies are worked on as they arrive, in the threads of the HTTP library; an archive goes to disk piece
/// by piece. Every answer of ours is a JSON object with the boolean "success" and, where that is false,
/// the text "error". Two requests get no such answer: one that is no well-formed HTTP gets a page of the HTTP
/// library's, which has no hook for it, and a refused body of unknown length is cut off behind 2 MiB.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "css_desk.h"
#include "listen_address.h"

struct MHD_Daemon;

namespace TarvoOrvane::SupportService {

/// The listening socket and the threads behind it; requests are Exchange objects.
class CssServer {
 public:
  /// Starts serving.
  /// @param book, store   Live longer than the server.
  /// @param events        Called from the threads of the HTTP library.
  /// @param address       Port 0 lets the kernel choose; url() tells which.
  /// @param idle_limit    A connection on which nothing moves for so long is ended; whole seconds.
  /// @throws std::runtime_error when the address can't be listened on.
  CssServer(TicketBook& book, const ArchiveStore& store, EventSink events, const ListenAddress& address,
            std::chrono::seconds idle_limit);

  /// Ends all connections; what was half received is removed.
  ~CssServer();

  CssServer(const CssServer&) = delete;
  CssServer& operator=(const CssServer&) = delete;

  /// What a device's configuration names as the CSS server: http://ADDRESS:PORT, with the port that the kernel chose.
  [[nodiscard]] const std::string& url() const { return url_; }

 private:
  CssDesk desk_;
  std::string url_;
  MHD_Daemon* daemon_ = nullptr;  ///< Its threads use desk_ until it is stopped.
};

}  // namespace TarvoOrvane::SupportService
