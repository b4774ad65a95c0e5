#include "head_watch.h"

#include <sys/socket.h>

namespace TarvoOrvane::SupportService {

HeadWatch::HeadWatch(std::chrono::milliseconds limit) : limit_(limit), thread_([this] { Run(); }) {}

HeadWatch::~HeadWatch() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
    changed_.notify_one();
  }
  thread_.join();
}

void HeadWatch::Begin(MHD_Connection* connection, int fd) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Forget(connection);
  const Deadline deadline = std::chrono::steady_clock::now() + limit_;
  awaited_[connection] = {deadline, fd};
  deadlines_.emplace(deadline, connection);
  if (deadlines_.size() == 1) changed_.notify_one();
}

void HeadWatch::End(MHD_Connection* connection) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Forget(connection);
}

/// Under the mutex.
void HeadWatch::Forget(MHD_Connection* connection) {
  const auto found = awaited_.find(connection);
  if (found == awaited_.end()) return;
  deadlines_.erase({found->second.deadline, connection});
  awaited_.erase(found);
}

void HeadWatch::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!ending_) {
    if (deadlines_.empty()) {
      changed_.wait(lock);
      continue;
    }
    const auto [deadline, connection] = *deadlines_.begin();
    if (std::chrono::steady_clock::now() < deadline) {
      changed_.wait_until(lock, deadline);
      continue;
    }
    // The library reads the end then, and closes the connection itself.
    shutdown(awaited_.at(connection).fd, SHUT_RDWR);
    awaited_.erase(connection);
    deadlines_.erase(deadlines_.begin());
  }
}

}  // namespace TarvoOrvane::SupportService
