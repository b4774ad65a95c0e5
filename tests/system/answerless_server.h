/// A notification server that delivers one ticket and lets no answer through, however long one waits.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

/// Speaks HTTP/2 itself, since no server library offers to close a stream's flow control window: after the
/// device's Hello it sets the window to nothing and then delivers the ticket, so that the device's answer is
/// never written. A thread of its own serves one connection.
class AnswerlessServer {
 public:
  /// Listens on a loopback port of the kernel's choice.
  /// @throws std::system_error when it can't.
  AnswerlessServer();
  ~AnswerlessServer();
  AnswerlessServer(const AnswerlessServer&) = delete;
  AnswerlessServer& operator=(const AnswerlessServer&) = delete;

  [[nodiscard]] std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  struct Frame;

  void Serve();
  void React(const Frame& frame);
  bool ReadFrame(Frame& frame) const;
  bool ReadExactly(std::string& out, std::size_t size) const;
  void SendFrame(std::uint8_t type, std::uint8_t flags, std::uint32_t stream,
                 const std::string& payload) const;
  void DeliverTicket(std::uint32_t stream) const;

  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<int> connection_{-1};
  bool delivered_ = false;  ///< Only the thread's.
  std::thread thread_;
};
