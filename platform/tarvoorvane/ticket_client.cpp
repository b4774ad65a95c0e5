#include "ticket_client.h"

#include <fcntl.h>
#include <grpc/grpc.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "client_errors.h"
#include "library_log.h"
#include "scoped_fd.h"
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
constexpr size_t kMaxShownId = 64;

CallStatus Stopped() { return Failure(ClientError::kStopped, "SIGTERM ended the wait"); }

bool ReadFile(const std::string& path, std::string& out) {
  const ScopedFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) return false;
  char block[16 * 1024];
  ssize_t size = 0;
  while ((size = TEMP_FAILURE_RETRY(read(file.get(), block, sizeof block))) > 0) {
    out.append(block, static_cast<size_t>(size));
  }
  return size == 0;
}

/// gRPC would take an empty text for "use the built-in roots", so a file that can't be read is an error.
CallStatus ReadRootCertificates(const std::string& path, std::string& out) {
  if (!ReadFile(path, out)) {
    return Failure(ClientError::kBadCertificates,
                   "The root certificates in " + path + " can't be read: " + strerror(errno));
  }
  if (out.find("-----BEGIN CERTIFICATE-----") == std::string::npos) {
    return Failure(ClientError::kBadCertificates,
                   path + " holds no root certificate; install ca-certificates");
  }
  return {};
}

/// HTTP/2's "enhance your calm" shows only in the text: the server's debug data, or gRPC's own words for it.
bool ComplainsOfPings(const std::string& text) {
  return text.find("too_many_pings") != std::string::npos || text.find("Too many pings") != std::string::npos;
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
  stream_.reset();
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
  if (stop_.IsPending()) return Stopped();
  if (!address_) return Failure(ClientError::kBadAddress, address_fault_);
  if (!stream_) {
    if (auto status = OpenStream(); status.hasFail) return status;
  }
  for (;;) {
    Delivery delivery;
    if (auto status = AwaitDelivery(block, delivery); status.hasFail) return status;
    const std::string fault = ParseTicket(delivery.ticket_json(), ticket);
    if (fault.empty()) {
      unanswered_id_ = delivery.ticket_id();
      return {};
    }
    auto status = RejectMalformed(block, delivery.ticket_id(), fault);
    if (status.hasFail && status.error == static_cast<int>(ClientError::kStopped)) return status;
  }
}

CallStatus TicketClient::OpenStream() {
  std::string root_certificates;
  if (address_->tls) {
    auto status = ReadRootCertificates(options_.root_certificates_file, root_certificates);
    if (status.hasFail) return status;
  }
  const auto serial = Utils::GetSerialNumber();
  stream_ = std::make_unique<NotificationStream>(*address_, root_certificates, serial ? *serial : "",
                                                 options_.limits);
  return {};
}

CallStatus TicketClient::AwaitDelivery(const SignalBlock& block, Delivery& delivery) {
  for (;;) {
    // Before the look at the queue: a ticket that comes together with SIGTERM stays there.
    if (stop_.IsPending()) return Stopped();
    stream_->DrainEvents();
    const Taken taken = stream_->Take(delivery);
    if (taken == Taken::kDelivery) return {};
    if (taken == Taken::kEnded) return CloseEndedStream();
    if (stop_.Wait(stream_->event_fd(), block, {}) == Wake::kStop) return Stopped();
  }
}

CallStatus TicketClient::CloseEndedStream() {
  CallStatus status = stream_->end_status();
  stream_.reset();
  if (ComplainsOfPings(status.errorMsg)) {
    auto& keepalive = options_.limits.keepalive;
    keepalive = std::min(2 * keepalive, std::max(keepalive, kLongestKeepalive));
  }
  return status;
}

CallStatus TicketClient::RejectMalformed(const SignalBlock& block, const std::string& ticket_id,
                                         const std::string& fault) {
  LogLine(LOG_WARNING,
          "Rejected the malformed ticket \"" + MakePrintable(ticket_id, kMaxShownId) + "\": " + fault);
  Answer answer = MakeAnswer(ticket_id, ServiceClient::kRejected);
  answer.set_reason(fault);
  return Deliver(block, answer);
}

CallStatus TicketClient::Send(ServiceClient::ClientStatus status) {
  const SignalBlock block;
  if (!unanswered_id_ || !stream_) {
    return Failure(ClientError::kNothingToAnswer, "There is no ticket that waits for an answer");
  }
  const std::string ticket_id = *std::exchange(unanswered_id_, std::nullopt);
  try {
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
      stream_->Cancel();
      return Failure(ClientError::kAnswerNotSent,
                     "The answer could not be written in time; the stream is closed");
    }
  }
}

}  // namespace TarvoOrvane::Internal
