/// An HTTP server on a loopback port of the kernel's choice, for one request of a check.
#pragma once

#include <string>
#include <thread>

namespace DebugDatPlatformTest {

/// Takes one request and answers it, in a thread of its own.
class AnsweringServer {
 public:
  /// @param answer  All that is sent, head and body, once the request is there. Then the connection is closed.
  explicit AnsweringServer(std::string answer);
  ~AnsweringServer();
  AnsweringServer(const AnsweringServer&) = delete;
  AnsweringServer& operator=(const AnsweringServer&) = delete;

  [[nodiscard]] std::string Url() const;

  /// Waits until it has answered. Only after a transfer that has succeeded.
  /// @return the request, head and body.
  [[nodiscard]] std::string Request();

 private:
  void Serve();

  std::string answer_;
  std::string request_;  ///< The thread's, until it has ended.
  int listener_;
  std::thread thread_;
};

/// A loopback address at which nobody listens, and nobody else can while the object lives.
class ClosedPort {
 public:
  ClosedPort();
  ~ClosedPort();
  ClosedPort(const ClosedPort&) = delete;
  ClosedPort& operator=(const ClosedPort&) = delete;

  /// "127.0.0.1:PORT".
  [[nodiscard]] std::string Address() const;

 private:
  int fd_;
};

}  // namespace DebugDatPlatformTest
