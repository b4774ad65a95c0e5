#include "listen_address.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace TarvoOrvane::SupportService {
namespace {

constexpr std::size_t kMaxUnixPath = sizeof(sockaddr_un::sun_path) - 1;

[[noreturn]] void Refuse(const std::string& text, const std::string& why) {
  throw std::invalid_argument("address \"" + text + "\": " + why);
}

void CheckPort(const std::string& text, const std::string& port) {
  const bool digits =
      !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos;
  if (!digits || std::stoul(port) > 65535) Refuse(text, "the port must be a number from 0 to 65535");
}

sockaddr_un UnixAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(static_cast<char*>(address.sun_path), kMaxUnixPath);
  return address;
}

ListenAddress ParseUnixAddress(const std::string& text) {
  ListenAddress address;
  address.text = text;
  address.unix_path = text.substr(std::strlen("unix:"));
  if (address.unix_path.empty() || address.unix_path.front() != '/') {
    Refuse(text, "write unix: followed by an absolute path");
  }
  if (address.unix_path.size() > kMaxUnixPath) {
    Refuse(text, "a socket's path has at most " + std::to_string(kMaxUnixPath) + " characters");
  }
  return address;
}

/// Removes the socket of a server that has not removed it.
void ReplaceLeftover(const ListenAddress& address) {
  struct stat status {};
  if (lstat(address.unix_path.c_str(), &status) == -1) return;  // what else is wrong, binding will tell
  CheckFree(address);
  if (!S_ISSOCK(status.st_mode)) {
    throw std::runtime_error("cannot listen on " + address.text +
                             ": a file that is no socket is there; remove it");
  }
  unlink(address.unix_path.c_str());
}

}  // namespace

ListenAddress ParseListenAddress(const std::string& text, bool unix_allowed) {
  if (unix_allowed && text.rfind("unix:", 0) == 0) return ParseUnixAddress(text);
  const std::size_t colon = text.rfind(':');  // the last one: an IPv6 address has more
  if (colon == std::string::npos || colon == 0) Refuse(text, "write HOST:PORT, for example 127.0.0.1:0");
  std::string host = text.substr(0, colon);
  const std::string port = text.substr(colon + 1);
  CheckPort(text, port);
  if (host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string::npos) {
    Refuse(text, "write an IPv6 address in brackets, for example [::1]:0");
  }

  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
  if (error != 0) Refuse(text, std::string("cannot resolve the host: ") + gai_strerror(error));
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, freeaddrinfo);
  ListenAddress address;
  address.text = text;
  std::memcpy(&address.socket_address, found->ai_addr, found->ai_addrlen);
  address.socket_address_size = found->ai_addrlen;
  return address;
}

bool IsLocal(const ListenAddress& address) {
  if (!address.unix_path.empty()) return true;
  if (address.socket_address.ss_family == AF_INET6) {
    return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6*>(&address.socket_address)->sin6_addr) !=
           0;
  }
  constexpr std::uint32_t kLoopbackNet = 127;
  const auto& v4 = reinterpret_cast<const sockaddr_in&>(address.socket_address);
  return ntohl(v4.sin_addr.s_addr) >> 24 == kLoopbackNet;
}

int OpenListener(const ListenAddress& address) {
  const bool is_unix = !address.unix_path.empty();
  if (is_unix) ReplaceLeftover(address);
  const sockaddr_un unix_address = UnixAddress(address.unix_path);
  const auto* socket_address = is_unix ? reinterpret_cast<const sockaddr*>(&unix_address)
                                       : reinterpret_cast<const sockaddr*>(&address.socket_address);
  const socklen_t size = is_unix ? sizeof(unix_address) : address.socket_address_size;
  const int fd = socket(socket_address->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  // SO_REUSEADDR: connections of a service that has just ended would keep the port for a minute. Nobody can connect to
  // a unix socket before it listens, so nobody does with more rights than it ends up with.
  const int on = 1;
  if (fd == -1 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == -1 ||
      bind(fd, socket_address, size) == -1 || (is_unix && chmod(address.unix_path.c_str(), 0600) == -1) ||
      listen(fd, SOMAXCONN) == -1) {
    const std::string why = std::generic_category().message(errno);
    if (fd != -1) close(fd);
    throw std::runtime_error(
        "cannot listen on " + address.text + ": " + why +
        (is_unix ? "; choose another path" : "; choose another port, or 0 for a free one"));
  }
  return fd;
}

void CheckFree(const ListenAddress& address) {
  // Somebody may take the port between this and the server's own start; that then fails, only with fewer words.
  if (address.unix_path.empty()) {
    close(OpenListener(address));
  } else if (IsUnixSocketServed(address.unix_path)) {
    throw std::runtime_error("cannot listen on " + address.text + ": another program serves it");
  }
}

std::string SocketAddressText(const sockaddr* address, socklen_t size) {
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> port{};
  if (getnameinfo(address, size, host.data(), host.size(), port.data(), port.size(),
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return "unknown address";
  }
  const std::string brackets = address->sa_family == AF_INET6 ? "[" : "";
  return brackets + host.data() + (brackets.empty() ? ":" : "]:") + port.data();
}

std::string UnixTarget(const std::string& path) {
  if (path.size() > kMaxUnixPath) {
    throw std::invalid_argument("the socket's path " + path + " is too long: at most " +
                                std::to_string(kMaxUnixPath) + " characters, choose a shorter folder");
  }
  std::string target = "unix:";
  for (const char character : path) {
    const auto byte = static_cast<unsigned char>(character);
    if (std::isalnum(byte) != 0 || std::strchr("/-._~", character) != nullptr) {
      target += character;
    } else {
      std::array<char, 4> escaped{};
      static_cast<void>(std::snprintf(escaped.data(), escaped.size(), "%%%02X", byte));
      target += escaped.data();
    }
  }
  return target;
}

bool IsUnixSocketServed(const std::string& path) {
  const sockaddr_un address = UnixAddress(path);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd == -1) return false;
  const bool served = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return served;
}

}  // namespace TarvoOrvane::SupportService
