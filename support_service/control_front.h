/// ControlService over gRPC on a unix socket, for the command-line client. The socket's folder and the
/// socket itself are open to their owner only; whoever may open it may send tickets.
///
/// The front decides nothing: it asks the dispatcher and the store, and puts what they say into messages. What came from
/// a device or a client goes into them printable, because the client prints it in a terminal.
#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>
#include <string>

#include "dispatcher.h"
#include "store.h"
#include "tarvo/support/v1/control.grpc.pb.h"

namespace TarvoOrvane::SupportService {

/// A ticket's state as messages carry it, in the words that ToText() has for the book's own; "unknown state" for what a
/// later service may send.
const char* ToText(tarvo::support::v1::TicketState state);

/// gRPC calls the operations from threads of its own, several at a time. All that they share is the dispatcher and the
/// store. Each returns UNAVAILABLE, with what to do, when one of these fails or the service ends.
class ControlFront final : public tarvo::support::v1::ControlService::Service {
 public:
  /// Starts serving. A socket that lies there is taken for an earlier service's and replaced: the lock of the data
  /// folder has shown that no other service lives there.
  /// @param dispatcher   Creates tickets. Lives longer than the front, as the store does.
  /// @param socket_path  An absolute path (ControlSocketPath()).
  /// @throws std::exception when the socket can't be served; the text is fit for the operator.
  ControlFront(Dispatcher& dispatcher, const Store& store, std::string socket_path);

  /// Closes the dispatcher, which ends the calls that wait for it, and removes the socket. Waits for all calls to end.
  ~ControlFront() override;

  ControlFront(const ControlFront&) = delete;
  ControlFront& operator=(const ControlFront&) = delete;

  /// Creates a ticket.
  /// @return OK once it is remembered. INVALID_ARGUMENT for a bad serial number, for a name that is empty, and for a
  ///         list that is too long for a device.
  grpc::Status SendTicket(grpc::ServerContext* context, const tarvo::support::v1::SendTicketRequest* request,
                          tarvo::support::v1::SendTicketResponse* response) override;
  /// Streams the ticket's events, the earlier ones first, up to its end. Holds its thread for so long.
  /// @return OK after the end, NOT_FOUND for an unknown ticket, UNAVAILABLE when the service ends, CANCELLED when
  ///         the client went away.
  grpc::Status WatchTicket(grpc::ServerContext* context,
                           const tarvo::support::v1::WatchTicketRequest* request,
                           grpc::ServerWriter<tarvo::support::v1::TicketChange>* writer) override;
  /// Takes back a ticket that no device has yet.
  /// @return OK once that is remembered. INVALID_ARGUMENT when there is no such ticket, or more than one, or when its
  ///         device has it or had it.
  grpc::Status CancelTicket(grpc::ServerContext* context,
                            const tarvo::support::v1::CancelTicketRequest* request,
                            tarvo::support::v1::CancelTicketResponse* response) override;
  /// The newest tickets, oldest first.
  grpc::Status ListTickets(grpc::ServerContext* context,
                           const tarvo::support::v1::ListTicketsRequest* request,
                           tarvo::support::v1::ListTicketsResponse* response) override;
  /// The devices that are connected now, in the order in which they came.
  grpc::Status ListDevices(grpc::ServerContext* context,
                           const tarvo::support::v1::ListDevicesRequest* request,
                           tarvo::support::v1::ListDevicesResponse* response) override;

 private:
  bool WriteEvents(Ticket& ticket, grpc::ServerWriter<tarvo::support::v1::TicketChange>& writer) const;

  Dispatcher& dispatcher_;
  const Store& store_;
  const std::string socket_path_;
  std::unique_ptr<grpc::Server> server_;  ///< Null only inside the constructor and the destructor.
};

}  // namespace TarvoOrvane::SupportService
