/// An HTTP server: a listening socket, with or without TLS, and the threads behind it. What requests mean is its
/// factory's business.
///
/// Bodies are worked on as they arrive, in the threads of the HTTP library. A complete request waits for its answer
/// without a thread, and so does an event stream for its next piece.
///
/// Requests that are no well-formed HTTP get a page of the HTTP library's, which has no hook for them. A refused body
/// of unknown length is cut off behind RefusedExchange::kMaxDroppedBytes.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "address_limit.h"
#include "event_log.h"
#include "http_exchange.h"
#include "http_request.h"
#include "listen_address.h"
#include "tls_settings.h"

namespace TarvoOrvane::SupportService {

struct HttpParts;

/// The error as text.
HttpAnswer PlainAnswer(unsigned int status, const std::string& error);

struct HttpSettings {
  ListenAddress address;                ///< Port 0 lets the kernel choose; url() tells which.
  std::optional<TlsSettings> tls;       ///< Without it plaintext.
  std::chrono::seconds idle_limit{60};  ///< A connection on which nothing moves for so long is ended.
  /// From a connection's start, or the former answer on it, to the end of a request's head.
  std::chrono::seconds head_limit{30};
  /// A thread waits for the disk while a piece of a body is written; the others go on meanwhile. More than one.
  unsigned int threads = 4;
  unsigned int connections = 1000;  ///< More of them wait to be accepted.
  /// Closes those that are too many of one IP address; null for no such limit. Lives longer than the server.
  AddressLimit* addresses = nullptr;
  /// Makes the answer where no exchange can: at the server's end (503), and when one failed (500).
  HttpAnswer (*own_answer)(unsigned int status, const std::string& error) = PlainAnswer;
  /// What is asked at the server's end is answered by 503. Otherwise its connection ends without an answer, for clients
  /// that try again only then.
  bool refuses_at_end = true;
};

/// Used by the thread that made it.
class HttpServer {
 public:
  /// Looks at a request's head, and makes the object that takes the rest of it; never null. Runs in the server's
  /// threads, for several requests at a time. An exception ends the connection without an answer.
  using Factory = std::function<std::unique_ptr<Exchange>(HttpRequest&)>;

  /// Starts serving.
  /// @param events  Told when the certificate was replaced or can't be, and when no more connections can be accepted.
  ///                What strangers do does not become lines.
  /// @throws std::runtime_error when the address can't be listened on or TLS files can't be used: what is wrong with
  ///         which one, and what to do.
  HttpServer(const HttpSettings& settings, Factory factory, const EventSink& events);

  /// Waits until complete requests have their answers, ends event streams, and then all connections.
  ~HttpServer();

  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  using TimePoint = std::chrono::steady_clock::time_point;

  /// Ends event streams, and from now on takes no requests but those whose heads have come.
  void Refuse();

  /// Waits until no request is under way, for the service's end. Without Refuse() others may begin meanwhile.
  /// @param deadline  It waits no longer.
  /// @param linger    Where it has waited for one: what is asked within so long behind it is waited for, too.
  /// @return How many are under way still. The server's end cuts off those whose bodies are not complete.
  std::size_t AwaitRequests(TimePoint deadline, std::chrono::milliseconds linger);

  /// http://ADDRESS:PORT or https://ADDRESS:PORT, with the port that the kernel chose; unix:/path.
  [[nodiscard]] const std::string& url() const { return url_; }

 private:
  std::unique_ptr<HttpParts> parts_;
  std::string url_;
  std::string unix_path_;  ///< Empty for TCP.
  /// For answers to be sent at the end; set where requests were waited for.
  std::optional<TimePoint> last_moment_;
};

}  // namespace TarvoOrvane::SupportService
