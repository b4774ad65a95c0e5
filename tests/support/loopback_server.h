/// What the tests' own TCP servers stand on: a port, and a thread that serves it.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "loopback_socket.h"

/// Serves the connections to a loopback port of the kernel's choice, one after the other, in a thread of its own. A
/// server that holds one declares it as its last member: the thread uses the others until it has ended.
class LoopbackServer {
 public:
  /// @param serve  Runs in the thread for each connection, which is closed behind it. Returns soon once is_stopping().
  explicit LoopbackServer(std::function<void(int)> serve)
      : serve_(std::move(serve)), listener_(ListenOnLoopback(port_)), thread_([this] { Run(); }) {}
  ~LoopbackServer() {
    stop_ = true;
    thread_.join();
    close(listener_);
  }
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  [[nodiscard]] int port() const { return port_; }
  [[nodiscard]] int listener() const { return listener_; }
  [[nodiscard]] std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  /// Whether the object is being destroyed, which waits for the thread.
  [[nodiscard]] bool is_stopping() const { return stop_; }

 private:
  static constexpr int kLookMs = 10;

  void Run() {
    while (!stop_) {
      if (!WaitFor(listener_, POLLIN, kLookMs)) continue;
      const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection < 0) continue;
      serve_(connection);
      close(connection);
    }
  }

  const std::function<void(int)> serve_;
  int port_ = 0;  ///< Before the listener, whose initialisation sets it.
  const int listener_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};
