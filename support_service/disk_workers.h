/// Threads for what takes time, so that those that serve connections don't have to wait for it.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace TarvoOrvane::SupportService {

class DiskWorkers {
 public:
  /// Starts the threads.
  explicit DiskWorkers(int threads = kDiskThreads);
  /// Does what was posted, and ends the threads.
  ~DiskWorkers();
  DiskWorkers(const DiskWorkers&) = delete;
  DiskWorkers& operator=(const DiskWorkers&) = delete;

  /// Has a thread do the job, those that were posted before first. Any thread may call it; it does not wait.
  /// @param job  Throws nothing.
  void Post(std::function<void()> job);

  /// How many jobs no thread has begun.
  [[nodiscard]] std::size_t waiting();

  /// A disk takes several requests at a time; more of them than this only wait in another place.
  static constexpr int kDiskThreads = 4;

 private:
  void Run();

  std::mutex mutex_;  ///< Guards what follows.
  std::condition_variable changed_;
  std::deque<std::function<void()>> jobs_;
  bool ending_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace TarvoOrvane::SupportService
