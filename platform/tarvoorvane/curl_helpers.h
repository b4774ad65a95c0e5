/// What the curl helpers set for every transfer, where it takes parameters. All of it runs in the transmission child;
/// debug_dat_check uses it as well, to meet what the child would.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "platform/support_service_client.h"

namespace TarvoOrvane::Internal {

/// How long a peer may leave everything unconfirmed before its connection is given up: long enough for a
/// restart of a router or a change of the mobile cell, short against the half hour that a transfer may take.
inline constexpr std::chrono::seconds kDeadPeerLimit{120};

/// Bytes of answers that one string takes, of all attempts together. An answer is a short JSON text. The costliest text
/// takes the JSON parser some seventy times its size in memory.
inline constexpr std::size_t kMaxAnswerBytes = 256UL << 10;

/// Bytes and lines of one attempt's head, of its trailers and of its interim answers' heads, together.
inline constexpr std::size_t kMaxHeaderBytes = 64UL << 10;
inline constexpr std::size_t kMaxHeaderLines = 1000;

/// Bytes that a server may send in one attempt, whatever they are. The longest answer, sent in chunks of one byte
/// without TLS, is less than half of that.
inline constexpr std::size_t kMaxReceivedBytes = 4UL << 20;

/// Makes the kernel end a connection whose peer is dead: probes on an idle one (the first after half the limit),
/// and a limit on data that stays unconfirmed or, with the peer's window closed, unsent. A peer that has
/// confirmed all data and merely does not answer yet is left in peace.
/// @param limit  At least two seconds.
/// @return Whether the socket took all options; errno tells why not.
bool LimitDeadPeer(int socket, std::chrono::seconds limit);

/// Why a transfer came to nothing.
struct TransferFault {
  CURLcode code = CURLE_OK;
  std::string text;  ///< The cause on one line, fit for a log.
};

/// CurlPerform() with the TLS files of `tls_folder`, and with its failure as a value. What is wrong with those files is
/// logged, too. Runs in the transmission child and in debug_dat_check.
/// @return Nothing when the transfer succeeded.
/// @throws Utils::CurlFailedException when an option can't be set.
[[nodiscard]] std::optional<TransferFault> PerformTransfer(Utils::CurlHandle& handle,
                                                           const std::string& tls_folder);

}  // namespace TarvoOrvane::Internal
