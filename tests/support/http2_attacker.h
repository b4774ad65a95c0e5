/// A notification server that attacks whoever connects: plain sockets, no HTTP/2 library.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "http2_attacks.h"
#include "loopback_server.h"
#include "test_certificate.h"

namespace hostile {

class Http2Attacker {
 public:
  /// @param certificate  TLS with this one; plaintext without.
  explicit Http2Attacker(Http2Attack attack,
                         std::optional<TarvoOrvane::Testing::TestCertificate> certificate = {});

  [[nodiscard]] std::string url() const;
  /// How often somebody has connected, and how often such a connection was over.
  [[nodiscard]] int connections() const { return connections_; }
  [[nodiscard]] int ends() const { return ends_; }
  /// Bytes of the attack that connections have taken.
  [[nodiscard]] std::uint64_t sent() const { return sent_; }

 private:
  void Serve(int fd);
  void Attack(int fd);

  const Http2Attack attack_;
  const std::optional<TarvoOrvane::Testing::TestCertificate> certificate_;
  std::atomic<int> connections_{0};
  std::atomic<int> ends_{0};
  std::atomic<std::uint64_t> sent_{0};
  LoopbackServer server_;
};

}  // namespace hostile
