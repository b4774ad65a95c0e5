/// A TLS server that speaks nothing newer than TLS 1.1 and notes what its client offers.
#pragma once

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "scoped_fd.h"
#include "test_certificate.h"

namespace TarvoOrvane::Testing {

class OldTlsServer {
 public:
  /// Serves connections one after the other, as far as the handshake.
  explicit OldTlsServer(TestCertificate certificate);
  ~OldTlsServer();
  OldTlsServer(const OldTlsServer&) = delete;
  OldTlsServer& operator=(const OldTlsServer&) = delete;

  [[nodiscard]] int port() const { return port_; }

  /// The versions that the first client named in its greeting, as TLS numbers them: 0x0303 is TLS 1.2. Empty when
  /// none greets in time.
  std::vector<int> AwaitOfferedVersions();

  [[nodiscard]] bool shook_hands() const { return shook_hands_; }

 private:
  void Run();
  void Serve(int fd);

  const TestCertificate certificate_;
  int port_ = 0;
  Internal::ScopedFd listener_;
  std::promise<std::vector<int>> offered_;
  std::atomic<bool> has_offer_{false};
  std::atomic<bool> shook_hands_{false};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace TarvoOrvane::Testing
