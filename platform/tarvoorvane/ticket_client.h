/// The ticket client behind FastSupportClient: what the worker receives tickets with.
///
/// It ties the parts together. A NotificationStream is one attempt, a CostWatch sees what that costs, StopSignal ends
/// each wait, TicketMemory knows what was taken before. What is left for this file is the order: when a stream is
/// opened, how often a ticket is handed out, and what becomes of one that can't be handed out.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "address.h"
#include "allowance.h"
#include "cost_watch.h"
#include "notification_stream.h"
#include "platform/support_service_client.h"
#include "stop_signal.h"
#include "tarvo/support/v1/notification.pb.h"
#include "ticket_memory.h"
#include "tls_files.h"

namespace TarvoOrvane::Internal {

/// What a test may want to be different.
struct TicketClientOptions {
  std::string tls_folder = kTlsFolder;
  std::string system_roots_file = "/etc/ssl/certs/ca-certificates.crt";  ///< Trusted without a ca.pem.
  StreamLimits limits;  ///< Of each stream; keepalive grows when a server complains.
  CostLimits cost;      ///< Of each stream.
  Allowance tickets{100, std::chrono::milliseconds(200)};  ///< How often Receive() returns one.
  std::chrono::milliseconds answer_limit{10'000};          ///< For writing one answer.
  std::chrono::milliseconds settled{60'000};       ///< A stream that lived so long is reopened when it ends.
  std::chrono::milliseconds longest_pause{5'000};  ///< Before that; the pause is random.
};

/// Keeps gRPC initialised, so that its threads are not ended and started again with every stream.
/// It also takes over gRPC's log and bounds what freed memory the process keeps. One for each TicketClient.
class GrpcRuntime {
 public:
  GrpcRuntime();
  ~GrpcRuntime();
  GrpcRuntime(const GrpcRuntime&) = delete;
  GrpcRuntime& operator=(const GrpcRuntime&) = delete;
};

/// Receives tickets and answers them. Used by the worker's one thread.
///
/// A stream that ended soon is told once, as a failed Receive(); the next Receive() opens a new one. One that
/// had settled is reopened inside the same Receive(): the daemon's pauses between attempts grow until a ticket
/// comes, so a quiet device whose link drops now and then would end at the longest of them.
class TicketClient {
 public:
  /// Connects to nothing yet: the first Receive() does. An address that can't be used fails each Receive().
  /// @param address  As the service configuration gives it.
  explicit TicketClient(const std::string& address, TicketClientOptions options = {});
  /// Closes the stream; takes StreamLimits::close at most. The daemon's worker ends without it.
  ~TicketClient();
  TicketClient(const TicketClient&) = delete;
  TicketClient& operator=(const TicketClient&) = delete;

  /// Waits until there is a ticket, for as long as it takes. Tickets that are malformed, or were taken before, are
  /// answered here and not returned.
  /// @return A ticket, which the next Send() answers; or a failure, with one of ClientError or a gRPC status code,
  ///         which is kStopped when SIGTERM came. Throws nothing.
  FastSupport::ReceiveResult Receive();
  /// Answers the last ticket and waits until the answer is out, for at most TicketClientOptions::answer_limit. Once
  /// taken, a ticket is not returned again, whether or not the service hears of it.
  /// @return A failure also when there is no ticket to answer, and when SIGTERM came first.
  FastSupport::CallStatus Send(FastSupport::FastSupportClient::ClientStatus status);

  /// The time between pings; it doubles when a server complains of too many.
  [[nodiscard]] std::chrono::milliseconds keepalive() const { return options_.limits.keepalive; }

 private:
  using CallStatus = FastSupport::CallStatus;

  // Those that may wait take the caller's SignalBlock: it knows the mask to wait with.
  CallStatus ReceiveTicket(const SignalBlock& block, FastSupport::Ticket& ticket);
  CallStatus OpenStream();
  CallStatus LoadTls(TlsFiles& tls) const;
  CallStatus AwaitDelivery(const SignalBlock& block, tarvo::support::v1::Delivery& delivery);
  CallStatus CloseEndedStream();
  void CloseStream();
  CallStatus ReplaceEndedStream(const SignalBlock& block);
  bool PaceTickets(const SignalBlock& block);
  CallStatus Deliver(const SignalBlock& block, const tarvo::support::v1::Answer& answer);
  void RejectMalformed(const SignalBlock& block, const std::string& ticket_id, const std::string& fault);
  void AcceptAgain(const SignalBlock& block, const std::string& ticket_id);

  // In the order of construction: everything below runs with signals blocked and gRPC initialised.
  TicketClientOptions options_;
  StopSignal stop_;                             ///< Sees SIGTERM.
  GrpcRuntime grpc_;                            ///< Outlives the stream.
  std::optional<Address> address_;              ///< None while the configured one can't be used.
  std::string address_fault_;                   ///< Why; empty while there is one.
  std::unique_ptr<CostWatch> watch_;            ///< Null before the first attempt.
  std::unique_ptr<NotificationStream> stream_;  ///< Null between two attempts.
  unsigned former_ping_complaints_ = 0;         ///< PingComplaints() before the stream was opened.
  std::optional<std::string> unanswered_id_;    ///< The ticket that Send() answers.
  TicketMemory accepted_;                       ///< The tickets that were answered "accepted".
};

}  // namespace TarvoOrvane::Internal
