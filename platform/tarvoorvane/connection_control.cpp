#include "connection_control.h"

#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "scoped_fd.h"

namespace TarvoOrvane::Internal {
namespace {

constexpr int kDecimal = 10;
int Number(const std::string& text) { return static_cast<int>(std::strtol(text.c_str(), nullptr, kDecimal)); }

/// The peer's end of a stream socket as a target names it: ":PORT" or "unix:/PATH"; empty for all else.
std::string PeerOf(int fd) {
  int type = 0;
  socklen_t size = sizeof type;
  if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_STREAM) return {};
  sockaddr_storage peer{};
  size = sizeof peer;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0) return {};
  if (peer.ss_family == AF_INET) {
    return ":" + std::to_string(ntohs(reinterpret_cast<const sockaddr_in&>(peer).sin_port));
  }
  if (peer.ss_family == AF_INET6) {
    return ":" + std::to_string(ntohs(reinterpret_cast<const sockaddr_in6&>(peer).sin6_port));
  }
  if (peer.ss_family != AF_UNIX) return {};
  return "unix:" + std::string(reinterpret_cast<const sockaddr_un&>(peer).sun_path);
}

std::string PeerOf(const Address& address) {
  if (address.target.rfind("unix:", 0) == 0) return address.target;
  return ":" + std::to_string(Number(address.target.substr(address.target.rfind(':') + 1)));
}

void Cut(int fd) {
  // This drops what was received; a shutdown would leave it to be read. Sockets that can't do it are shut down.
  sockaddr nobody{};
  nobody.sa_family = AF_UNSPEC;
  if (connect(fd, &nobody, sizeof nobody) != 0) shutdown(fd, SHUT_RDWR);
}

template <typename Action>
void ForEachConnection(const Address& address, Action act) {
  const std::string wanted = PeerOf(address);
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
    // A duplicate, so that what is looked at and what is acted on are one connection.
    const int number = Number(entry.path().filename());
    const ScopedFd fd(fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (fd && PeerOf(fd.get()) == wanted) act(fd.get());
  }
}

}  // namespace

void CutConnections(const Address& address) { ForEachConnection(address, &Cut); }

std::uint64_t BytesReceived(const Address& address) {
  std::uint64_t sum = 0;
  ForEachConnection(address, [&sum](int fd) {
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0) sum += info.tcpi_bytes_received;
  });
  return sum;
}

}  // namespace TarvoOrvane::Internal
