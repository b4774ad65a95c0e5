/// How a collection is handed over to a collector that is a service of its own, so that the process that has the
/// network needs no rights, and the one that has the rights no network.
///
/// "collect" connects to the Unix socket Paths::socket. The device's service manager listens there and starts
/// `debug_dat_collect --connection` for each connection, with that as its standard input. Each side sends one message
/// and then closes its direction:
/// - The request is the list of applications: a JSON array of strings, of at most kAppListBytes, and nothing else.
/// - The answer is {"task_id": "..."}, with the descriptor of the task's owner lock beside its first byte (SCM_RIGHTS),
///   or {"error": "..."}, a text for people.
/// Then the connection ends. The task goes on in the collector's process, and its folder tells all the rest.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "unique_fd.h"

namespace TARVO::SupportForm {

/// One direction of a connection.
struct Message {
  std::string text;
  UniqueFd attached;  ///< Invalid where none came along.
};

/// Sends a message and closes this direction.
/// @param attached_fd  A descriptor to send along, borrowed; -1 for none. The text is not empty then.
/// @param deadline_ms  Of MonotonicMs().
/// @return false, with errno set, on failure: EPIPE where the other side is gone, ETIMEDOUT at the deadline.
[[nodiscard]] bool SendMessage(int socket_fd, std::string_view text, int attached_fd,
                               std::int64_t deadline_ms);

/// Reads a message to its end.
/// @param limit        Bytes of the text.
/// @param deadline_ms  Of MonotonicMs().
/// @return false, with errno set, on failure: EMSGSIZE for a longer one, ETIMEDOUT at the deadline.
[[nodiscard]] bool ReceiveMessage(int socket_fd, std::size_t limit, std::int64_t deadline_ms,
                                  Message& message);

}  // namespace TARVO::SupportForm
