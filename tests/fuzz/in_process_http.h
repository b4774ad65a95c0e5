/// An HTTP server of the support service in this process, without the net: requests come over a socket pair and are
/// worked on while the caller waits. A process has one at most. The disk's workers do their jobs at once.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace fuzz {

/// Sends the pieces one after the other, says that nothing more comes, and lets the HttpServer that was made last do its
/// work. Ends the process unless the server ends the connection.
/// @param settle  Returns once what other threads had to do for the request is done.
/// @return What the server answered.
[[nodiscard]] std::string SendToServer(const std::vector<std::string>& pieces,
                                       const std::function<void()>& settle);

}  // namespace fuzz
