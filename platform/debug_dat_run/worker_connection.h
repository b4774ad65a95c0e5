/// Whether the worker has a connection, found out without a word to the daemon.
#pragma once

#include <sys/types.h>

namespace DebugDatRun {

enum class Connection {
  kUnknown,  ///< It can't be told: the worker's sockets are not shown, and not only the daemon's belong to this user.
  kNone,
  kEstablished,  ///< A TCP connection stands. Whether the stream on it is open, only the worker knows.
};

/// Looks into /proc. Where the worker's descriptors can't be read, as the daemon is shielded and this program without
/// privileges, every connection of this user counts, unless the user is root.
[[nodiscard]] Connection LookForConnection(pid_t worker);

}  // namespace DebugDatRun
