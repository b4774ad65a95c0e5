#include "connection_control.h"

#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "scoped_fd.h"

namespace TarvoOrvane::Internal {
namespace {

/// Whether a stream socket's peer has the port, or the socket's path, of `address`.
bool LeadsTo(int fd, const Address& address) {
  int type = 0;
  socklen_t size = sizeof type;
  if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_STREAM) return false;
  sockaddr_storage peer{};
  size = sizeof peer;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0) return false;
  switch (peer.ss_family) {
    case AF_INET:
      return ntohs(reinterpret_cast<const sockaddr_in&>(peer).sin_port) == address.port;
    case AF_INET6:
      return ntohs(reinterpret_cast<const sockaddr_in6&>(peer).sin6_port) == address.port;
    case AF_UNIX:
      // A socket without a name has an empty path.
      return !address.socket_path.empty() &&
             address.socket_path == reinterpret_cast<const sockaddr_un&>(peer).sun_path;
    default:
      return false;
  }
}

void Cut(int fd) {
  // This drops what was received; a shutdown would leave it to be read. Sockets that can't do it are shut down.
  sockaddr nobody{};
  nobody.sa_family = AF_UNSPEC;
  if (connect(fd, &nobody, sizeof nobody) != 0) shutdown(fd, SHUT_RDWR);
}

template <typename Action>
void ForEachConnection(const Address& address, Action act) {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
    // A duplicate, so that what is looked at and what is acted on are one connection.
    constexpr int kDecimal = 10;
    const auto number = static_cast<int>(std::strtol(entry.path().filename().c_str(), nullptr, kDecimal));
    const ScopedFd fd(fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (fd && LeadsTo(fd.get(), address)) act(fd.get());
  }
}

}  // namespace

void CutConnections(const Address& address) { ForEachConnection(address, &Cut); }

std::uint64_t BytesReceived(const Address& address) {
  std::uint64_t sum = 0;
  ForEachConnection(address, [&sum](int fd) { sum += BytesReceivedOn(fd); });
  return sum;
}

std::uint64_t BytesReceivedOn(int socket) {
  tcp_info info{};
  socklen_t size = sizeof info;
  return getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 ? info.tcpi_bytes_received : 0;
}

}  // namespace TarvoOrvane::Internal
