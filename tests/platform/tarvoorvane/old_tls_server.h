/// A TLS server that speaks nothing newer than TLS 1.1 and notes what its client offers.
#pragma once

#include <atomic>
#include <future>
#include <vector>

#include "loopback_server.h"
#include "test_certificate.h"

namespace TarvoOrvane::Testing {

class OldTlsServer {
 public:
  /// Serves connections one after the other, as far as the handshake.
  explicit OldTlsServer(TestCertificate certificate);

  [[nodiscard]] int port() const { return server_.port(); }

  /// The versions that the first client named in its greeting, as TLS numbers them: 0x0303 is TLS 1.2. Empty when
  /// none greets in time.
  std::vector<int> AwaitOfferedVersions();

  [[nodiscard]] bool shook_hands() const { return shook_hands_; }

 private:
  void Serve(int fd);

  const TestCertificate certificate_;
  std::promise<std::vector<int>> offered_;
  std::atomic<bool> has_offer_{false};
  std::atomic<bool> shook_hands_{false};
  LoopbackServer server_;
};

}  // namespace TarvoOrvane::Testing
