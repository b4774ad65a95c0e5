/// The service's decisions: which ticket goes to which device's stream and when, and what becomes of it.
///
/// The book holds the open tickets and the connected streams. What happens becomes events, which it applies to its
/// tickets and hands out, together with what is to be done on the streams. The caller (Dispatcher) has the store
/// remember the events first, and carries the work out then. So nothing is said to a device or a person that a power
/// cut could take back. If the store fails, the caller has the book forget what it did (Reload()).
///
/// A ticket's road:
///
///     queued -> delivered -> accepted -> uploaded -> reported
///        ^          |
///        +----------+  rejected (after a pause), or the stream ended before the answer
///
/// and the other ends: refused, no result, cancelled, expired. HTTP and gRPC are two connections, so an upload or a
/// report may overtake the answer. It implies it.
///
/// Used by one thread, the dispatcher's.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "event_log.h"
#include "metrics.h"
#include "registry.h"
#include "store.h"

namespace TarvoOrvane::SupportService {

/// What an operator asks for.
struct NewTicket {
  std::string device;             ///< Serial number of an enrolled one.
  std::vector<std::string> apps;  ///< The applications whose data is wanted; may be none.
  std::string note = {};          ///< For people: why.
  std::string requested_by = {};  ///< As the audit names them.
  std::optional<std::chrono::hours> lifetime =
      {};  ///< Not accepted for so long, it expires; Settings::lifetime.
};

/// What is going on with a device.
struct DeviceView {
  std::string serial_number;
  bool connected = false;
  std::string peer;          ///< While connected: its address in gRPC's words, as it came.
  WallTime connected_since;  ///< While connected: when its Hello was accepted.
  std::string twin;  ///< Address of another machine with this serial number; empty as long as there is none.
  std::size_t open_tickets = 0;
};

/// Number of a device's stream, never used twice in a process; 0 is none.
using StreamId = std::uint64_t;

/// A delivery to write to a stream.
struct Delivery {
  StreamId stream = 0;
  std::string ticket_id;
  std::string ticket_json;  ///< {"apps", "token"}; the only place where a token leaves the book.
};

/// Why the service ends a stream.
enum class EndReason {
  kTooMany,   ///< There are as many streams as the service takes.
  kNoHello,   ///< It stayed silent for too long.
  kBadHello,  ///< Its Hello names a protocol that is not known here, or no serial number that can be used.
  kStranger,  ///< It has not shown that it is the device it says it is, or that one is not to get in.
  kProtocolError,  ///< It said something that has no meaning at this point.
  kReplaced,       ///< The same device has opened a newer one.
  kTwin,           ///< Two machines have one serial number, and this is the one that came later.
  kNoAnswer,       ///< A ticket was delivered, and not answered in time.
  kShutdown        ///< The service ends.
};

/// A stream to end; the book has forgotten it already.
struct StreamEnd {
  StreamId stream = 0;
  EndReason reason = EndReason::kShutdown;  ///< For the status's code.
  std::string text;                         ///< For the device's log.
};

/// What is to be done on the streams, once the entries that came with it are remembered.
struct Work {
  std::vector<StreamEnd> ends;       ///< First.
  std::vector<Delivery> deliveries;  ///< To streams that are none of those.
};

/// What became of an upload.
enum class UploadFate {
  kKept,      ///< It is the ticket's newest version.
  kRepeated,  ///< The ticket has an archive of this content, whose file this one's may have to replace.
  kTooMany,   ///< The ticket has as many versions as are kept. This one is to be deleted.
  kBlocked,   ///< The device was blocked meanwhile. This one is to be deleted.
  kTaken,     ///< Another archive had this version, and was deleted since. The device may try again.
  kUnwanted   ///< The ticket has come to an end that takes none. This one is to be deleted.
};

/// What the book has in hand.
struct BookView {
  std::size_t streams = 0;
  std::size_t silent_streams = 0;  ///< Those without Hello.
  std::size_t devices = 0;         ///< Connected ones.
  /// How many tickets are in each state that is not an end, by the state's number.
  std::array<std::size_t, std::size(kTicketStates) + 1> tickets{};
  std::size_t open_tickets = 0;
  std::size_t longest_queue = 0;  ///< So many tickets wait for the device for which most do.
};

/// Something was refused because there is as much of it as the service takes. It may be taken later.
class LimitReached : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

class TicketBook {
 public:
  using Clock = MomentClock;

  /// Whom the book believes, and how long it waits for devices.
  struct Settings {
    Trust trust = Trust::kOwnAuthority;
    // From a stream's start to its Hello, and from a delivery to the answer.
    std::chrono::milliseconds hello_limit{10'000};
    std::chrono::milliseconds answer_limit{60'000};
    // After a rejection. The pause doubles with each one.
    std::chrono::milliseconds retry_pause{2'000};
    std::chrono::milliseconds longest_retry_pause{600'000};
    // So long after a device's report its rejections don't count, and so long there may be nothing but rejections.
    std::chrono::seconds busy_after_report{30};
    std::chrono::hours rejections_limit{24};
    // From accepted or uploaded. The daemon ends after 1200 + 2 * (5 * 1800 + 4) s.
    std::chrono::minutes overdue_after{30};
    std::chrono::hours result_limit{6};
    // Of a ticket that no device accepts.
    std::chrono::hours lifetime{14 * 24};
    // More takeovers of one number in so long are those of twins.
    std::chrono::minutes twin_window{10};
    std::size_t takeovers_in_window = 3;
    // Of one ticket, of the service, and of those streams without Hello: anybody may open them.
    std::size_t most_archives = 16;
    std::size_t most_streams = 20'000;
    std::size_t most_silent_streams = 1'000;
    // That wait for one device, and that are not at their end.
    std::size_t most_queued = 100;
    std::size_t most_open = 100'000;
  };

  /// Takes up the tickets that are open. What was delivered and not answered is queued again.
  /// @param store    Only read here. It lives longer than the book.
  /// @param events   Takes the lines about streams; those about tickets are the caller's.
  /// @param metrics  Told of the limits that are met. Lives longer than the book.
  /// @throws StoreError when the store can't be read.
  TicketBook(const Settings& settings, const Store& store, EventSink events, Metrics& metrics,
             Clock clock = Now);

  /// Takes these limits and pauses from now on. What exceeds a limit already stays. The trust does not change.
  void SetSettings(const Settings& settings);

  // For operators. Each of these throws std::invalid_argument with what is wrong and what to do; nothing has changed
  // then.

  /// Creates a ticket.
  /// @return What it is: its id is new.
  /// @throws LimitReached when too many wait.
  Ticket Create(const NewTicket& wanted);
  /// Takes back a ticket that no device has yet.
  /// @param who  For the ticket's events.
  /// @return What it is now.
  Ticket Cancel(TicketNumber number, const std::string& who);
  /// Blocks a device, which ends its stream, or lets it in again.
  EnrolledDevice SetBlocked(const std::string& serial_number, bool blocked);
  /// Notes that an archive is not to be kept any more. Its file is deleted once that is remembered.
  /// @param who  For the ticket's events.
  void DeleteArchive(TicketNumber number, std::uint64_t version, const std::string& who);
  /// Whether the ticket is not at its end, by what is remembered and what is not yet.
  [[nodiscard]] bool IsInPlay(TicketNumber number) const;
  /// The archives that are deleted, which the store does not know yet.
  /// @param device  Only those of this one's tickets.
  [[nodiscard]] ArchiveTotals DeletedSince(const std::optional<std::string>& device) const;
  /// Whatever the serial number is.
  [[nodiscard]] DeviceView View(const std::string& serial_number) const;
  /// The connected devices by serial number, at most `limit` of them.
  /// @param beginning, after  As Store::Devices() has them.
  [[nodiscard]] std::vector<DeviceView> Connected(const std::string& beginning, const std::string& after,
                                                  std::size_t limit) const;
  [[nodiscard]] BookView Overview() const;
  /// Devices, accounts and the audit.
  [[nodiscard]] Registry& registry() { return registry_; }

  // For the streams. What a device says may arrive after the book has ended its stream; it is passed over.

  /// A device has connected. It has Settings::hello_limit to say who it is.
  /// @param stream  A number that no stream had before.
  /// @param peer    Its address, for event lines.
  void OpenStream(StreamId stream, const std::string& peer);
  /// The device's first message. Only an enrolled device gets in, and not on its word alone unless that is trusted. An
  /// older stream of the same serial number is ended: the device has lost it, though the
  /// service may not have noticed yet. If that happens too often there are two machines with this number. Then nothing
  /// is delivered to either, the older stream stays and newer ones are ended, until no newer one has come for
  /// Settings::twin_window.
  /// @param certificate_name  The common name in the client certificate; nothing without a valid one.
  void Hello(StreamId stream, const std::string& serial_number, std::uint32_t protocol,
             const std::optional<std::string>& certificate_name);
  /// The device's answer to a delivery. One that doesn't belong to a delivery on this stream is logged and ignored.
  /// @param reason  The device's own words, as they came; may be empty.
  void Answer(StreamId stream, const std::string& ticket_id, bool accepted, const std::string& reason);
  /// The device broke the protocol: its stream is ended, with `text` for its log.
  void ProtocolError(StreamId stream, const std::string& text);
  /// The device ended the stream or was lost; what it had not answered will be delivered again.
  void CloseStream(StreamId stream);

  // For the file server.

  /// An archive of the ticket is complete, and its file has its name.
  UploadFate RecordUpload(TicketNumber number, const Archive& archive);
  /// The ticket's result came. A further one changes nothing.
  /// @param status  The device's text as it came.
  /// @return false when the ticket has come to an end that takes none, or its device was blocked meanwhile.
  bool RecordReport(TicketNumber number, const std::string& status);

  // For the dispatcher.

  /// Does what is due: ends overdue streams, expires, delivers.
  void Advance();
  /// When Advance() will have something to do if nothing happens before.
  [[nodiscard]] std::optional<std::chrono::steady_clock::time_point> NextDeadline() const;
  /// What happened since the last call, for the store.
  /// @param all  Also what may wait, as at the service's end.
  [[nodiscard]] std::vector<Change> TakeChanges(bool all = false);
  /// What is to be done since the last call.
  [[nodiscard]] Work TakeWork();
  /// The entries are remembered: tickets that are at their end are forgotten here.
  void Settle();
  /// The entries could not be remembered: takes the tickets up anew, as the store has them, and drops the deliveries
  /// that were not carried out. The streams stay.
  /// @throws StoreError when the store can't be read; this is to be called again then.
  void Reload();
  /// Ends all streams.
  void CloseAllStreams();

 private:
  using SteadyTime = std::chrono::steady_clock::time_point;

  /// A ticket in play, with the times that its limits are measured from.
  struct OpenTicket {
    Ticket ticket;
    SteadyTime since;  ///< Ticket::since by the other clock, as all of these.
    SteadyTime deadline;
    std::optional<SteadyTime> rejected_since;
    SteadyTime retry_at;            ///< While queued: not before.
    std::optional<SteadyTime> due;  ///< What stands in `timers_` for it.
    StreamId stream = 0;            ///< While delivered: the stream that it was written to.
    EventNumber delivery = 0;       ///< The event of that.
  };

  struct Stream {
    std::string peer;
    std::string serial_number;  ///< Empty before the Hello.
    SteadyTime hello_deadline;  ///< Before the Hello.
    WallTime connected;         ///< Behind it.
  };

  /// A serial number that has a stream, open tickets or a recent report.
  struct Device {
    StreamId stream = 0;  ///< 0: not connected.
    std::set<TicketNumber> queued;
    std::set<TicketNumber> in_hand;  ///< Delivered, accepted and uploaded ones: few.
    std::optional<SteadyTime> last_report;
    std::list<SteadyTime> takeovers;     ///< Within the window, no more than tell twins.
    bool has_twin = false;               ///< Two machines have this number.
    std::string twin;                    ///< Address of the other one.
    std::optional<SteadyTime> quiet_at;  ///< When the last takeover is out of the window.
  };

  void TakeUp(Ticket ticket, const Moment& now);
  OpenTicket* FindOpen(TicketNumber number);
  OpenTicket* FindOrLoad(TicketNumber number);
  void CheckLimits(const NewTicket& wanted) const;
  [[nodiscard]] std::string ReasonText(const std::string& reason) const;
  void Count(TicketState state, int change);
  OpenTicket* DeliveredOn(StreamId stream, const std::string& ticket_id);
  Entry& Record(OpenTicket& open, EventKind kind, std::string text);
  void Sort(const Ticket& ticket);
  void CountQueue(std::size_t before, std::size_t after);
  void SetTimer(OpenTicket& open);
  [[nodiscard]] std::optional<SteadyTime> DueOf(const OpenTicket& open) const;
  void Reject(OpenTicket& open, const std::string& reason);
  void Supersede(OpenTicket& open);
  void HandleDue(OpenTicket& open, SteadyTime now);
  void EndSilentStreams(SteadyTime now);
  [[nodiscard]] std::string AdmissionFault(const std::string& serial_number,
                                           const std::optional<std::string>& certificate_name) const;
  [[nodiscard]] bool IsBlocked(const std::string& serial_number) const;
  [[nodiscard]] DeviceView ViewOf(const std::string& serial_number, const Device& device) const;
  bool IsTakenForTwin(StreamId stream, const std::string& serial_number);
  void ForgetTakeovers(SteadyTime now);
  void DeliverDue(const std::string& serial_number, SteadyTime now);
  OpenTicket* FirstInLine(const Device& device);
  void Deliver(OpenTicket& open, StreamId stream);
  void Requeue(const Device& device, StreamId stream, const std::string& cause);
  void EndStream(StreamId stream, EndReason reason, const std::string& text);
  void Release(StreamId stream, const std::string& cause);
  void ForgetIdle(const std::string& serial_number);

  Settings settings_;
  const Store& store_;
  const EventSink events_;
  Metrics& metrics_;
  const Clock clock_;
  Registry registry_;
  const LimitedEvents strangers_;               ///< For what anybody can cause.
  std::map<TicketNumber, OpenTicket> tickets_;  ///< The open ones, and ended ones until Settle().
  std::map<StreamId, Stream> streams_;          ///< The open ones.
  std::map<std::string, Device> devices_;       ///< By serial number.
  std::set<std::string> connected_;             ///< Serial numbers that have a stream.
  std::set<std::pair<SteadyTime, TicketNumber>> timers_;
  std::set<std::pair<SteadyTime, StreamId>> greetings_;     ///< The streams without Hello, by their deadline.
  std::set<std::pair<SteadyTime, std::string>> takeovers_;  ///< Serial numbers, by Device::quiet_at.
  std::set<std::string> stirred_;                           ///< Devices to look at in Advance().
  std::set<TicketNumber> ended_;                            ///< Tickets to forget in Settle().
  std::array<std::size_t, std::size(kTicketStates) + 1> counts_{};  ///< BookView::tickets.
  std::map<std::size_t, std::size_t>
      queue_lengths_;           ///< How many devices have a queue so long; none is 0 long.
  std::vector<Entry> entries_;  ///< Not taken yet.
  Work work_;                   ///< Not taken yet.
  EventNumber last_event_ = 0;
  TicketNumber last_ticket_ = 0;
};

}  // namespace TarvoOrvane::SupportService
