/// Checks of the two servers: their addresses, names and answers. None of them has an effect on a server: no
/// device registers, no ticket is taken, nothing is sent but a request without a token.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "address.h"
#include "check.h"
#include "tls_files.h"

namespace DebugDatCheck {

/// How long the checks of a server may take.
struct ServerLimits {
  std::chrono::milliseconds answer{10'000};  ///< For a name's addresses, a connection, an HTTP answer.
  /// How long an open stream has to go unrefused. A server refuses within a round trip.
  std::chrono::milliseconds settle{2'000};
};

/// A checked address of the CSS server.
struct CssAddress {
  std::string url;   ///< As configured: the daemon appends its paths to it.
  std::string host;  ///< A name, or an IP address without brackets.
  bool tls = false;
};

/// Judges the configured address as the ticket client does, by its own parser. Asks no name server.
/// @param url  grpc_server.url of the configuration.
/// @param out  Set when the address can be used, also when there is a warning.
[[nodiscard]] Check CheckNotificationAddress(const std::string& url,
                                             std::optional<TarvoOrvane::Internal::Address>& out);

/// Judges the configured address as the transfers do, by libcurl's parser. A password in it is not shown.
/// @param url  css_server.url of the configuration.
/// @param out  Set when the address can be used, also when there is a warning.
[[nodiscard]] Check CheckCssAddress(const std::string& url, std::optional<CssAddress>& out);

/// Looks up a host's IP addresses through the system's resolver. A lookup that takes longer than ServerLimits::answer
/// is left to itself in a thread of its own; the system has no way to end it.
/// @param name  The check's.
/// @param host  A name or an IP address; empty for a unix socket.
[[nodiscard]] Check CheckHost(const std::string& name, const std::string& host, const ServerLimits& limits);

/// Opens a stream at the notification server and closes it without having said Hello, so that the server neither
/// knows the device nor delivers a ticket to it. The channel is the ticket client's own, with its limits.
/// @param tls           Used where the address asks for TLS.
/// @param system_roots  File of the authorities that are trusted when `tls` names none.
[[nodiscard]] Check CheckStream(const TarvoOrvane::Internal::Address& address,
                                const TarvoOrvane::Internal::TlsFiles& tls, const std::string& system_roots,
                                const ServerLimits& limits);

/// Sends the CSS server a GET without a token for each of the daemon's two paths. The daemon's own requests are POSTs,
/// so that these have no effect. A server that does not know one of the paths, leads elsewhere, or accepts the request
/// with something else than a JSON object is a problem: it would serve no ticket.
/// @param address     An https: address has the TLS files read, and a fault there is the answer.
/// @param tls_folder  Folder of the TLS files.
[[nodiscard]] Check CheckCssServer(const CssAddress& address, const std::string& tls_folder,
                                   const ServerLimits& limits);

}  // namespace DebugDatCheck
