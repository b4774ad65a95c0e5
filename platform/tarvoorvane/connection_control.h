/// What has to be done to connections that gRPC holds and does not let others reach.
#pragma once

#include <cstdint>

#include "address.h"

namespace TarvoOrvane::Internal {

/// Ends each connection of this process to the port, or the socket's path, of `address`: as long as bytes come fast
/// enough, gRPC goes on with them, and neither a cancelled stream nor a destroyed channel ends that. What was received
/// and not yet read is lost; whoever reads there next gets an error. The descriptors stay open. Any thread may call it.
void CutConnections(const Address& address);

/// How many bytes those connections have received; 0 where the system does not count them, as for a socket's path. Any
/// thread may call it.
[[nodiscard]] std::uint64_t BytesReceived(const Address& address);

}  // namespace TarvoOrvane::Internal
