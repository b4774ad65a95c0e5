#include "disk_workers.h"

#include <utility>

namespace TarvoOrvane::SupportService {

DiskWorkers::DiskWorkers(int threads) {
  for (int i = 0; i < threads; ++i) threads_.emplace_back([this] { Run(); });
}

DiskWorkers::~DiskWorkers() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
    changed_.notify_all();
  }
  for (std::thread& thread : threads_) thread.join();
}

void DiskWorkers::Post(std::function<void()> job) {
  const std::lock_guard<std::mutex> lock(mutex_);
  jobs_.push_back(std::move(job));
  changed_.notify_one();
}

std::size_t DiskWorkers::waiting() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return jobs_.size();
}

void DiskWorkers::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return ending_ || !jobs_.empty(); });
    if (jobs_.empty()) return;
    const std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    lock.lock();
  }
}

}  // namespace TarvoOrvane::SupportService
