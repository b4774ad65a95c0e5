/// The file server's two paths over HTTP: archives come to /orvane/ps_files as multipart forms, result
/// reports to /orvane/ps_results as small JSON documents.
///
/// Bodies are worked on as they arrive, in the threads of the HTTP library; an archive goes to disk piece by piece. A
/// complete request waits for the disk without a thread.
///
/// Every answer of ours is a JSON object with the boolean "success" and, where that is false, the text "error". Two
/// requests get no such answer: one that is no well-formed HTTP gets a page of the HTTP library's, which has no hook for
/// it, and a refused body of unknown length is cut off behind 2 MiB.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "css_desk.h"
#include "listen_address.h"

struct MHD_Daemon;

namespace TarvoOrvane::SupportService {

struct CssParts;

/// How long clients may take.
struct CssLimits {
  std::chrono::seconds idle;  ///< A connection on which nothing moves for so long is ended.
  std::chrono::seconds
      head;  ///< From a connection's start, or the former answer on it, to the end of a request's head.
};

/// The listening socket and the threads behind it; requests are Exchange objects.
class CssServer {
 public:
  /// Starts serving.
  /// @param desk        What it refers to lives longer than the server.
  /// @param address     Port 0 lets the kernel choose; url() tells which.
  /// @throws std::runtime_error when the address can't be listened on.
  CssServer(CssDesk desk, const ListenAddress& address, const CssLimits& limits);

  /// Waits until complete requests have their answers, and ends all connections; what was half received is removed.
  ~CssServer();

  CssServer(const CssServer&) = delete;
  CssServer& operator=(const CssServer&) = delete;

  /// What a device's configuration names as the CSS server: http://ADDRESS:PORT, with the port that the kernel chose.
  [[nodiscard]] const std::string& url() const { return url_; }

 private:
  std::unique_ptr<CssParts> parts_;
  std::string url_;
  MHD_Daemon* daemon_ = nullptr;  ///< Its threads use parts_ until it is stopped.
};

}  // namespace TarvoOrvane::SupportService
