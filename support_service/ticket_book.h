/// The service's memory: tickets, the devices' streams, and which delivery is due when.
///
/// The book decides, the fronts act. The gRPC front tells it what devices say and carries out the work
/// that it hands out (deliver this, end that stream); the HTTP front asks it for tokens and records
/// what was received; the control front creates and watches tickets. Everything is behind one mutex
/// and may be called from any thread; no call but WaitForWork and WaitForChanges blocks.
///
/// A ticket's road:
///
///     waiting -> delivered -> accepted -> uploaded -> reported
///        ^          |  ^
///        |          v  | after a pause
///        |       rejected
///        +--- its stream ended before the answer
///
/// HTTP and gRPC are two connections, so an upload or a report may overtake the answer; it counts
/// from every state, and a later answer doesn't move the ticket back.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "event_log.h"

namespace TarvoOrvane::SupportService {

enum class TicketState { kWaiting, kDelivered, kAccepted, kRejected, kUploaded, kReported };

/// "waiting", "delivered" and so on.
const char* ToText(TicketState state);

/// One step on a ticket's road.
struct TicketChange {
  TicketState state = TicketState::kWaiting;
  std::string detail;  ///< For kReported the device's text as it came; else a remark, printable.
  std::chrono::system_clock::time_point time;
};

/// A complete archive as it was received.
struct Upload {
  std::uint64_t size_bytes = 0;
  std::string sha256;             ///< Lower-case hex.
  std::string serial_number;      ///< As the upload said; may be empty.
  std::vector<std::string> apps;  ///< As the upload said, in its order.
  std::chrono::system_clock::time_point time;
};

/// A result report as it was received.
struct Report {
  std::string status;
  std::string serial_number;
  std::chrono::system_clock::time_point time;
};

/// A ticket as others see it: without its token.
struct TicketView {
  std::string id;
  std::vector<std::string> apps;
  std::string device;  ///< Serial number; empty while any device will do.
  std::chrono::system_clock::time_point created;
  TicketChange last_change;
  std::optional<Upload> upload;  ///< The newest one.
  std::optional<Report> report;  ///< The newest one.
};

struct DeviceView {
  std::string serial_number;  ///< Empty when the device knows none.
  std::string peer;
  std::chrono::system_clock::time_point connected;
};

/// Number of a device's stream, never used twice; 0 is none.
using StreamId = std::uint64_t;

/// A delivery to write to a stream.
struct Delivery {
  StreamId stream = 0;
  std::string ticket_id;
  std::string ticket_json;  ///< {"token", "apps"}; the only place where the token leaves the book.
};

enum class EndReason { kNoHello, kWrongProtocol, kProtocolError, kReplaced, kShutdown };

/// A stream to end; the book has forgotten it already.
struct StreamEnd {
  StreamId stream = 0;
  EndReason reason = EndReason::kShutdown;
  std::string text;  ///< For the device's log.
};

/// What the gRPC front has to do next.
struct Work {
  std::vector<StreamEnd> ends;
  std::vector<Delivery> deliveries;
  bool closed = false;  ///< Close() was called: nothing comes after this.
};

class TicketBook {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  struct Settings {
    std::chrono::milliseconds retry_pause{5000};   ///< Between a rejection and the next delivery.
    std::chrono::milliseconds hello_limit{10000};  ///< From a stream's start to its Hello.
  };

  /// @param events  Called with the book locked, so that lines come in the order of events.
  /// @param clock   For pauses and limits.
  TicketBook(const Settings& settings, EventSink events, Clock clock = std::chrono::steady_clock::now);

  // For the control front.

  /// Creates a ticket with a fresh id and token.
  /// @param device  Serial number, or empty for the first connected device.
  /// @return the ticket's id.
  /// @throw std::invalid_argument  the ticket would be too large to deliver.
  std::string CreateTicket(const std::vector<std::string>& apps, const std::string& device);

  [[nodiscard]] std::optional<TicketView> Find(const std::string& ticket_id) const;
  [[nodiscard]] std::vector<TicketView> Tickets() const;  ///< Oldest first.
  [[nodiscard]] std::vector<DeviceView> Devices() const;  ///< In the order in which they connected.

  /// Waits until the ticket has changes beyond the first `seen`, the limit is over or the book is closed.
  /// @param seen  Raised past the changes returned.
  /// @return the changes, oldest first; of a ticket that is rejected for ever only the newest are kept.
  std::vector<TicketChange> WaitForChanges(const std::string& ticket_id, std::uint64_t& seen,
                                           std::chrono::milliseconds limit);

  // For the gRPC front.

  /// @return the new stream's number; 0 once the book is closed.
  StreamId OpenStream(const std::string& peer);

  /// The device's first message. An older stream of the same serial number is ended.
  void Hello(StreamId stream, const std::string& serial_number, std::uint32_t protocol);

  /// The device's answer to a delivery. One that doesn't belong to a delivery on this stream is logged
  /// and ignored.
  void Answer(StreamId stream, const std::string& ticket_id, bool accepted, const std::string& reason);

  /// The device broke the protocol: its stream is ended.
  void ProtocolError(StreamId stream, const std::string& text);

  /// The device ended the stream or was lost; what it had not answered will be delivered again.
  void CloseStream(StreamId stream);

  /// What is due now. Does not wait.
  Work TakeWork();

  /// Waits until there is something to do.
  Work WaitForWork();

  /// Ends all streams, takes no new ones and wakes every waiting call.
  void Close();

  [[nodiscard]] bool closed() const;

  // For the HTTP front.

  /// @return the ticket whose token was handed out to a device and equals this one.
  [[nodiscard]] std::optional<TicketView> FindByToken(const std::string& token) const;

  void RecordUpload(const std::string& ticket_id, const Upload& upload);
  void RecordReport(const std::string& ticket_id, const Report& report);

 private:
  struct Ticket {
    TicketView view;
    std::string token;
    std::string json;
    StreamId stream = 0;                             ///< The newest stream it was delivered on.
    bool answer_due = false;                         ///< Delivered on `stream`, no answer yet.
    bool delivered_before = false;                   ///< Its token was handed out.
    std::chrono::steady_clock::time_point retry_at;  ///< While rejected.
    std::deque<TicketChange> changes;                ///< The newest ones.
    std::uint64_t changes_dropped = 0;               ///< Older ones than those.
  };

  struct Stream {
    std::string peer;
    std::string serial_number;
    bool greeted = false;  ///< Its Hello was accepted.
    std::chrono::steady_clock::time_point hello_deadline;
    std::chrono::system_clock::time_point connected;
  };

  // All of these need the mutex.
  Ticket* FindTicket(const std::string& ticket_id);
  const Ticket* FindTicket(const std::string& ticket_id) const;
  void Change(Ticket& ticket, TicketState state, std::string detail);
  StreamId RouteOf(const Ticket& ticket) const;
  StreamId StreamOf(const std::string& serial_number) const;
  bool IsOpen(const Ticket& ticket) const;
  Delivery Deliver(Ticket& ticket, StreamId stream);
  void EndOverdueStreams(std::chrono::steady_clock::time_point now);
  void EndStream(StreamId stream, EndReason reason, const std::string& text);
  void Release(StreamId stream, const std::string& cause);
  Work TakeWorkLocked();
  std::optional<std::chrono::steady_clock::time_point> NextDeadline() const;

  const Settings settings_;
  const EventSink events_;
  const Clock clock_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Ticket> tickets_;  ///< In the order of creation.
  std::map<StreamId, Stream> streams_;
  std::vector<StreamEnd> ends_;  ///< Not handed out yet.
  StreamId last_stream_ = 0;
  bool closed_ = false;
};

}  // namespace TarvoOrvane::SupportService
