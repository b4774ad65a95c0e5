/// A TCP link between a client and a server of the test that can die as a cable does: without a word.
#pragma once

#include <atomic>
#include <thread>

#include "scoped_fd.h"

namespace TarvoOrvane::Testing {

class TcpRelay {
 public:
  /// Listens on a port of its own and passes one connection on to 127.0.0.1:`server_port`.
  explicit TcpRelay(int server_port);
  ~TcpRelay();
  TcpRelay(const TcpRelay&) = delete;
  TcpRelay& operator=(const TcpRelay&) = delete;

  [[nodiscard]] int port() const { return port_; }

  /// How often something was passed on to the server.
  [[nodiscard]] int passed() const { return passed_; }

  /// From now on nothing is passed on, in neither direction; both connections stay open.
  void Freeze() { frozen_ = true; }

 private:
  void Run(int server_port);
  [[nodiscard]] bool Pass(int from, int to) const;

  int port_ = 0;
  Internal::ScopedFd listener_;
  std::atomic<int> passed_{0};
  std::atomic<bool> frozen_{false};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace TarvoOrvane::Testing
