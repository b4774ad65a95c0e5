/// What a stream may cost the device, and who sees to it.
///
/// gRPC bounds what messages and header lines may take, not what it keeps of a block of header lines that never ends,
/// nor how long it is busy with frames that carry nothing. So a thread looks, each time the process has used some
/// processor time, at what was received, how much memory has come into use and how busy the process was. It runs only
/// while the process does, so it wakes up no idle device.
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

/// A test makes them smaller.
struct CostLimits {
  std::size_t memory_bytes = 12UL << 20;  ///< By which the heap may grow while a stream is open.
  /// Processor time of the process while streams are open: so much at once, and this share of the time for ever.
  std::chrono::milliseconds cpu{3'000};
  int cpu_percent = 5;
  /// From the server: so much at once, and so much in a second for ever.
  std::uint64_t received_bytes = 16UL << 20;
  std::uint64_t received_bytes_per_second = 1UL << 20;
  std::chrono::milliseconds look{10};  ///< Of processor time, between two looks.
};

/// One per ticket client. Its owner's thread creates it and calls it, with all signals blocked.
class CostWatch {
 public:
  /// @throws std::system_error when the thread or its timer can't be had.
  explicit CostWatch(const CostLimits& limits);
  ~CostWatch();
  CostWatch(const CostWatch&) = delete;
  CostWatch& operator=(const CostWatch&) = delete;

  /// Calls `too_much` once, in the thread of this object, with what was too much. What streams have used before of the
  /// processor time that may be used at once counts too.
  /// @param received  Tells how many bytes the server has sent on the stream's connection.
  using TooMuch = std::function<void(const std::string& what)>;
  using Received = std::function<std::uint64_t()>;
  void Begin(TooMuch too_much, Received received);

  /// No call comes, and none is under way, once this has returned.
  void End();

 private:
  void Run();
  void Look();
  std::string Excess(std::chrono::steady_clock::time_point now);

  const CostLimits limits_;
  std::mutex mutex_;  ///< Guards what follows.
  TooMuch too_much_;  ///< Null while there is nothing to watch.
  bool stop_ = false;
  Received received_;
  std::chrono::steady_clock::time_point begin_;
  std::size_t heap_before_ = 0;
  std::chrono::nanoseconds cpu_used_{0};  ///< Of what may be used at once.
  std::chrono::nanoseconds last_cpu_{0};
  std::chrono::steady_clock::time_point last_look_;
  timer_t timer_{};
  std::thread thread_;
};

}  // namespace TarvoOrvane::Internal
