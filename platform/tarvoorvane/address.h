/// The address of the notification server, as the service configuration gives it.
#pragma once

#include <cstdint>
#include <string>

namespace TarvoOrvane::Internal {

/// A checked address. gRPC is never handed anything else: it would look up "https://h:1" as a host name
/// and take port 99999 for 34463.
struct Address {
  std::string host;         ///< A name, or an IP address without brackets; empty for a unix socket.
  std::uint16_t port = 0;   ///< From 1; 0 for a unix socket.
  std::string socket_path;  ///< The unix socket's absolute path; empty for a host.
  bool tls = false;         ///< TLS; plaintext otherwise.
  std::string target;       ///< For gRPC alone, in its own form: dns:///HOST:PORT, ipv4:, ipv6: or unix:.
};

/// Reads an address: `http://HOST:PORT` (plaintext), `https://HOST[:PORT]` and `HOST:PORT` (TLS), or
/// `unix:/PATH` (plaintext). HOST is a name, an IPv4 address or an IPv6 address in brackets.
/// Any process and any thread may call it; it looks up nothing and logs nothing.
/// @param out    Set on success only.
/// @param fault  Set on failure: what is wrong with the text, and which forms are accepted.
/// @return Whether the text is one of these forms.
[[nodiscard]] bool ParseAddress(const std::string& text, Address& out, std::string& fault);

}  // namespace TarvoOrvane::Internal
