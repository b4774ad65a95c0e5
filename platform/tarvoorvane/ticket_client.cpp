#include "ticket_client.h"

#include <grpc/grpc.h>
#include <malloc.h>
#include <syslog.h>

#include <algorithm>
#include <exception>
#include <random>
#include <utility>

#include "client_errors.h"
#include "connection_control.h"
#include "library_log.h"
#include "ticket_parser.h"

namespace TarvoOrvane::Internal {
namespace {

using FastSupport::CallStatus;
using FastSupport::ReceiveResult;
using FastSupport::Ticket;
using ServiceClient = FastSupport::FastSupportClient;
using tarvo::support::v1::Answer;
using tarvo::support::v1::Delivery;
using Taken = NotificationStream::Taken;
using Wake = StopSignal::Wake;
using WriteState = NotificationStream::WriteState;

constexpr std::chrono::milliseconds kLongestKeepalive = std::chrono::hours(1);
/// Of a ticket's id in a log line; the service may choose a longer one.
constexpr std::size_t kMaxShownId = 64;
/// Larger blocks are mapped, and so unmapped when they are freed.
constexpr int kLargestKeptBlock = 32 * 1024;

CallStatus Stopped() { return Failure(ClientError::kStopped, "SIGTERM ended the wait"); }

std::chrono::milliseconds RandomPause(std::chrono::milliseconds longest) {
  std::random_device source;
  return std::chrono::milliseconds(
      std::uniform_int_distribution<std::chrono::milliseconds::rep>(0, longest.count())(source));
}

Answer MakeAnswer(const std::string& ticket_id, ServiceClient::ClientStatus status) {
  Answer answer;
  answer.set_ticket_id(ticket_id);
  answer.set_status(status == ServiceClient::kAccepted ? tarvo::support::v1::CLIENT_STATUS_ACCEPTED
                                                       : tarvo::support::v1::CLIENT_STATUS_REJECTED);
  return answer;
}

}  // namespace

GrpcRuntime::GrpcRuntime() {
  // The buffers into which gRPC receives go back to the system as soon as they are freed.
  mallopt(M_MMAP_THRESHOLD, kLargestKeptBlock);
  TakeOverForeignLogs();
  const SignalBlock block;
  grpc_init();
}

GrpcRuntime::~GrpcRuntime() {
  const SignalBlock block;
  grpc_shutdown_blocking();
}

TicketClient::TicketClient(const std::string& address, TicketClientOptions options)
    : options_(std::move(options)) {
  Address checked;
  if (ParseAddress(address, checked, address_fault_)) address_ = checked;
}

TicketClient::~TicketClient() {
  const SignalBlock block;
  CloseStream();
}

ReceiveResult TicketClient::Receive() {
  const SignalBlock block;
  unanswered_id_.reset();
  ReceiveResult result;
  try {
    Ticket ticket;
    result.status = ReceiveTicket(block, ticket);
    if (!result.status.hasFail) result.request = std::move(ticket);
  } catch (const std::exception& error) {
    result.status = Failure(ClientError::kSystem, MakePrintable(error.what(), 200));
  }
  return result;
}

CallStatus TicketClient::ReceiveTicket(const SignalBlock& block, Ticket& ticket) {
  // First: a worker that is told to stop while each attempt fails would go on trying.
  if (stop_.IsPending()) return Stopped();
  if (!address_) return Failure(ClientError::kBadAddress, address_fault_);
  if (!stream_) {
    if (auto status = OpenStream(); status.hasFail) return status;
  }
  for (;;) {
    Delivery delivery;
    if (auto status = AwaitDelivery(block, delivery); status.hasFail) return status;
    if (accepted_.Contains(delivery.ticket_id())) {
      AcceptAgain(block, delivery.ticket_id());
    } else if (const auto fault = ParseTicket(delivery.ticket_json(), ticket); !fault.empty()) {
      RejectMalformed(block, delivery.ticket_id(), fault);
    } else {
      if (!PaceTickets(block)) return Stopped();
      unanswered_id_ = delivery.ticket_id();
      return {};
    }
    // Why an answer failed, SIGTERM or the stream's end, the next wait tells.
  }
}

/// Waits until one more ticket may be handed over. The daemon logs several lines for each, so they come no faster than
/// a device can ever need them.
/// @return false when SIGTERM came meanwhile.
bool TicketClient::PaceTickets(const SignalBlock& block) {
  constexpr int kNoEvent = -1;
  while (!options_.tickets.Take()) {
    if (stop_.Wait(kNoEvent, block, options_.tickets.Next()) == Wake::kStop) return false;
  }
  return true;
}

CallStatus TicketClient::OpenStream() {
  TlsFiles tls;
  if (address_->tls) {
    if (auto status = LoadTls(tls); status.hasFail) return status;
  }
  const auto serial = Utils::GetSerialNumber();
  former_ping_complaints_ = PingComplaints();
  if (!watch_) watch_ = std::make_unique<CostWatch>(options_.cost);
  stream_ = std::make_unique<NotificationStream>(*address_, tls, serial ? *serial : "", options_.limits);
  watch_->Begin([stream = stream_.get()](const std::string& what) { stream->GiveUp(what); },
                [address = *address_] { return BytesReceived(address); });
  return {};
}

CallStatus TicketClient::LoadTls(TlsFiles& tls) const {
  std::string fault = LogTlsFaults(LoadTlsFiles(options_.tls_folder, tls));
  if (fault.empty() && tls.authorities.empty()) {
    fault = ReadSystemRoots(options_.system_roots_file, tls.authorities);
    if (!fault.empty()) LogLine(LOG_ERR, fault);
  }
  if (fault.empty()) return {};
  return Failure(ClientError::kBadTlsFiles, "No TLS connection was tried: " + fault);
}

CallStatus TicketClient::AwaitDelivery(const SignalBlock& block, Delivery& delivery) {
  for (;;) {
    // Before the look at the queue: a ticket that comes together with SIGTERM stays there.
    if (stop_.IsPending()) return Stopped();
    stream_->DrainEvents();
    const Taken taken = stream_->Take(delivery);
    if (taken == Taken::kDelivery) return {};
    if (taken == Taken::kEnded) {
      if (auto status = ReplaceEndedStream(block); status.hasFail) return status;
      continue;
    }
    if (stop_.Wait(stream_->event_fd(), block, {}) == Wake::kStop) return Stopped();
  }
}

void TicketClient::CloseStream() {
  if (!stream_) return;
  watch_->End();  // it has a pointer to the stream
  stream_.reset();
  malloc_trim(0);  // a pause of up to ten minutes may follow
  // The watch goes on: gRPC keeps a connection for as long as bytes come, even when there is no stream on it.
  watch_->Begin([address = *address_](const std::string& /*what*/) { CutConnections(address); },
                [address = *address_] { return BytesReceived(address); });
}

CallStatus TicketClient::CloseEndedStream() {
  CallStatus status = stream_->end_status();
  CloseStream();
  LogHowManyWereLeftOut();
  if (PingComplaints() != former_ping_complaints_) {
    auto& keepalive = options_.limits.keepalive;
    keepalive = std::min(2 * keepalive, std::max(keepalive, kLongestKeepalive));
    LogLine(LOG_NOTICE, "The server complained of too many pings; from now on one is sent every " +
                            std::to_string(keepalive.count() / 1000) + " s");
  }
  return status;
}

/// Opens a new stream if the ended one had settled. After a pause, and a random one: the devices of a server that
/// was restarted must not come back all at once.
CallStatus TicketClient::ReplaceEndedStream(const SignalBlock& block) {
  const auto lived = std::chrono::duration_cast<std::chrono::milliseconds>(stream_->lifetime());
  CallStatus failure = CloseEndedStream();
  // The daemon pauses longer after each failure; what ends soon after its start is for it to slow down.
  if (lived < options_.settled) return failure;
  const auto pause = RandomPause(options_.longest_pause);
  LogLine(LOG_NOTICE, "The stream ended after " + std::to_string(lived.count() / 1000) +
                          " s: " + failure.errorMsg + "; it is opened again in " +
                          std::to_string(pause.count()) + " ms");
  constexpr int kNoEvent = -1;
  if (stop_.Wait(kNoEvent, block, std::chrono::steady_clock::now() + pause) == Wake::kStop) return Stopped();
  return OpenStream();
}

void TicketClient::RejectMalformed(const SignalBlock& block, const std::string& ticket_id,
                                   const std::string& fault) {
  LogLine(LOG_WARNING,
          "Rejected the malformed ticket \"" + MakePrintable(ticket_id, kMaxShownId) + "\": " + fault);
  Answer answer = MakeAnswer(ticket_id, ServiceClient::kRejected);
  answer.set_reason(fault);
  static_cast<void>(Deliver(block, answer));
}

void TicketClient::AcceptAgain(const SignalBlock& block, const std::string& ticket_id) {
  LogLine(LOG_NOTICE, "Accepted again the ticket \"" + MakePrintable(ticket_id, kMaxShownId) +
                          "\": it was delivered before, and is not worked on twice");
  accepted_.Add(ticket_id);
  static_cast<void>(Deliver(block, MakeAnswer(ticket_id, ServiceClient::kAccepted)));
}

CallStatus TicketClient::Send(ServiceClient::ClientStatus status) {
  const SignalBlock block;
  if (!unanswered_id_ || !stream_) {
    return Failure(ClientError::kNothingToAnswer, "There is no ticket that waits for an answer");
  }
  const std::string ticket_id = *std::exchange(unanswered_id_, std::nullopt);
  try {
    // Before the write: the daemon works on the ticket, whether or not the service hears of it.
    if (status == ServiceClient::kAccepted) accepted_.Add(ticket_id);
    return Deliver(block, MakeAnswer(ticket_id, status));
  } catch (const std::exception& error) {
    return Failure(ClientError::kSystem, MakePrintable(error.what(), 200));
  }
}

/// Writes one answer and waits until it is out. SIGTERM ends the wait, not the write.
CallStatus TicketClient::Deliver(const SignalBlock& block, const Answer& answer) {
  const auto deadline = std::chrono::steady_clock::now() + options_.answer_limit;
  stream_->StartAnswer(answer);
  for (;;) {
    if (stop_.IsPending()) return Stopped();
    stream_->DrainEvents();
    const WriteState state = stream_->write_state();
    if (state == WriteState::kWritten) return {};
    if (state == WriteState::kFailed) {
      return Failure(ClientError::kAnswerNotSent, "The stream ended before the answer was written");
    }
    if (stop_.Wait(stream_->event_fd(), block, deadline) == Wake::kTimeout) {
      // The server reads nothing. A later answer would stand behind this one and never go out either.
      stream_->Cancel();
      return Failure(ClientError::kAnswerNotSent,
                     "The answer could not be written in time; the stream is closed");
    }
  }
}

}  // namespace TarvoOrvane::Internal
