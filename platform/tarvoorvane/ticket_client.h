/// The ticket client behind FastSupportClient.
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
  StreamLimits limits;
  CostLimits cost;
  Allowance tickets{100, std::chrono::milliseconds(200)};  ///< How often Receive() returns one.
  std::chrono::milliseconds answer_limit{10'000};          ///< For writing one answer.
  std::chrono::milliseconds settled{60'000};       ///< A stream that lived so long is reopened when it ends.
  std::chrono::milliseconds longest_pause{5'000};  ///< Before that; the pause is random.
};

/// Keeps gRPC initialised, so that its threads are not ended and started again with every stream.
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
  explicit TicketClient(const std::string& address, TicketClientOptions options = {});
  ~TicketClient();
  TicketClient(const TicketClient&) = delete;
  TicketClient& operator=(const TicketClient&) = delete;

  FastSupport::ReceiveResult Receive();
  FastSupport::CallStatus Send(FastSupport::FastSupportClient::ClientStatus status);

  /// The time between pings; it doubles when a server complains of too many.
  [[nodiscard]] std::chrono::milliseconds keepalive() const { return options_.limits.keepalive; }

 private:
  using CallStatus = FastSupport::CallStatus;

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
  StopSignal stop_;
  GrpcRuntime grpc_;
  std::optional<Address> address_;  ///< None while the configured one can't be used.
  std::string address_fault_;
  std::unique_ptr<CostWatch> watch_;            ///< Null before the first attempt.
  std::unique_ptr<NotificationStream> stream_;  ///< Null between two attempts.
  unsigned former_ping_complaints_ = 0;         ///< PingComplaints() before the stream was opened.
  std::optional<std::string> unanswered_id_;    ///< The ticket that Send() answers.
  TicketMemory accepted_;
};

}  // namespace TarvoOrvane::Internal
