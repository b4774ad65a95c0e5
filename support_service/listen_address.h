/// Addresses the service listens on, checked before any library sees them.
#pragma once

#include <sys/socket.h>

#include <string>

namespace TarvoOrvane::SupportService {

/// An address as the options name it, resolved.
struct ListenAddress {
  std::string text;                   ///< As given.
  std::string unix_path;              ///< Set for unix:/path; the rest then stays empty.
  sockaddr_storage socket_address{};  ///< An IPv4 or IPv6 address with its port.
  socklen_t socket_address_size = 0;  ///< How much of it counts, in bytes.
};

/// Resolves HOST:PORT, [IPV6]:PORT or, where allowed, unix:/path. Port 0 lets the kernel choose. A name is looked up by
/// the system's resolver, which may take its time; of several addresses the first one counts.
/// @throws std::invalid_argument with what is wrong with the text, and how to write it.
ListenAddress ParseListenAddress(const std::string& text, bool unix_allowed);

/// Whether only processes of this machine can connect: a unix socket, or a loopback address.
bool IsLocal(const ListenAddress& address);

/// Listens. A unix socket's file is for the service's own user (0600), and replaces one that nobody serves.
/// @return A non-blocking socket; the caller closes it, and removes a unix socket's file.
/// @throws std::runtime_error when the address is in use or can't be bound.
int OpenListener(const ListenAddress& address);

/// Makes sure that nobody serves the address: gRPC does not tell why it could not listen, and would
/// take a unix socket away from its server.
/// @throws std::runtime_error when the address is in use or can't be bound.
void CheckFree(const ListenAddress& address);

/// @return ADDRESS:PORT, an IPv6 address in brackets; "unknown address" for what is neither.
std::string SocketAddressText(const sockaddr* address, socklen_t size);

/// @return The gRPC address of a unix socket; characters that have a meaning in an address are escaped.
/// @throws std::invalid_argument when the path is longer than a socket's name can be.
std::string UnixTarget(const std::string& path);

/// Whether a server accepts connections on this unix socket. Asks by connecting, which the server sees.
bool IsUnixSocketServed(const std::string& path);

}  // namespace TarvoOrvane::SupportService
