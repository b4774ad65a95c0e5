/// Ends HTTP connections on which a request's head, or all of a refused request, takes too long. The library ends those
/// on which nothing moves; one that sends a byte from time to time would keep its place for ever.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

struct MHD_Connection;

namespace TarvoOrvane::SupportService {

/// The library's threads call it; a thread of its own ends connections.
class HeadWatch {
 public:
  /// @param limit  From Begin() on.
  explicit HeadWatch(std::chrono::milliseconds limit);
  /// Watches nothing any more.
  ~HeadWatch();
  HeadWatch(const HeadWatch&) = delete;
  HeadWatch& operator=(const HeadWatch&) = delete;

  /// A head is awaited on this connection.
  /// @param fd  The connection's; open until End().
  void Begin(MHD_Connection* connection, int fd);
  /// The head has come, or the connection is about to be closed.
  void End(MHD_Connection* connection);

 private:
  using Deadline = std::chrono::steady_clock::time_point;
  struct Awaited {
    Deadline deadline;
    int fd = -1;
  };

  void Forget(MHD_Connection* connection);
  void Run();

  const std::chrono::milliseconds limit_;
  std::mutex
      mutex_;  ///< Guards what follows; held while a connection is ended, so that its descriptor stays its own.
  std::condition_variable changed_;
  std::map<MHD_Connection*, Awaited> awaited_;
  std::set<std::pair<Deadline, MHD_Connection*>> deadlines_;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace TarvoOrvane::SupportService
