/// ControlService over gRPC on a unix socket, for the command-line client. The socket's folder and the
/// socket itself are open to their owner only; whoever may open it may send tickets.
#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>
#include <string>

#include "tarvo/support/v1/control.grpc.pb.h"
#include "ticket_book.h"

namespace TarvoOrvane::SupportService {

class ControlFront final : public tarvo::support::v1::ControlService::Service {
 public:
  /// Starts serving. A socket that lies there from an earlier service is replaced.
  /// @param book  Lives longer than the front.
  /// @throw std::exception  the socket can't be served.
  ControlFront(TicketBook& book, std::string socket_path);

  /// Closes the book, which ends the calls that wait for it, and removes the socket.
  ~ControlFront() override;

  ControlFront(const ControlFront&) = delete;
  ControlFront& operator=(const ControlFront&) = delete;

  grpc::Status SendTicket(grpc::ServerContext* context, const tarvo::support::v1::SendTicketRequest* request,
                          tarvo::support::v1::SendTicketResponse* response) override;
  grpc::Status WatchTicket(grpc::ServerContext* context,
                           const tarvo::support::v1::WatchTicketRequest* request,
                           grpc::ServerWriter<tarvo::support::v1::TicketChange>* writer) override;
  grpc::Status ListTickets(grpc::ServerContext* context,
                           const tarvo::support::v1::ListTicketsRequest* request,
                           tarvo::support::v1::ListTicketsResponse* response) override;
  grpc::Status ListDevices(grpc::ServerContext* context,
                           const tarvo::support::v1::ListDevicesRequest* request,
                           tarvo::support::v1::ListDevicesResponse* response) override;

 private:
  TicketBook& book_;
  const std::string socket_path_;
  std::unique_ptr<grpc::Server> server_;
};

}  // namespace TarvoOrvane::SupportService
