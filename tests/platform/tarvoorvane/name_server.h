/// A DNS server that knows one address, or keeps silent.
#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "scoped_fd.h"

namespace TarvoOrvane::Testing {

class NameServer {
 public:
  /// @param address  The IPv4 address that every name has; empty: no question is answered.
  explicit NameServer(const std::string& address);
  ~NameServer();
  NameServer(const NameServer&) = delete;
  NameServer& operator=(const NameServer&) = delete;

  [[nodiscard]] int port() const { return port_; }

  /// The network moves: every name has this address from now on.
  void SetAddress(const std::string& address);

  /// How many questions have come.
  [[nodiscard]] int questions() const { return questions_; }

 private:
  void Run();
  void AnswerOne();

  int port_ = 0;
  Internal::ScopedFd socket_;
  std::atomic<uint32_t> address_{0};  ///< In network byte order; 0: silent.
  std::atomic<int> questions_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace TarvoOrvane::Testing
