#include "memory_store.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace TarvoOrvane::SupportService {
namespace {

constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

/// Adds what comes with the event.
template <typename Map, typename Key, typename Value>
void AddOnce(Map& map, const Key& key, const Value& value) {
  if (!map.emplace(key, value).second) throw StoreError("what is to be added is there already");
}

}  // namespace

void MemoryStore::Write(const std::vector<Entry>& entries) {
  if (fails_) throw StoreError("the store in memory was told to fail");
  const std::lock_guard<std::mutex> lock(mutex_);
  Records changed;  // copies, until each entry is known to be taken
  std::map<TokenHash, TicketNumber> tokens;
  for (const Entry& entry : entries) {
    Record& record = RecordFor(entry, changed);
    record.ticket = entry.ticket;
    record.events.push_back(entry.event);
    if (entry.token) {
      if (tokens_.count(*entry.token) != 0) throw StoreError("the token is there already");
      AddOnce(tokens, *entry.token, entry.ticket.number);
    }
    if (entry.archive) AddOnce(record.archives, entry.archive->version, *entry.archive);
  }
  for (auto& [number, record] : changed) records_[number] = std::move(record);
  tokens_.merge(tokens);
  if (!entries.empty()) last_event_ = entries.back().event.number;
}

/// The record to change, copied to `changed` when it is not there.
MemoryStore::Record& MemoryStore::RecordFor(const Entry& entry, Records& changed) const {
  const TicketNumber number = entry.ticket.number;
  const auto stored = records_.find(number);
  const bool exists = stored != records_.end() || changed.count(number) != 0;
  if (exists == (entry.event.kind == EventKind::kCreated)) {
    throw StoreError(exists ? "the ticket was created before" : "the ticket was not created");
  }
  if (stored != records_.end()) changed.insert(*stored);
  return changed[number];
}

EventNumber MemoryStore::LastEvent() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return last_event_;
}

TicketNumber MemoryStore::LastTicket() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return records_.empty() ? 0 : records_.rbegin()->first;
}

Ticket MemoryStore::TicketOf(const Record& record) {
  Ticket ticket = record.ticket;
  ticket.archives.clear();
  for (const auto& [version, archive] : record.archives) ticket.archives.push_back(archive);
  return ticket;
}

/// The tickets for which the choice holds, newest first, at most `limit` of them.
template <typename Choice>
std::vector<Ticket> MemoryStore::TicketsThat(const Choice& choice, std::size_t limit) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Ticket> tickets;
  for (auto record = records_.rbegin(); record != records_.rend() && tickets.size() < limit; ++record) {
    if (choice(record->second.ticket)) tickets.push_back(TicketOf(record->second));
  }
  return tickets;
}

std::vector<Ticket> MemoryStore::OpenTickets() const {
  std::vector<Ticket> tickets = TicketsThat([](const Ticket& ticket) { return IsOpen(ticket.state); }, kAll);
  std::reverse(tickets.begin(), tickets.end());
  return tickets;
}

std::optional<Ticket> MemoryStore::Find(TicketNumber number) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto record = records_.find(number);
  if (record == records_.end()) return std::nullopt;
  return TicketOf(record->second);
}

std::vector<Ticket> MemoryStore::FindById(const std::string& beginning, std::size_t limit) const {
  return TicketsThat(
      [&](const Ticket& ticket) { return ticket.id.compare(0, beginning.size(), beginning) == 0; }, limit);
}

std::optional<Ticket> MemoryStore::FindByToken(const TokenHash& hash) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto token = tokens_.find(hash);
  if (token == tokens_.end()) return std::nullopt;
  return TicketOf(records_.at(token->second));
}

std::vector<Ticket> MemoryStore::List(const TicketFilter& filter, std::size_t limit) const {
  return TicketsThat(
      [&](const Ticket& ticket) {
        return (!filter.device || ticket.device == *filter.device) &&
               (!filter.state || ticket.state == *filter.state) &&
               (filter.before == 0 || ticket.number < filter.before);
      },
      limit);
}

std::vector<Event> MemoryStore::EventsOf(TicketNumber ticket, EventNumber after, std::size_t limit) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Event> events;
  const auto record = records_.find(ticket);
  if (record == records_.end()) return events;
  for (const Event& event : record->second.events) {
    if (event.number > after && events.size() < limit) events.push_back(event);
  }
  return events;
}

std::vector<ArchiveName> MemoryStore::Archives() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<ArchiveName> names;
  for (const auto& [number, record] : records_) {
    for (const auto& [version, archive] : record.archives) names.push_back({record.ticket.id, version});
  }
  return names;
}

}  // namespace TarvoOrvane::SupportService
