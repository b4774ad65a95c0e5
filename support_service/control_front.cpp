#include "control_front.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "listen_address.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {

namespace proto = tarvo::support::v1;

namespace {

/// How soon a watcher that went away is noticed.
constexpr std::chrono::milliseconds kWatchStep{250};
/// How long the server waits at its end for clients to close their connections.
constexpr std::chrono::milliseconds kWatchersShutdownLimit{250};
/// Of an application's name and a serial number: more than a device takes of either.
constexpr std::size_t kMaxNameBytes = 256;

std::int64_t UnixTimeMs(std::chrono::system_clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

/// What each of the book's states is in messages.
constexpr std::array<std::pair<TicketState, proto::TicketState>, 6> kStates = {{
    {TicketState::kWaiting, proto::TICKET_STATE_WAITING},
    {TicketState::kDelivered, proto::TICKET_STATE_DELIVERED},
    {TicketState::kAccepted, proto::TICKET_STATE_ACCEPTED},
    {TicketState::kRejected, proto::TICKET_STATE_REJECTED},
    {TicketState::kUploaded, proto::TICKET_STATE_UPLOADED},
    {TicketState::kReported, proto::TICKET_STATE_REPORTED},
}};

proto::TicketState StateOf(TicketState state) { return kStates.at(static_cast<std::size_t>(state)).second; }

void Fill(const TicketChange& change, proto::TicketChange& out) {
  out.set_state(StateOf(change.state));
  // A device's text may hold bytes that a message can't.
  out.set_detail(change.state == TicketState::kReported ? Printable(change.detail) : change.detail);
  out.set_unix_time_ms(UnixTimeMs(change.time));
}

void CheckName(const std::string& what, const std::string& name) {
  if (name.size() > kMaxNameBytes) {
    throw std::invalid_argument(what + " is longer than " + std::to_string(kMaxNameBytes) + " bytes");
  }
}

}  // namespace

const char* ToText(proto::TicketState state) {
  for (const auto& [own, sent] : kStates) {
    if (sent == state) return ToText(own);
  }
  return "unknown state";
}

ControlFront::ControlFront(TicketBook& book, std::string socket_path)
    : book_(book), socket_path_(std::move(socket_path)) {
  const std::string target = UnixTarget(socket_path_);
  // The data folder's lock has shown that no other service is alive: what lies there is a leftover.
  if (unlink(socket_path_.c_str()) == -1 && errno != ENOENT) {
    throw std::system_error(errno, std::generic_category(), "cannot replace " + socket_path_);
  }
  grpc::ServerBuilder builder;
  builder.SetSyncServerOption(grpc::ServerBuilder::NUM_CQS, 1);
  builder.AddListeningPort(target, grpc::InsecureServerCredentials());
  builder.RegisterService(this);
  server_ = builder.BuildAndStart();
  if (!server_ || chmod(socket_path_.c_str(), 0600) == -1) {
    throw std::runtime_error("cannot serve the control socket " + socket_path_);
  }
}

ControlFront::~ControlFront() {
  book_.Close();  // first: a call that waits for the book would hold up the shutdown
  server_->Shutdown(std::chrono::system_clock::now() + kWatchersShutdownLimit);
  server_.reset();
  unlink(socket_path_.c_str());
}

grpc::Status ControlFront::SendTicket(grpc::ServerContext* /*context*/,
                                      const proto::SendTicketRequest* request,
                                      proto::SendTicketResponse* response) {
  try {
    for (const std::string& app : request->apps()) {
      CheckName("an application's name", app);
      if (app.empty()) throw std::invalid_argument("an application's name is empty");
    }
    CheckName("the device's serial number", request->device());
    response->set_ticket_id(
        book_.CreateTicket({request->apps().begin(), request->apps().end()}, request->device()));
    return grpc::Status::OK;
  } catch (const std::invalid_argument& error) {
    return {grpc::StatusCode::INVALID_ARGUMENT, error.what()};
  }
}

grpc::Status ControlFront::WatchTicket(grpc::ServerContext* context, const proto::WatchTicketRequest* request,
                                       grpc::ServerWriter<proto::TicketChange>* writer) {
  if (!book_.Find(request->ticket_id())) {
    return {grpc::StatusCode::NOT_FOUND, "there is no such ticket"};
  }
  std::uint64_t seen = 0;
  // In steps, because the book can't be told that the watcher has gone.
  while (!context->IsCancelled()) {
    for (const TicketChange& change : book_.WaitForChanges(request->ticket_id(), seen, kWatchStep)) {
      proto::TicketChange message;
      Fill(change, message);
      if (!writer->Write(message)) return grpc::Status::CANCELLED;
      if (change.state == TicketState::kReported) return grpc::Status::OK;
    }
    if (book_.closed()) return {grpc::StatusCode::UNAVAILABLE, "the service shuts down"};
  }
  return grpc::Status::CANCELLED;
}

grpc::Status ControlFront::ListTickets(grpc::ServerContext* /*context*/,
                                       const proto::ListTicketsRequest* /*request*/,
                                       proto::ListTicketsResponse* response) {
  for (const TicketView& ticket : book_.Tickets()) {
    proto::TicketSummary& summary = *response->add_tickets();
    summary.set_ticket_id(ticket.id);
    for (const std::string& app : ticket.apps) summary.add_apps(app);
    summary.set_device(Printable(ticket.device));
    Fill(ticket.last_change, *summary.mutable_last_change());
  }
  return grpc::Status::OK;
}

// As ListTickets(), of other things: the generated messages have nothing in common that one function could fill.
grpc::Status ControlFront::ListDevices(grpc::ServerContext* /*context*/,
                                       const proto::ListDevicesRequest* /*request*/,
                                       proto::ListDevicesResponse* response) {
  for (const DeviceView& device : book_.Devices()) {
    proto::DeviceSummary& summary = *response->add_devices();
    summary.set_serial_number(Printable(device.serial_number));
    summary.set_peer(Printable(device.peer));
    summary.set_connected_unix_time_ms(UnixTimeMs(device.connected));
  }
  return grpc::Status::OK;
}

}  // namespace TarvoOrvane::SupportService
