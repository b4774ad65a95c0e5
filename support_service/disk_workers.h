/// Threads that wait for the disk, so that those that serve connections don't have to.
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
  DiskWorkers();
  /// Does what was posted, and ends the threads.
  ~DiskWorkers();
  DiskWorkers(const DiskWorkers&) = delete;
  DiskWorkers& operator=(const DiskWorkers&) = delete;

  /// Has a thread do the job, those that were posted before first. Any thread may call it; it does not wait.
  /// @param job  Throws nothing.
  void Post(std::function<void()> job);

 private:
  void Run();

  std::mutex mutex_;  ///< Guards what follows.
  std::condition_variable changed_;
  std::deque<std::function<void()>> jobs_;
  bool ending_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace TarvoOrvane::SupportService
