/// Bodies that are made as their readers take them: what stands between a BodySource, which is woken from any thread,
/// and the HTTP library, which asks for bytes in a thread of its own.
#pragma once

#include <microhttpd.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "http_exchange.h"

namespace TarvoOrvane::SupportService {

class BodyStream;

/// Watches the streams that wait for their next piece: the library does not see that a suspended connection's client
/// goes. A thread of its own ends such ones.
class BodyStreams {
 public:
  BodyStreams();
  /// After End().
  ~BodyStreams();
  BodyStreams(const BodyStreams&) = delete;
  BodyStreams& operator=(const BodyStreams&) = delete;

  /// @return A response whose body the source makes; null when memory is out.
  /// @param fd  The connection's; open for as long as the library uses the response.
  MHD_Response* MakeResponse(std::shared_ptr<BodySource> source, MHD_Connection* connection, int fd);

  /// Ends all streams: none is suspended when this returns, nor later. Has to come before the library is stopped.
  void End();

 private:
  friend class BodyStream;
  /// @return false once End() was called.
  bool Add(const std::shared_ptr<BodyStream>& stream, std::uint64_t key, int fd);
  void Remove(std::uint64_t key, int fd);
  std::uint64_t NewKey();
  void Run();

  const int epoll_fd_;
  std::mutex mutex_;  ///< Guards what follows. A stream's own is locked before it.
  std::map<std::uint64_t, std::weak_ptr<BodyStream>> waiting_;
  std::uint64_t last_key_ = 0;  ///< 0 is for the descriptor that ends the thread.
  bool ending_ = false;
  const int wake_fd_;
  std::thread thread_;
};

}  // namespace TarvoOrvane::SupportService
