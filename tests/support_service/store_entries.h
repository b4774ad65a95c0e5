/// What the tests of the stores write and compare.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "store.h"

namespace TarvoOrvane::SupportService {

/// Makes entries as the service does: events are numbered on, and a ticket is the sum of its events.
class EntryMaker {
 public:
  /// 16 hex digits, in another order than the numbers.
  static std::string IdOf(TicketNumber number) {
    char text[17];
    static_cast<void>(std::snprintf(text, sizeof text, "%016llx", number * 0x9e3779b97f4a7c15ULL));
    return text;
  }

  /// A new ticket has the number behind that of the last one.
  Entry Created(const std::string& device = "SN1", const std::vector<std::string>& apps = {"demo"}) {
    const TicketNumber number = tickets_.size() + 1;
    Ticket& ticket = tickets_[number];
    ticket.number = number;
    ticket.id = IdOf(number);
    ticket.device = device;
    ticket.apps = apps;
    ticket.created = TimeOf(last_event_ + 1);
    ticket.deadline = ticket.created + std::chrono::hours(24);
    return Next(number, EventKind::kCreated);
  }

  Entry Next(TicketNumber number, EventKind kind, const std::string& text = "") {
    Entry entry;
    ++last_event_;
    entry.event = {last_event_, number, kind, text, TimeOf(last_event_)};
    Apply(entry.event, tickets_[number]);
    entry.ticket = tickets_[number];
    return entry;
  }

  Entry Delivered(TicketNumber number, const SecretHash& token) {
    Entry entry = Next(number, EventKind::kDelivered, "192.0.2.1");
    entry.token = token;
    return entry;
  }

  Entry Uploaded(TicketNumber number, const Archive& archive) {
    Entry entry = Next(number, EventKind::kUploaded, "214 KiB");
    entry.archive = archive;
    return entry;
  }

  /// So many new tickets.
  std::vector<Entry> ManyCreated(std::size_t count, const std::string& device = "SN1") {
    std::vector<Entry> entries;
    entries.reserve(count);
    for (std::size_t i = 0; i < count; ++i) entries.push_back(Created(device));
    return entries;
  }

  [[nodiscard]] Ticket ticket(TicketNumber number) const { return tickets_.at(number); }

 private:
  static WallTime TimeOf(EventNumber event) {
    return WallTime(std::chrono::milliseconds(1'700'000'000'000 + event));
  }

  EventNumber last_event_ = 0;
  std::map<TicketNumber, Ticket> tickets_;
};

inline std::vector<Change> ChangesOf(const std::vector<Entry>& entries) {
  return {entries.begin(), entries.end()};
}

/// A hash that no other number gives.
inline SecretHash HashOf(unsigned char number) {
  SecretHash hash{};
  hash.back() = number;
  return hash;
}

inline Archive ArchiveOf(std::uint64_t version) {
  return {version, 214'000, "abcd", "SN1", {"demo"}, WallTime(std::chrono::milliseconds(1'700'000'000'123)),
          {},      {}};
}

// All members, to compare.

inline auto MembersOf(const Event& event) {
  return std::make_tuple(event.number, event.ticket, event.kind, event.text, event.time);
}
inline auto MembersOf(const Archive& archive) {
  return std::make_tuple(archive.version, archive.size_bytes, archive.sha256, archive.serial_number,
                         archive.apps, archive.received, archive.deleted, archive.deletion);
}
inline auto MembersOf(const Ticket& ticket) {
  std::vector<decltype(MembersOf(Archive()))> archives;
  archives.reserve(ticket.archives.size());
  for (const Archive& archive : ticket.archives) archives.push_back(MembersOf(archive));
  return std::make_tuple(ticket.number, ticket.id, ticket.device, ticket.apps, ticket.note,
                         ticket.requested_by, ticket.created, ticket.deadline, ticket.state, ticket.since,
                         ticket.overdue, ticket.rejections, ticket.rejected_since, ticket.last_event,
                         ticket.last_text, ticket.report, archives);
}

inline std::vector<TicketNumber> NumbersOf(const std::vector<Ticket>& tickets) {
  std::vector<TicketNumber> numbers;
  numbers.reserve(tickets.size());
  for (const Ticket& ticket : tickets) numbers.push_back(ticket.number);
  return numbers;
}
inline std::vector<EventNumber> NumbersOf(const std::vector<Event>& events) {
  std::vector<EventNumber> numbers;
  numbers.reserve(events.size());
  for (const Event& event : events) numbers.push_back(event.number);
  return numbers;
}

}  // namespace TarvoOrvane::SupportService
