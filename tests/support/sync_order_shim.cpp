/// libsync_order_shim.so, for LD_PRELOAD: notes in which order a program brings data to disk, names files and sends to
/// others. Appends a line for each such call that succeeded to the file that SYNC_ORDER_LOG names:
///
///     sync PATH        fsync() or fdatasync()
///     name FROM TO     link()
///     send BEGINNING   what a socket was given, its printable characters, at most 2000 of them

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>

namespace {

constexpr std::size_t kShownBytes = 2000;

void Note(const std::string& line) {
  const char* path = std::getenv("SYNC_ORDER_LOG");
  if (path == nullptr) return;
  const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  const std::string text = line + "\n";
  static_cast<void>(!write(fd, text.data(), text.size()));
  close(fd);
}

std::string PathOf(int fd) {
  std::array<char, 4096> path{};
  const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path.data(), path.size());
  return length < 0 ? "" : std::string(path.data(), static_cast<std::size_t>(length));
}

void NoteSend(const iovec* pieces, std::size_t count) {
  std::string shown;
  for (std::size_t i = 0; i < count; ++i) {
    const char* data = static_cast<const char*>(pieces[i].iov_base);
    for (std::size_t k = 0; k < pieces[i].iov_len && shown.size() < kShownBytes; ++k) {
      if (data[k] >= 0x20 && data[k] <= 0x7e) shown += data[k];
    }
  }
  Note("send " + shown);
}

template <typename Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

int Sync(int (*real)(int), int fd) {
  const int result = real(fd);
  if (result == 0) Note("sync " + PathOf(fd));
  return result;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int fsync(int fd) { return Sync(Real<int(int)>("fsync"), fd); }
__attribute__((visibility("default"))) int fdatasync(int fd) { return Sync(Real<int(int)>("fdatasync"), fd); }

__attribute__((visibility("default"))) int link(const char* from, const char* to) noexcept {
  const int result = Real<int(const char*, const char*)>("link")(from, to);
  if (result == 0) Note(std::string("name ") + from + " " + to);
  return result;
}

// Before the call: what the other end does about it must not stand in front of it.
__attribute__((visibility("default"))) ssize_t send(int fd, const void* data, std::size_t size, int flags) {
  const iovec piece = {const_cast<void*>(data), size};
  NoteSend(&piece, 1);
  return Real<ssize_t(int, const void*, std::size_t, int)>("send")(fd, data, size, flags);
}
__attribute__((visibility("default"))) ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  NoteSend(message->msg_iov, message->msg_iovlen);
  return Real<ssize_t(int, const msghdr*, int)>("sendmsg")(fd, message, flags);
}

}  // extern "C"
