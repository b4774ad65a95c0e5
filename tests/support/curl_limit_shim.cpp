/// libcurl_limit_shim.so, for LD_PRELOAD: lets the limits of an HTTP request pass at the moment that a test chooses, in
/// a process that has loaded libcurl. Files in /run/curl_limit_shim tell of it:
///
/// - `clock`: so many seconds libcurl's clock is ahead. An attempt during which 1800 are added is out of time.
/// - `dead_peer_ms`: the next connection has as many milliseconds in the place of the library's limit for a peer that
///   takes nothing. The file goes with it, so that others have theirs.

#include <dlfcn.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "number_file.h"

namespace {

using test_support::NumberIn;

constexpr char kClock[] = "/run/curl_limit_shim/clock";
constexpr char kDeadPeer[] = "/run/curl_limit_shim/dead_peer_ms";
/// So often libcurl looks at its clock while it waits.
constexpr int kLookMs = 20;

bool has_libcurl = false;

template <typename Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void* dlopen(const char* file, int mode) {
  static auto* const real_dlopen = Real<decltype(::dlopen)>("dlopen");
  has_libcurl = has_libcurl || (file != nullptr && std::strcmp(file, "libcurl.so.4") == 0);
  return real_dlopen(file, mode);
}

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static auto* const real_clock_gettime = Real<decltype(::clock_gettime)>("clock_gettime");
  const int result = real_clock_gettime(clock, now);
  if (has_libcurl && clock == CLOCK_MONOTONIC) {
    now->tv_sec += NumberIn(kClock);
  }
  return result;
}

extern "C" __attribute__((visibility("default"))) int poll(pollfd* waits, nfds_t count, int timeout) {
  static auto* const real_poll = Real<decltype(::poll)>("poll");
  const bool is_long = has_libcurl && (timeout < 0 || timeout > kLookMs);
  return real_poll(waits, count, is_long ? kLookMs : timeout);
}

extern "C" __attribute__((visibility("default"))) int setsockopt(int fd, int level, int name,
                                                                 const void* value, socklen_t size) noexcept {
  static auto* const real_setsockopt = Real<decltype(::setsockopt)>("setsockopt");
  const bool is_the_limit =
      has_libcurl && level == IPPROTO_TCP && name == TCP_USER_TIMEOUT;  // gRPC sets it too
  const int limit = is_the_limit ? static_cast<int>(NumberIn(kDeadPeer)) : 0;
  if (limit > 0) {
    unlink(kDeadPeer);
    return real_setsockopt(fd, level, name, &limit, sizeof(limit));
  }
  return real_setsockopt(fd, level, name, value, size);
}
