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

/// Where a ticket is on its road.
enum class TicketState {
  kWaiting,    ///< For its device to connect.
  kDelivered,  ///< Handed to the gRPC front for a stream; no answer yet.
  kAccepted,   ///< The device works on it.
  kRejected,   ///< The device could not take it; it is delivered again after a pause.
  kUploaded,   ///< A complete archive came.
  kReported    ///< The end.
};

/// "waiting", "delivered" and so on.
const char* ToText(TicketState state);

/// One step on a ticket's road.
struct TicketChange {
  TicketState state = TicketState::kWaiting;
  std::string detail;  ///< For kReported the device's text as it came; else a remark, printable.
  std::chrono::system_clock::time_point time;  ///< When the service learned of it.
};

/// A complete archive as it was received.
struct Upload {
  std::uint64_t size_bytes = 0;
  std::string sha256;                          ///< Lower-case hex.
  std::string serial_number;                   ///< As the upload said; may be empty.
  std::vector<std::string> apps;               ///< As the upload said, in its order.
  std::chrono::system_clock::time_point time;  ///< When it was complete.
};

/// A result report as it was received.
struct Report {
  std::string status;         ///< The device's text as it came: "Success", or what failed.
  std::string serial_number;  ///< As the report said; may be empty.
  std::chrono::system_clock::time_point time;
};

/// A ticket as others see it: without its token.
struct TicketView {
  std::string id;                 ///< Chosen by the service: 16 hex digits.
  std::vector<std::string> apps;  ///< As asked for, in that order.
  std::string device;             ///< Serial number; empty while any device will do.
  std::chrono::system_clock::time_point created;
  TicketChange last_change;
  std::optional<Upload> upload;  ///< The newest one.
  std::optional<Report> report;  ///< The newest one.
};

/// A connected device as others see it.
struct DeviceView {
  std::string serial_number;                        ///< Empty when the device knows none.
  std::string peer;                                 ///< Its address in gRPC's words, as it came.
  std::chrono::system_clock::time_point connected;  ///< When its Hello was accepted.
};

/// Number of a device's stream, never used twice; 0 is none.
using StreamId = std::uint64_t;

/// A delivery to write to a stream.
struct Delivery {
  StreamId stream = 0;
  std::string ticket_id;
  std::string ticket_json;  ///< {"token", "apps"}; the only place where the token leaves the book.
};

/// Why the service ends a stream.
enum class EndReason {
  kNoHello,        ///< It stayed silent for too long.
  kWrongProtocol,  ///< Its Hello names a version that is not known here.
  kProtocolError,  ///< It said something that has no meaning at this point.
  kReplaced,       ///< The same device has opened a newer one.
  kShutdown        ///< The service ends.
};

/// A stream to end; the book has forgotten it already.
struct StreamEnd {
  StreamId stream = 0;
  EndReason reason = EndReason::kShutdown;  ///< For the status's code.
  std::string text;                         ///< For the device's log.
};

/// What the gRPC front has to do next. It is handed out once; the book takes it for done.
struct Work {
  std::vector<StreamEnd> ends;       ///< First.
  std::vector<Delivery> deliveries;  ///< To streams that are none of those.
  bool closed = false;               ///< Close() was called: nothing comes after this.
};

class TicketBook {
 public:
  /// Tells the time that pauses and limits are measured by; a test passes its own.
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  /// How long the book waits for devices.
  struct Settings {
    std::chrono::milliseconds retry_pause{5000};   ///< Between a rejection and the next delivery.
    std::chrono::milliseconds hello_limit{10000};  ///< From a stream's start to its Hello.
  };

  /// @param events  Called with the book locked, so that lines come in the order of events.
  /// @param clock   For pauses and limits.
  TicketBook(const Settings& settings, EventSink events, Clock clock = std::chrono::steady_clock::now);

  // For the control front.

  /// Creates a ticket with a fresh id and token.
  /// @param apps    The applications whose data is wanted; may be none.
  /// @param device  Serial number, or empty for the first connected device.
  /// @return The ticket's id.
  /// @throws std::invalid_argument when the ticket would be too large to deliver.
  std::string CreateTicket(const std::vector<std::string>& apps, const std::string& device);

  /// The ticket as it is now; nothing for an id that the book never gave out.
  [[nodiscard]] std::optional<TicketView> Find(const std::string& ticket_id) const;
  [[nodiscard]] std::vector<TicketView> Tickets() const;  ///< Oldest first.
  [[nodiscard]] std::vector<DeviceView> Devices() const;  ///< In the order in which they connected.

  /// Waits until the ticket has changes beyond the first `seen`, the limit is over or the book is closed.
  /// @param seen   How many the caller knows of, 0 at first; raised past the changes returned.
  /// @param limit  How long to wait at most.
  /// @return The changes, oldest first; of a ticket that is rejected for ever only the newest are kept. Empty when none
  ///         came, and for an unknown ticket.
  std::vector<TicketChange> WaitForChanges(const std::string& ticket_id, std::uint64_t& seen,
                                           std::chrono::milliseconds limit);

  // For the gRPC front.

  /// A device has connected. It has Settings::hello_limit to say who it is.
  /// @param peer  Its address, for event lines.
  /// @return The new stream's number; 0 once the book is closed.
  StreamId OpenStream(const std::string& peer);

  /// The device's first message. An older stream of the same serial number is ended: the device has lost it, though the
  /// service may not have noticed yet.
  /// @param serial_number  Empty when the device knows none; it is then known by its stream alone.
  void Hello(StreamId stream, const std::string& serial_number, std::uint32_t protocol);

  /// The device's answer to a delivery. One that doesn't belong to a delivery on this stream is logged
  /// and ignored.
  /// @param reason  The device's own words, as they came; may be empty.
  void Answer(StreamId stream, const std::string& ticket_id, bool accepted, const std::string& reason);

  /// The device broke the protocol: its stream is ended, with `text` for its log.
  void ProtocolError(StreamId stream, const std::string& text);

  /// The device ended the stream or was lost; what it had not answered will be delivered again.
  void CloseStream(StreamId stream);

  /// What is due now. Does not wait.
  Work TakeWork();

  /// Waits until there is something to do.
  Work WaitForWork();

  /// Ends all streams, takes no new ones and wakes every waiting call. May be called again; nothing opens the book once
  /// more.
  void Close();

  /// Whether Close() was called.
  [[nodiscard]] bool closed() const;

  // For the HTTP front.

  /// @return The ticket whose token was handed out to a device and equals this one; nothing for any other text. How
  ///         long it takes tells nothing about the tokens.
  [[nodiscard]] std::optional<TicketView> FindByToken(const std::string& token) const;

  /// An archive of the ticket is complete and has its name; it takes the place of a former one.
  void RecordUpload(const std::string& ticket_id, const Upload& upload);
  /// The ticket's result came, which ends its road. A further one takes its place.
  void RecordReport(const std::string& ticket_id, const Report& report);

 private:
  struct Ticket {
    TicketView view;
    std::string token;                               ///< The upload credential; a secret.
    std::string json;                                ///< What is delivered, the token in it.
    StreamId stream = 0;                             ///< The newest stream it was delivered on.
    bool answer_due = false;                         ///< Delivered on `stream`, no answer yet.
    bool delivered_before = false;                   ///< Its token was handed out.
    std::chrono::steady_clock::time_point retry_at;  ///< While rejected.
    std::deque<TicketChange> changes;                ///< The newest ones.
    std::uint64_t changes_dropped = 0;               ///< Older ones than those.
  };

  struct Stream {
    std::string peer;
    std::string serial_number;                             ///< Empty before the Hello, too.
    bool greeted = false;                                  ///< Its Hello was accepted.
    std::chrono::steady_clock::time_point hello_deadline;  ///< While not greeted.
    std::chrono::system_clock::time_point connected;       ///< Once greeted.
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
  mutable std::mutex mutex_;            ///< Guards all that follows.
  std::condition_variable changed_;     ///< Something that a waiting call looks at is different.
  std::deque<Ticket> tickets_;          ///< In the order of creation.
  std::map<StreamId, Stream> streams_;  ///< The open ones.
  std::vector<StreamEnd> ends_;         ///< Not handed out yet.
  StreamId last_stream_ = 0;
  bool closed_ = false;
};

}  // namespace TarvoOrvane::SupportService
