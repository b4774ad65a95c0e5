/// A ticket and what has happened to it.
///
/// Events are what is remembered; a ticket's state follows from them. Apply() is the only place that says how.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace TarvoOrvane::SupportService {

/// The time that people read, in UTC. Pauses and limits are measured by a clock that nobody sets.
using WallTime = std::chrono::system_clock::time_point;

/// Where a ticket is on its road.
enum class TicketState {
  kQueued = 1,  ///< For its device to connect, or to be free.
  kDelivered,   ///< Written to the device's stream; no answer yet.
  kAccepted,    ///< The device works on it.
  kUploaded,    ///< A complete archive came.
  kReported,    ///< The device told what came of it. The end.
  kRefused,     ///< The device can't take it, or has been busy for a day. The end.
  kNoResult,  ///< The device fell silent after it had accepted. The end, unless an upload or a report still comes.
  kCancelled,  ///< An operator took it back. The end.
  kExpired     ///< Its deadline passed before the device accepted it. The end.
};

/// Every state, in the order of the enumeration.
inline constexpr TicketState kTicketStates[] = {
    TicketState::kQueued,   TicketState::kDelivered, TicketState::kAccepted,
    TicketState::kUploaded, TicketState::kReported,  TicketState::kRefused,
    TicketState::kNoResult, TicketState::kCancelled, TicketState::kExpired};

/// "queued", "no result" and so on.
[[nodiscard]] const char* ToText(TicketState state);

/// Whether the service still has something to do or to wait for.
[[nodiscard]] bool IsOpen(TicketState state);

/// Whether an upload or a report still counts.
[[nodiscard]] bool TakesResults(TicketState state);

/// What can happen to a ticket. The numbers are stored: they are never used for something else.
enum class EventKind {
  kCreated = 1,
  kDelivered = 2,    ///< Text: the device's address.
  kStreamEnded = 3,  ///< Before the answer. Text: why.
  kAccepted = 4,
  kRejected = 5,   ///< Without a reason: the device is busy.
  kStillBusy = 6,  ///< Rejected right behind a report, which comes before the device is free. Does not count.
  kRefused = 7,    ///< Text: why, and what to do on the device.
  kUploaded = 8,   ///< Text: size and hash.
  kReported = 9,   ///< Text: the device's own, as it came.
  kOverdue = 10,   ///< It takes unusually long. The device's next ticket may be tried.
  kNoResult = 11,  ///< Text: why nothing is waited for any more.
  kCancelled = 12,  ///< Text: who.
  kExpired = 13,
  kArchiveDeleted = 14  ///< Text: which version, by whom or why.
};

/// Every kind, in the order of the enumeration.
inline constexpr EventKind kEventKinds[] = {
    EventKind::kCreated,  EventKind::kDelivered,     EventKind::kStreamEnded, EventKind::kAccepted,
    EventKind::kRejected, EventKind::kStillBusy,     EventKind::kRefused,     EventKind::kUploaded,
    EventKind::kReported, EventKind::kOverdue,       EventKind::kNoResult,    EventKind::kCancelled,
    EventKind::kExpired,  EventKind::kArchiveDeleted};

/// "created", "stream ended" and so on.
[[nodiscard]] const char* ToText(EventKind kind);

/// Number of an event among all of them, counted from 1. A later event has a larger number.
using EventNumber = std::uint64_t;
/// Number of a ticket among all of them, counted from 1 in the order of creation.
using TicketNumber = std::uint64_t;

/// One thing that happened to a ticket.
struct Event {
  EventNumber number = 0;
  TicketNumber ticket = 0;
  EventKind kind = EventKind::kCreated;
  std::string text;  ///< For kReported the device's text as it came, whatever its bytes; else printable.
  WallTime time;     ///< When the service learned of it, to the millisecond.
};

/// A complete archive as it was received.
struct Archive {
  std::uint64_t version = 0;  ///< Unique for the ticket, and growing. Not every number is used.
  std::uint64_t size_bytes = 0;
  std::string sha256;               ///< Lower-case hex.
  std::string serial_number;        ///< As the upload said; may be empty.
  std::vector<std::string> apps;    ///< As the upload said, in its order.
  WallTime received;                ///< When it was complete, to the millisecond.
  std::optional<WallTime> deleted;  ///< There is no file any more since then.
  std::string deletion;             ///< By whom it was deleted, or why.
};

/// A ticket as it is now. It has no token: those exist as hashes, and only in the store.
struct Ticket {
  // What was asked for.
  TicketNumber number = 0;
  std::string id;                 ///< For people and on the wire: 16 hex digits.
  std::string device;             ///< Serial number.
  std::vector<std::string> apps;  ///< In the order asked for.
  std::string note;               ///< For people: why. UTF-8.
  std::string requested_by;       ///< As the audit names them.
  WallTime created;               ///< To the millisecond, as all times here.
  WallTime deadline;              ///< Still queued then, it expires.

  // What follows from its events.
  TicketState state = TicketState::kQueued;
  WallTime since;                          ///< When it came into that state.
  bool overdue = false;                    ///< Accepted or uploaded for so long that the next one is tried.
  std::uint64_t rejections = 0;            ///< That count, one after the other.
  std::optional<WallTime> rejected_since;  ///< The first of those.
  EventNumber last_event = 0;              ///< The newest of its events.
  std::string last_text;                   ///< Its text.
  std::optional<std::string> report;       ///< The device's text as it came.
  std::vector<Archive> archives;           ///< In the order of their versions. No event changes them.
};

/// Changes the ticket as the event says. Any order of events is taken: what has no meaning in a state changes nothing
/// but `last_event` and `last_text`.
void Apply(const Event& event, Ticket& ticket);

/// Whether a request that comes now with one of the ticket's tokens is taken: its results count, and its report is not
/// older than a day.
[[nodiscard]] bool TakesRequests(const Ticket& ticket, WallTime now);

/// What a report's text says, for people and programs that look for known outcomes.
enum class Outcome { kSuccess, kNothingCollected, kNothingUploaded, kUnknown };

/// Every outcome, in the order of the enumeration.
inline constexpr Outcome kOutcomes[] = {Outcome::kSuccess, Outcome::kNothingCollected,
                                        Outcome::kNothingUploaded, Outcome::kUnknown};

/// "success", "nothing_collected" and so on.
[[nodiscard]] const char* ToText(Outcome outcome);

/// @param report  A device's text as it came.
[[nodiscard]] Outcome OutcomeOf(const std::string& report);

}  // namespace TarvoOrvane::SupportService
