/// How the ticket client's calls fail: the numbers that the daemon logs.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "platform/support_service_client.h"

namespace TarvoOrvane::Internal {

/// The ticket client's own error numbers. They start above gRPC's status codes and the system's errno values,
/// which stand in the same field. Operators look them up in docs/ticket-stream.md: a number keeps its meaning.
enum class ClientError : std::int32_t {
  kBadAddress = 1001,  ///< The configured address can't be used.
  kBadTlsFiles,        ///< A TLS file can't be used.
  kStopped,            ///< SIGTERM ended the call.
  kStreamClosed,       ///< The server ended the stream without an error.
  kUndecodable,        ///< The server sent a message that is none of the protocol's.
  kNothingToAnswer,    ///< Send() without a ticket that waits for its answer.
  kAnswerNotSent,      ///< The stream ended, or took too long, before the answer was written.
  kSystem,             ///< The system refused a descriptor, a thread or memory.
  kTooCostly           ///< The stream took more bytes, memory or processor time than it may.
};

/// A failed call's status. It is all that the daemon learns: it logs both and tries again after a pause.
/// @param text  One line, printable, without anything secret.
[[nodiscard]] inline FastSupport::CallStatus Failure(ClientError error, std::string text) {
  FastSupport::CallStatus status;
  status.hasFail = true;
  status.error = static_cast<std::int32_t>(error);
  status.errorMsg = std::move(text);
  return status;
}

}  // namespace TarvoOrvane::Internal
