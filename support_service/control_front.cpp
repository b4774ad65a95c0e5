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
/// So many tickets are listed, and so many events read at once.
constexpr std::size_t kMaxListed = 1000;

std::int64_t UnixTimeMs(std::chrono::system_clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

/// The two enumerations have the same order.
proto::TicketState StateOf(TicketState state) {
  static_assert(static_cast<int>(TicketState::kQueued) == proto::TICKET_STATE_QUEUED &&
                static_cast<int>(TicketState::kReported) == proto::TICKET_STATE_REPORTED &&
                static_cast<int>(TicketState::kExpired) == proto::TICKET_STATE_EXPIRED);
  return static_cast<proto::TicketState>(state);
}

proto::TicketChange MessageOf(const Event& event, TicketState state) {
  proto::TicketChange message;
  message.set_state(StateOf(state));
  message.set_event(ToText(event.kind));
  // A device's text may hold bytes that a message can't.
  message.set_detail(event.kind == EventKind::kReported ? Printable(event.text) : event.text);
  message.set_unix_time_ms(UnixTimeMs(event.time));
  return message;
}

/// Makes a call's status of what the dispatcher or the store throws.
template <typename Operation>
grpc::Status StatusOf(const Operation& operation) {
  try {
    return operation();
  } catch (const std::invalid_argument& error) {
    return {grpc::StatusCode::INVALID_ARGUMENT, error.what()};
  } catch (const StoreError& error) {
    return {grpc::StatusCode::UNAVAILABLE, error.what()};
  }
}

/// The ticket before its first event.
Ticket Unborn(const Ticket& ticket) {
  Ticket unborn;
  unborn.number = ticket.number;
  unborn.id = ticket.id;
  return unborn;
}

}  // namespace

const char* ToText(proto::TicketState state) {
  for (const TicketState own : kTicketStates) {
    if (StateOf(own) == state) return ToText(own);
  }
  return "unknown state";
}

ControlFront::ControlFront(Dispatcher& dispatcher, const Store& store, std::string socket_path)
    : dispatcher_(dispatcher), store_(store), socket_path_(std::move(socket_path)) {
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
  dispatcher_.Close();  // first: a call that waits for it would hold up the shutdown
  server_->Shutdown(std::chrono::system_clock::now() + kWatchersShutdownLimit);
  server_.reset();
  unlink(socket_path_.c_str());
}

grpc::Status ControlFront::SendTicket(grpc::ServerContext* /*context*/,
                                      const proto::SendTicketRequest* request,
                                      proto::SendTicketResponse* response) {
  return StatusOf([&] {
    const NewTicket wanted{request->device(), {request->apps().begin(), request->apps().end()}};
    response->set_ticket_id(dispatcher_.Call([&](TicketBook& book) { return book.Create(wanted).id; }));
    return grpc::Status::OK;
  });
}

grpc::Status ControlFront::WatchTicket(grpc::ServerContext* context, const proto::WatchTicketRequest* request,
                                       grpc::ServerWriter<proto::TicketChange>* writer) {
  return StatusOf([&]() -> grpc::Status {
    const auto found = store_.FindById(request->ticket_id(), 1);
    if (found.empty() || found.front().id != request->ticket_id()) {
      return {grpc::StatusCode::NOT_FOUND, "there is no such ticket"};
    }
    Ticket ticket = Unborn(found.front());
    // In steps, because the dispatcher can't be told that the watcher has gone.
    while (!context->IsCancelled()) {
      const EventNumber newest = store_.LastEvent();
      if (!WriteEvents(ticket, *writer)) return grpc::Status::CANCELLED;
      if (!IsOpen(ticket.state)) return grpc::Status::OK;
      if (dispatcher_.closed()) return {grpc::StatusCode::UNAVAILABLE, "the service shuts down"};
      while (!context->IsCancelled() && dispatcher_.AwaitEvents(newest, kWatchStep) == newest &&
             !dispatcher_.closed()) {
      }
    }
    return grpc::Status::CANCELLED;
  });
}

/// Writes what happened to the ticket since its last event, up to its end, and applies it.
/// @return false when the watcher has gone.
bool ControlFront::WriteEvents(Ticket& ticket, grpc::ServerWriter<proto::TicketChange>& writer) const {
  for (;;) {
    const auto events = store_.EventsOf(ticket.number, ticket.last_event, kMaxListed);
    for (const Event& event : events) {
      Apply(event, ticket);
      if (!writer.Write(MessageOf(event, ticket.state))) return false;
      if (!IsOpen(ticket.state)) return true;
    }
    if (events.empty()) return true;
  }
}

grpc::Status ControlFront::CancelTicket(grpc::ServerContext* /*context*/,
                                        const proto::CancelTicketRequest* request,
                                        proto::CancelTicketResponse* response) {
  return StatusOf([&] {
    const auto found = store_.FindById(request->ticket_id(), 2);
    if (found.empty()) throw std::invalid_argument("there is no such ticket");
    if (found.size() > 1) throw std::invalid_argument("there are several tickets whose id begins so");
    const Ticket& ticket = found.front();
    dispatcher_.Call([&](TicketBook& book) { book.Cancel(ticket.number, "over the control socket"); });
    response->set_ticket_id(ticket.id);
    return grpc::Status::OK;
  });
}

grpc::Status ControlFront::ListTickets(grpc::ServerContext* /*context*/,
                                       const proto::ListTicketsRequest* /*request*/,
                                       proto::ListTicketsResponse* response) {
  return StatusOf([&] {
    const auto newest_first = store_.List({}, kMaxListed);
    for (auto ticket = newest_first.rbegin(); ticket != newest_first.rend(); ++ticket) {
      proto::TicketSummary& summary = *response->add_tickets();
      summary.set_ticket_id(ticket->id);
      for (const std::string& app : ticket->apps) summary.add_apps(app);
      summary.set_device(ticket->device);
      proto::TicketChange& change = *summary.mutable_last_change();
      change.set_state(StateOf(ticket->state));
      // Something may have happened since that did not move it.
      const std::string detail = ticket->overdue ? "it takes unusually long" : ticket->last_text;
      change.set_detail(Printable(ticket->report.value_or(detail)));
      change.set_unix_time_ms(UnixTimeMs(ticket->since));
    }
    return grpc::Status::OK;
  });
}

// As ListTickets(), of other things: the generated messages have nothing in common that one function could fill.
grpc::Status ControlFront::ListDevices(grpc::ServerContext* /*context*/,
                                       const proto::ListDevicesRequest* /*request*/,
                                       proto::ListDevicesResponse* response) {
  return StatusOf([&] {
    for (const DeviceView& device : dispatcher_.Call([](TicketBook& book) { return book.Devices(); })) {
      proto::DeviceSummary& summary = *response->add_devices();
      summary.set_serial_number(Printable(device.serial_number));
      summary.set_peer(Printable(device.peer));
      summary.set_connected_unix_time_ms(UnixTimeMs(device.connected));
      summary.set_twin(Printable(device.twin));
    }
    return grpc::Status::OK;
  });
}

}  // namespace TarvoOrvane::SupportService
