/// How SIGTERM ends a wait of the ticket client, whenever it comes.
///
/// During a wait, SIGTERM stays blocked and pending and is seen through a signalfd that is never read: the
/// caller's own handler runs when its mask is restored on return. What the library can't see is a SIGTERM
/// that lands in the caller's code just before a call, or just before the caller sleeps. So the first SIGTERM
/// arms a timer that gives it to the process again, shortly after and then regularly.
#pragma once

#include <chrono>
#include <csignal>
#include <optional>

#include "scoped_fd.h"

namespace TarvoOrvane::Internal {

/// Blocks every signal but the synchronous ones in the calling thread while it lives. Threads inherit the
/// mask of the thread that creates them: without this, gRPC's would run the caller's signal handlers.
class SignalBlock {
 public:
  /// Remembers the thread's mask, and blocks.
  SignalBlock();
  /// Gives the thread its mask back; signals that waited meanwhile run their handlers before this returns.
  ~SignalBlock();
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;

  /// The mask for a wait: what the caller blocks, and SIGTERM.
  [[nodiscard]] sigset_t WaitMask() const;

 private:
  sigset_t callers_{};  ///< The thread's mask before.
};

/// Watches for SIGTERM. While any object lives, the process's SIGTERM handler is wrapped (not where SIGTERM
/// has its default effect or is ignored): the wrapper arms the timer and calls the handler.
/// All of it runs in the worker's one thread, inside a SignalBlock.
class StopSignal {
 public:
  using Deadline = std::optional<std::chrono::steady_clock::time_point>;  ///< None: no limit.
  enum class Wake {
    kEvent,   ///< The descriptor is readable.
    kStop,    ///< SIGTERM is pending.
    kTimeout  ///< The deadline has come.
  };

  /// The first object makes the timer and wraps the handler. Without a timer it logs that and works as well as it can.
  StopSignal();
  /// The last object takes both back, unless somebody else has set another handler since.
  ~StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  /// Whether SIGTERM is pending and not ignored. If it is, the timer is armed.
  [[nodiscard]] bool IsPending() const;

  /// Sleeps until `event_fd` is readable, SIGTERM is pending or `deadline` has come. Other signals run their
  /// handlers meanwhile and end nothing.
  /// @param event_fd  A negative one is never readable.
  /// @param block     The calling thread's.
  /// @throws std::system_error when the wait is impossible.
  [[nodiscard]] Wake Wait(int event_fd, const SignalBlock& block, const Deadline& deadline);

 private:
  int WatchedSignalFd();  ///< -1 while SIGTERM is ignored.

  ScopedFd signal_fd_;  ///< Made when it is first needed, and never read.
};

}  // namespace TarvoOrvane::Internal
