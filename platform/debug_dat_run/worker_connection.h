/// Whether the worker has a connection, found out without a word to the daemon.
#pragma once

#include <sys/types.h>

namespace DebugDatRun {

enum class Connection {
  kUnknown,  ///< It can't be told: the worker's sockets are not shown, and not only the daemon's belong to this user.
  kNone,  ///< No TCP connection stands, and none of a unix socket is shown.
  kUnixSocket,  ///< No TCP connection, but one of a unix stream socket. It is the notification server's only where that
  ///< server's address is a unix socket, which is not known here. It may be a name service's or a log's.
  kEstablished,  ///< A TCP connection stands. Whether the stream on it is open, only the worker knows.
};

/// Looks into /proc, at the worker's network. Where the worker's descriptors can't be read, as the daemon is shielded
/// and this program without privileges, every TCP connection of this user counts, unless the user is root; whose a unix
/// socket is can't be told then.
[[nodiscard]] Connection LookForConnection(pid_t worker);

}  // namespace DebugDatRun
