/// An HTTP server of the tests' own: it keeps every request's bytes and gives the answers it was told to.
///
/// It speaks on a socket directly, so that an answer may be broken at any byte. A thread of its own serves
/// one connection after the other, one request on each; every wait there ends after a minute.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// What the server sends for one request before it closes the connection.
struct Answer {
  std::vector<std::string> pieces;             ///< The bytes, piece by piece.
  std::chrono::milliseconds pause_between{0};  ///< Waited between two pieces.
};

/// One request as it came over the wire.
struct ReceivedRequest {
  std::string request_line;                                 ///< Without its line end.
  std::vector<std::pair<std::string, std::string>> header;  ///< Names and values, in the order received.
  std::string body;                                         ///< The bytes behind the header.

  /// The value of the header line `name`; empty without one.
  std::string Header(const std::string& name) const;
};

/// An answer with `status` (such as "200 OK"), `body` and its length.
Answer HttpAnswer(const std::string& status, const std::string& body);

class LoopbackServer {
 public:
  /// Listens on a loopback port of the kernel's choice and serves as many requests as there are answers.
  explicit LoopbackServer(std::vector<Answer> answers);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  /// The server's address, such as "http://127.0.0.1:41234".
  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  /// Waits until every answer was given, or until a wait has timed out.
  /// @return The requests, in the order received.
  const std::vector<ReceivedRequest>& Requests();

 private:
  void Serve();
  void ServeOne(int connection_fd, const Answer& answer);

  std::vector<Answer> answers_;
  std::vector<ReceivedRequest> requests_;  ///< Belongs to thread_ until that is joined.
  int listener_fd_ = -1;
  std::uint16_t port_ = 0;
  std::thread thread_;
};

/// A loopback address at which nobody listens; the port stays taken while the object lives.
class UnusedAddress {
 public:
  UnusedAddress();
  ~UnusedAddress();
  UnusedAddress(const UnusedAddress&) = delete;
  UnusedAddress& operator=(const UnusedAddress&) = delete;

  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  std::uint16_t port_ = 0;  // before fd_, whose making sets it
  int fd_ = -1;
};
