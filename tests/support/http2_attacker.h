/// A notification server that attacks whoever connects: plain sockets, no HTTP/2 library.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>

#include "http2_attacks.h"
#include "scoped_fd.h"
#include "test_certificate.h"

namespace hostile {

class Http2Attacker {
 public:
  /// @param certificate  TLS with this one; plaintext without.
  explicit Http2Attacker(Http2Attack attack,
                         std::optional<TarvoOrvane::Testing::TestCertificate> certificate = {});
  ~Http2Attacker();
  Http2Attacker(const Http2Attacker&) = delete;
  Http2Attacker& operator=(const Http2Attacker&) = delete;

  [[nodiscard]] std::string url() const;
  /// How often somebody has connected, and how often such a connection was over.
  [[nodiscard]] int connections() const { return connections_; }
  [[nodiscard]] int ends() const { return ends_; }
  /// Bytes of the attack that connections have taken.
  [[nodiscard]] std::uint64_t sent() const { return sent_; }

 private:
  void Run();
  void Attack(int fd);

  const Http2Attack attack_;
  const std::optional<TarvoOrvane::Testing::TestCertificate> certificate_;
  int port_ = 0;
  TarvoOrvane::Internal::ScopedFd listener_;
  std::atomic<bool> stop_{false};
  std::atomic<int> connections_{0};
  std::atomic<int> ends_{0};
  std::atomic<std::uint64_t> sent_{0};
  std::thread thread_;
};

}  // namespace hostile
