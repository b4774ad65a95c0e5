/// What a stream may cost the device, and the thread that sees to it.
///
/// gRPC bounds the size of messages and of complete header lines. It does not bound what it keeps of a header line that
/// never ends, nor how long it is busy with frames that carry nothing. So a thread looks each time the process has used
/// some processor time: at the bytes that were received, at the memory that came into use, and at that time itself.
/// While the process does nothing, the thread sleeps.
#pragma once

#include <time.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace TarvoOrvane::Internal {

/// What a stream may cost. An ordinary one stays far below; a test makes the limits smaller.
struct CostLimits {
  std::size_t memory_bytes = 12UL << 20;  ///< The heap may grow by so much while a stream is open.
  /// Processor time of the process: so much at once, and for ever this share of one processor.
  std::chrono::milliseconds cpu{3'000};
  int cpu_percent = 5;
  /// Bytes from the server: so many at once, and for ever so many a second.
  std::uint64_t received_bytes = 16UL << 20;
  std::uint64_t received_bytes_per_second = 1UL << 20;
  std::chrono::milliseconds look{10};  ///< Processor time between two looks.
};

/// One per ticket client. Its owner's thread creates it and calls it, with all signals blocked.
class CostWatch {
 public:
  /// Starts the thread. Nothing is watched before Begin().
  /// @throws std::system_error when the thread or its timer can't be had.
  explicit CostWatch(const CostLimits& limits);
  ~CostWatch();
  CostWatch(const CostWatch&) = delete;
  CostWatch& operator=(const CostWatch&) = delete;

  /// Called with what was too much, as "17 MiB from the server". It runs in this object's thread, which holds the
  /// mutex: it must not call this object.
  using TooMuch = std::function<void(const std::string& what)>;
  /// Tells how many bytes the server has sent. Called in this object's thread, at each look at a stream.
  using Received = std::function<std::uint64_t()>;

  /// Watches a stream until End(). Calls `too_much` once, in the thread of this object, with what was too much. The
  /// processor time that may be used at once is that of all streams: former ones may have used some of it.
  /// @param too_much  What it uses lives until End() has returned, or this object is destroyed.
  /// @param received  Of the stream's connection, from its beginning.
  void Begin(TooMuch too_much, Received received);

  /// Ends the watching. Once this has returned no call of `too_much` is under way, and none comes.
  void End();

 private:
  void Run();   ///< The thread.
  void Look();  ///< One look, with the mutex held.
  std::string Excess(std::chrono::steady_clock::time_point now);

  const CostLimits limits_;
  std::mutex mutex_;                                 ///< Guards what follows.
  TooMuch too_much_;                                 ///< Null while there is nothing to watch.
  bool stop_ = false;                                ///< The thread is to end.
  Received received_;                                ///< Set whenever too_much_ is.
  std::chrono::steady_clock::time_point begin_;      ///< When Begin() was called.
  std::size_t heap_before_ = 0;                      ///< Bytes in use at that time.
  std::chrono::nanoseconds cpu_used_{0};             ///< How much of CostLimits::cpu is used up.
  std::chrono::nanoseconds last_cpu_{0};             ///< The process's processor time at the last look.
  std::chrono::steady_clock::time_point last_look_;  ///< Also while nothing is watched.
  timer_t timer_{};                                  ///< Wakes the thread. Made by it, and set before Run().
  std::thread thread_;                               ///< Last: it uses all of the above.
};

}  // namespace TarvoOrvane::Internal
