/// Reaches the connections that gRPC holds and gives to nobody.
#pragma once

#include <cstdint>

#include "address.h"

namespace TarvoOrvane::Internal {

/// Ends each connection of this process to the port, or the socket's path, of `address`. To cancel the stream or to
/// destroy the channel is not enough: gRPC goes on reading for as long as bytes come fast enough. What was received and
/// not yet read is lost; whoever reads there next gets an error. The descriptors stay open. Any thread may call it.
void CutConnections(const Address& address);

/// How many bytes those connections have received; 0 where the system does not count them, as for a socket's path. Any
/// thread may call it.
[[nodiscard]] std::uint64_t BytesReceived(const Address& address);

/// How many bytes a TCP socket has received; 0 for what is none, closed ones too.
[[nodiscard]] std::uint64_t BytesReceivedOn(int socket);

}  // namespace TarvoOrvane::Internal
