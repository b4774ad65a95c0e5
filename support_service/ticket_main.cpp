/// The command-line client of the local support service.
#include <grpcpp/grpcpp.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include "control_front.h"
#include "listen_address.h"
#include "options.h"
#include "program.h"
#include "tarvo/support/v1/control.grpc.pb.h"
#include "text_forms.h"

namespace {

namespace proto = tarvo::support::v1;
using TarvoOrvane::SupportService::ControlSocketPath;
using TarvoOrvane::SupportService::ParseTicketOptions;
using TarvoOrvane::SupportService::QuotedList;
using TarvoOrvane::SupportService::TicketOptions;
using TarvoOrvane::SupportService::ToText;
using Stub = proto::ControlService::Stub;

/// Long enough for a disk that is slow.
constexpr std::chrono::seconds kCallLimit{30};

void SetDeadline(grpc::ClientContext& context, std::chrono::seconds limit) {
  context.set_deadline(std::chrono::system_clock::now() + limit);
}

std::unique_ptr<Stub> Connect(const TicketOptions& options) {
  const std::string path = ControlSocketPath(options.data_folder);
  // gRPC would only say that it could not connect.
  if (access(path.c_str(), R_OK | W_OK) == -1) {
    const std::string why =
        errno == ENOENT ? "there is no " + path : path + ": " + std::generic_category().message(errno);
    throw std::runtime_error("no support service to speak with (" + why + "): start it with " +
                             "support_service --data " + options.data_folder.string() +
                             ", or name its folder with --data");
  }
  return proto::ControlService::NewStub(
      grpc::CreateChannel(TarvoOrvane::SupportService::UnixTarget(path), grpc::InsecureChannelCredentials()));
}

void CheckCall(const grpc::Status& status) {
  if (status.ok()) return;
  if (status.error_code() == grpc::StatusCode::UNAVAILABLE) {
    throw std::runtime_error("the support service does not answer, is it still running? (" +
                             status.error_message() + ")");
  }
  if (status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED) {
    throw std::runtime_error(
        "the support service takes too long, what was asked may still happen: see ticket --list");
  }
  throw std::runtime_error(status.error_message());
}

/// Makes one call that is answered at once.
/// @throws std::runtime_error when it fails; the text is fit for the operator.
template <typename Request, typename Response>
Response Call(Stub& stub, grpc::Status (Stub::*method)(grpc::ClientContext*, const Request&, Response*),
              const Request& request) {
  grpc::ClientContext context;
  SetDeadline(context, kCallLimit);
  Response response;
  CheckCall((stub.*method)(&context, request, &response));
  return response;
}

std::string TimeText(std::int64_t unix_time_ms) {
  return TarvoOrvane::SupportService::TimeText(
      std::chrono::system_clock::time_point(std::chrono::milliseconds(unix_time_ms)));
}

std::string ChangeText(const proto::TicketChange& change) {
  const std::string what = change.event().empty() ? ToText(change.state()) : change.event();
  return what + (change.detail().empty() ? "" : ": " + change.detail());
}

/// At once: who follows a ticket through a pipe sees each change when it comes.
void PrintLine(const std::string& line) { std::cout << line << std::endl; }

/// Prints the ticket's events up to its end.
/// @return Whether the device reported success.
bool Follow(Stub& stub, const std::string& ticket_id, const TicketOptions& options) {
  grpc::ClientContext context;
  if (options.wait_limit) SetDeadline(context, *options.wait_limit);
  proto::WatchTicketRequest request;
  request.set_ticket_id(ticket_id);
  const auto reader = stub.WatchTicket(&context, request);
  proto::TicketChange change;
  while (reader->Read(&change)) PrintLine(TimeText(change.unix_time_ms()) + " " + ChangeText(change));
  const grpc::Status status = reader->Finish();
  if (status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED) {
    throw std::runtime_error("no report within " + std::to_string(options.wait_limit->count()) +
                             " s; the ticket is still " + ToText(change.state()));
  }
  CheckCall(status);
  return change.state() == proto::TICKET_STATE_REPORTED && change.detail() == "Success";
}

/// The one device that is connected.
/// @throws std::runtime_error when there is none, or more than one.
std::string OnlyDevice(Stub& stub) {
  const auto response = Call(stub, &Stub::ListDevices, proto::ListDevicesRequest());
  if (response.devices_size() == 1) return response.devices(0).serial_number();
  throw std::runtime_error(
      response.devices_size() == 0
          ? "no device is connected: name the one that the ticket is for with --device"
          : "several devices are connected: name one of those that --devices shows with --device");
}

bool Send(Stub& stub, const TicketOptions& options) {
  proto::SendTicketRequest request;
  for (const std::string& app : options.apps) request.add_apps(app);
  request.set_device(options.device.empty() ? OnlyDevice(stub) : options.device);
  const std::string id = Call(stub, &Stub::SendTicket, request).ticket_id();
  PrintLine(id);
  return !options.wait || Follow(stub, id, options);
}

bool Cancel(Stub& stub, const TicketOptions& options) {
  proto::CancelTicketRequest request;
  request.set_ticket_id(options.ticket);
  PrintLine(Call(stub, &Stub::CancelTicket, request).ticket_id() + " cancelled");
  return true;
}

bool ListTickets(Stub& stub) {
  const auto response = Call(stub, &Stub::ListTickets, proto::ListTicketsRequest());
  for (const proto::TicketSummary& ticket : response.tickets()) {
    PrintLine(ticket.ticket_id() + " " + TimeText(ticket.last_change().unix_time_ms()) + " apps " +
              QuotedList({ticket.apps().begin(), ticket.apps().end()}) + " device " + "\"" + ticket.device() +
              "\"" + " " + ChangeText(ticket.last_change()));
  }
  return true;
}

bool ListDevices(Stub& stub) {
  const auto response = Call(stub, &Stub::ListDevices, proto::ListDevicesRequest());
  for (const proto::DeviceSummary& device : response.devices()) {
    PrintLine("\"" + device.serial_number() + "\" since " + TimeText(device.connected_unix_time_ms()) +
              " from " + device.peer() +
              (device.twin().empty() ? "" : ", and also at " + device.twin() + ": it gets no tickets"));
  }
  return true;
}

bool Run(const TicketOptions& options) {
  const auto stub = Connect(options);
  switch (options.action) {
    case TicketOptions::Action::kCancel:
      return Cancel(*stub, options);
    case TicketOptions::Action::kListTickets:
      return ListTickets(*stub);
    case TicketOptions::Action::kListDevices:
      return ListDevices(*stub);
    case TicketOptions::Action::kSend:
      break;
  }
  return Send(*stub, options);
}

}  // namespace

int main(int argc, char** argv) {
  return TarvoOrvane::SupportService::RunProgram("ticket", ParseTicketOptions, argc, argv,
                                                 [](const auto& options) { return Run(options) ? 0 : 1; });
}
