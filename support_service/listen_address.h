/// Addresses the service listens on, checked before any library sees them.
#pragma once

#include <sys/socket.h>

#include <string>

namespace TarvoOrvane::SupportService {

/// An address as the options name it, resolved.
struct ListenAddress {
  std::string text;       ///< As given.
  std::string unix_path;  ///< Set for unix:/path; the rest then stays empty.
  sockaddr_storage socket_address{};
  socklen_t socket_address_size = 0;
};

/// Resolves HOST:PORT, [IPV6]:PORT or, where allowed, unix:/path. Port 0 lets the kernel choose.
/// @throw std::invalid_argument  what was wrong with the text.
ListenAddress ParseListenAddress(const std::string& text, bool unix_allowed);

/// @return a listening, non-blocking TCP socket on the address; the caller closes it.
/// @throw std::runtime_error  the address is in use or can't be bound.
int OpenListener(const ListenAddress& address);

/// Makes sure that nobody serves the address: gRPC does not tell why it could not listen, and would
/// take a unix socket away from its server.
/// @throw std::runtime_error  the address is in use or can't be bound.
void CheckFree(const ListenAddress& address);

/// @return ADDRESS:PORT, an IPv6 address in brackets.
std::string SocketAddressText(const sockaddr* address, socklen_t size);

/// @return the gRPC address of a unix socket; characters that have a meaning in an address are escaped.
/// @throw std::invalid_argument  the path is longer than a socket's name can be.
std::string UnixTarget(const std::string& path);

/// @return whether a server accepts connections on this unix socket.
bool IsUnixSocketServed(const std::string& path);

}  // namespace TarvoOrvane::SupportService
