/// The address of the notification server, as the service configuration gives it.
#pragma once

#include <string>

namespace TarvoOrvane::Internal {

/// A checked address. gRPC is never handed anything else: it would look up "https://h:1" as a host name
/// and take port 99999 for 34463.
struct Address {
  std::string target;  ///< gRPC's own form: dns:///HOST:PORT, ipv4:, ipv6: or unix:.
  bool tls = false;    ///< TLS; plaintext otherwise.
};

/// Reads an address: `http://HOST:PORT` (plaintext), `https://HOST[:PORT]` and `HOST:PORT` (TLS), or
/// `unix:/PATH` (plaintext). HOST is a name, an IPv4 address or an IPv6 address in brackets.
/// @param out    Set on success.
/// @param fault  Set on failure: what is wrong with the text, and which forms are accepted.
/// @return Whether the text is one of these forms.
[[nodiscard]] bool ParseAddress(const std::string& text, Address& out, std::string& fault);

}  // namespace TarvoOrvane::Internal
