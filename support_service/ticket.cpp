#include "ticket.h"

namespace TarvoOrvane::SupportService {
namespace {

/// A device whose answer was lost sends again, and may have to wait until it is on line again.
constexpr std::chrono::hours kTokenGrace{24};

/// Between a rejection and the next delivery, if the device is there.
constexpr std::chrono::minutes kLongerThanAnyPause{20};

void Enter(TicketState state, const Event& event, Ticket& ticket) {
  ticket.state = state;
  ticket.since = event.time;
  ticket.overdue = false;
}

void ForgetRejections(Ticket& ticket) {
  ticket.rejections = 0;
  ticket.rejected_since.reset();
}

/// The device has taken the ticket: what it rejected before is of no interest any more.
void EnterTaken(TicketState state, const Event& event, Ticket& ticket) {
  Enter(state, event, ticket);
  ForgetRejections(ticket);
}

bool IsBeforeAnswer(TicketState state) {
  return state == TicketState::kQueued || state == TicketState::kDelivered;
}

}  // namespace

const char* ToText(TicketState state) {
  switch (state) {
    case TicketState::kQueued:
      return "queued";
    case TicketState::kDelivered:
      return "delivered";
    case TicketState::kAccepted:
      return "accepted";
    case TicketState::kUploaded:
      return "uploaded";
    case TicketState::kReported:
      return "reported";
    case TicketState::kRefused:
      return "refused";
    case TicketState::kNoResult:
      return "no result";
    case TicketState::kCancelled:
      return "cancelled";
    case TicketState::kExpired:
      return "expired";
  }
  return "unknown";
}

const char* ToText(EventKind kind) {
  switch (kind) {
    case EventKind::kCreated:
      return "created";
    case EventKind::kDelivered:
      return "delivered";
    case EventKind::kStreamEnded:
      return "stream ended";
    case EventKind::kAccepted:
      return "accepted";
    case EventKind::kRejected:
      return "rejected";
    case EventKind::kStillBusy:
      return "still busy";
    case EventKind::kRefused:
      return "refused";
    case EventKind::kUploaded:
      return "uploaded";
    case EventKind::kReported:
      return "reported";
    case EventKind::kOverdue:
      return "overdue";
    case EventKind::kNoResult:
      return "no result";
    case EventKind::kCancelled:
      return "cancelled";
    case EventKind::kExpired:
      return "expired";
    case EventKind::kArchiveDeleted:
      return "archive deleted";
  }
  return "unknown";
}

bool IsOpen(TicketState state) {
  return IsBeforeAnswer(state) || state == TicketState::kAccepted || state == TicketState::kUploaded;
}

bool TakesResults(TicketState state) {
  return IsOpen(state) || state == TicketState::kReported || state == TicketState::kNoResult;
}

void Apply(const Event& event, Ticket& ticket) {
  ticket.last_event = event.number;
  ticket.last_text = event.text;
  const bool before_answer = IsBeforeAnswer(ticket.state);
  const bool taken = IsOpen(ticket.state) && !before_answer;
  switch (event.kind) {
    case EventKind::kCreated:
      return Enter(TicketState::kQueued, event, ticket);
    case EventKind::kDelivered:
      if (ticket.state != TicketState::kQueued) return;
      // It stood in the queue for longer than any pause, so the device was away, and may be another one now.
      if (event.time - ticket.since > kLongerThanAnyPause) ForgetRejections(ticket);
      return Enter(TicketState::kDelivered, event, ticket);
    case EventKind::kStreamEnded:
    case EventKind::kStillBusy:
      if (ticket.state == TicketState::kDelivered) Enter(TicketState::kQueued, event, ticket);
      return;
    case EventKind::kRejected:
      if (ticket.state != TicketState::kDelivered) return;
      Enter(TicketState::kQueued, event, ticket);
      ++ticket.rejections;
      if (!ticket.rejected_since) ticket.rejected_since = event.time;
      return;
    case EventKind::kAccepted:
      if (before_answer) EnterTaken(TicketState::kAccepted, event, ticket);
      return;
    case EventKind::kUploaded:
      // An upload may overtake the answer, and implies it. Behind a report, or when nothing was waited for any more, it
      // is one more archive.
      if (before_answer || taken) EnterTaken(TicketState::kUploaded, event, ticket);
      return;
    case EventKind::kReported:
      if (!TakesResults(ticket.state) || ticket.report) return;
      EnterTaken(TicketState::kReported, event, ticket);
      ticket.report = event.text;
      return;
    case EventKind::kOverdue:
      if (taken) ticket.overdue = true;
      return;
    case EventKind::kNoResult:
      if (taken) Enter(TicketState::kNoResult, event, ticket);
      return;
    case EventKind::kRefused:
      if (before_answer) Enter(TicketState::kRefused, event, ticket);
      return;
    case EventKind::kCancelled:
      if (ticket.state == TicketState::kQueued) Enter(TicketState::kCancelled, event, ticket);
      return;
    case EventKind::kExpired:
      if (ticket.state == TicketState::kQueued) Enter(TicketState::kExpired, event, ticket);
      return;
    case EventKind::kArchiveDeleted:
      return;
  }
}

bool TakesRequests(const Ticket& ticket, WallTime now) {
  if (!TakesResults(ticket.state)) return false;
  return ticket.state != TicketState::kReported || now - ticket.since < kTokenGrace;
}

const char* ToText(Outcome outcome) {
  switch (outcome) {
    case Outcome::kSuccess:
      return "success";
    case Outcome::kNothingCollected:
      return "nothing_collected";
    case Outcome::kNothingUploaded:
      return "nothing_uploaded";
    case Outcome::kUnknown:
      return "unknown";
  }
  return "unknown";
}

Outcome OutcomeOf(const std::string& report) {
  if (report == "Success") return Outcome::kSuccess;
  if (report == "Failed to generate debug file") return Outcome::kNothingCollected;
  if (report == "Failed to upload debug file to server") return Outcome::kNothingUploaded;
  return Outcome::kUnknown;
}

}  // namespace TarvoOrvane::SupportService
