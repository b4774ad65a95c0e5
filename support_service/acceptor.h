/// Accepts connections on a listening socket. The HTTP library's own accepting would not do: where no descriptor is
/// left it asks again without a pause, or, in a thread that has connections, never until one of them ends.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <thread>

#include "event_log.h"

namespace TarvoOrvane::SupportService {

/// A thread of its own accepts.
class Acceptor {
 public:
  /// Takes a connection's non-blocking socket and its peer's address. Runs in the acceptor's thread.
  /// @return false when it was closed already.
  using Sink = std::function<bool(int fd, const sockaddr* address, socklen_t address_size)>;

  /// @param listener  Non-blocking; from now on the acceptor's.
  /// @param most      So many connections at a time; others wait.
  /// @param events    Told once when connections can't be accepted, until they can again.
  Acceptor(int listener, unsigned int most, LimitedEvents events);
  /// As Stop().
  ~Acceptor();
  Acceptor(const Acceptor&) = delete;
  Acceptor& operator=(const Acceptor&) = delete;

  /// Begins to accept.
  /// @param name  The listener's, for event lines.
  void Start(Sink sink, std::string name);
  /// Accepts no more, and closes the listener.
  void Stop();
  /// A connection that the sink has taken has ended. Any thread may call it.
  void NoteEnd();

  /// How long it waits once a connection could not be accepted.
  static constexpr int kPauseMs = 100;

 private:
  void Run();
  void AcceptOne();
  void Wake() const;

  int listener_;
  const int wake_fd_;  ///< Readable when the thread is to look around.
  const int most_;
  const LimitedEvents events_;
  Sink sink_;
  std::string name_;
  std::atomic<int> open_{0};  ///< Connections that the sink has taken.
  std::atomic<bool> ending_{false};
  bool fails_ = false;  ///< The last connection could not be accepted.
  std::thread thread_;
};

}  // namespace TarvoOrvane::SupportService
