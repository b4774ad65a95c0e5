#include "memory_store.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <tuple>
#include <utility>
#include <variant>

namespace TarvoOrvane::SupportService {
namespace {

constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

/// Adds what comes with the event.
template <typename Map, typename Key, typename Value>
void AddOnce(Map& map, const Key& key, const Value& value) {
  if (!map.emplace(key, value).second) throw StoreError("what is to be added is there already");
}

template <typename Map, typename Key>
auto ValueOf(const Map& map, const Key& key) -> std::optional<typename Map::mapped_type> {
  const auto found = map.find(key);
  if (found == map.end()) return std::nullopt;
  return found->second;
}

template <typename Map>
auto ValuesOf(const Map& map) {
  std::vector<typename Map::mapped_type> values;
  values.reserve(map.size());
  for (const auto& [key, value] : map) values.push_back(value);
  return values;
}

template <typename Map, typename Choice>
void EraseThose(Map& map, const Choice& choice) {
  for (auto each = map.begin(); each != map.end();) {
    each = choice(each->second) ? map.erase(each) : std::next(each);
  }
}

}  // namespace

/// Takes up one change. Tickets and tokens are changed in copies, since these may be refused; the rest can't be.
struct MemoryStore::Writer {
  Content& content;
  std::map<TicketNumber, Record> tickets = {};
  std::map<SecretHash, TicketNumber> tokens = {};
  EventNumber last_event = 0;

  void operator()(const Entry& entry) {
    const TicketNumber number = entry.ticket.number;
    const bool is_new = entry.event.kind == EventKind::kCreated;
    const auto stored = content.tickets.find(number);
    if (stored != content.tickets.end()) tickets.insert(*stored);
    if (is_new == (tickets.count(number) != 0)) {
      throw StoreError(is_new ? "the ticket was created before" : "the ticket was not created");
    }
    Record& record = tickets[number];
    record.ticket = entry.ticket;
    record.events.push_back(entry.event);
    if (entry.token && content.tokens.count(*entry.token) != 0) {
      throw StoreError("the token is there already");
    }
    if (entry.token) AddOnce(tokens, *entry.token, number);
    if (entry.archive && entry.archive->deleted) record.archives[entry.archive->version] = *entry.archive;
    if (entry.archive && !entry.archive->deleted) {
      AddOnce(record.archives, entry.archive->version, *entry.archive);
    }
    last_event = entry.event.number;
  }
  void operator()(const EnrolledDevice& device) const { content.devices[device.serial_number] = device; }
  void operator()(const DeviceSeen& seen) const {
    const auto device = content.devices.find(seen.serial_number);
    if (device == content.devices.end()) return;
    device->second.last_seen = seen.time;
    device->second.address = seen.address;
  }
  void operator()(const User& user) const { content.users[user.name] = user; }
  void operator()(const UserRemoved& removed) const {
    content.users.erase(removed.name);
    (*this)(SessionsEnded{removed.name});
  }
  void operator()(const ApiToken& token) const { content.api_tokens[token.id] = token; }
  void operator()(const ApiTokenRemoved& removed) const { content.api_tokens.erase(removed.id); }
  void operator()(const Session& session) const {
    EraseThose(content.sessions, [&](const Session& old) { return old.expires < session.created; });
    content.sessions[session.secret] = session;
  }
  void operator()(const SessionEnded& ended) const { content.sessions.erase(ended.secret); }
  void operator()(const SessionsEnded& ended) const {
    EraseThose(content.sessions, [&](const Session& session) { return session.user == ended.user; });
  }
  void operator()(const AuditRecord& record) const { content.audit.push_back(record); }
  void operator()(const RetentionHeld& held) const { content.retention_held = held.until; }
  void operator()(const RetentionLooked& looked) const { content.retention_looked = looked.time; }
  void operator()(const WebhookPosition& position) const { content.webhook = position.told; }
};

void MemoryStore::Write(const std::vector<Change>& changes) {
  if (fails_) throw StoreError("the store in memory was told to fail");
  const std::lock_guard<std::mutex> lock(mutex_);
  Writer writer{content_};
  for (const Change& change : changes) {
    if (std::holds_alternative<Entry>(change)) std::visit(writer, change);
  }
  for (const Change& change : changes) {
    if (!std::holds_alternative<Entry>(change)) std::visit(writer, change);
  }
  for (auto& [number, record] : writer.tickets) content_.tickets[number] = std::move(record);
  content_.tokens.merge(writer.tokens);
  if (writer.last_event != 0) content_.last_event = writer.last_event;
}

EventNumber MemoryStore::LastEvent() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return content_.last_event;
}

std::uint64_t MemoryStore::LastAudit() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return content_.audit.empty() ? 0 : content_.audit.back().number;
}

TicketNumber MemoryStore::LastTicket() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return content_.tickets.empty() ? 0 : content_.tickets.rbegin()->first;
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
  for (auto record = content_.tickets.rbegin(); record != content_.tickets.rend() && tickets.size() < limit;
       ++record) {
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
  const auto record = content_.tickets.find(number);
  if (record == content_.tickets.end()) return std::nullopt;
  return TicketOf(record->second);
}

std::vector<Ticket> MemoryStore::FindById(const std::string& beginning, std::size_t limit) const {
  return TicketsThat(
      [&](const Ticket& ticket) { return ticket.id.compare(0, beginning.size(), beginning) == 0; }, limit);
}

std::optional<Ticket> MemoryStore::FindByToken(const SecretHash& hash) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto token = content_.tokens.find(hash);
  if (token == content_.tokens.end()) return std::nullopt;
  return TicketOf(content_.tickets.at(token->second));
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
  const auto record = content_.tickets.find(ticket);
  if (record == content_.tickets.end()) return events;
  for (const Event& event : record->second.events) {
    if (event.number > after && events.size() < limit) events.push_back(event);
  }
  return events;
}

std::vector<ArchiveName> MemoryStore::Archives() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<ArchiveName> names;
  for (const auto& [number, record] : content_.tickets) {
    for (const auto& [version, archive] : record.archives) {
      names.push_back({record.ticket.id, version, archive.deleted.has_value()});
    }
  }
  return names;
}

ArchiveTotals MemoryStore::KeptTotals() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  ArchiveTotals totals;
  for (const auto& [number, record] : content_.tickets) {
    for (const auto& [version, archive] : record.archives) {
      if (archive.deleted) continue;
      ++totals.count;
      totals.bytes += archive.size_bytes;
    }
  }
  return totals;
}

std::vector<KeptArchive> MemoryStore::OldestArchives(const std::optional<std::string>& device,
                                                     WallTime before, std::size_t limit) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<KeptArchive> archives;
  for (const auto& [number, record] : content_.tickets) {
    if (IsOpen(record.ticket.state) || (device && record.ticket.device != *device)) continue;
    for (const auto& [version, archive] : record.archives) {
      if (archive.deleted || archive.received >= before) continue;
      archives.push_back({number, record.ticket.id, version, archive.size_bytes, archive.received});
    }
  }
  std::stable_sort(archives.begin(), archives.end(),
                   [](const KeptArchive& a, const KeptArchive& b) { return a.received < b.received; });
  if (archives.size() > limit) archives.resize(limit);
  return archives;
}

std::vector<DeviceArchives> MemoryStore::DevicesWithMoreArchives(std::uint64_t than,
                                                                 const std::optional<DeviceArchives>& behind,
                                                                 std::size_t limit) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::map<std::string, DeviceArchives> counts;
  for (const auto& [number, record] : content_.tickets) {
    DeviceArchives& device = counts[record.ticket.device];
    device.serial_number = record.ticket.device;
    for (const auto& [version, archive] : record.archives) device.count += archive.deleted ? 0 : 1;
  }
  const auto comes_before = [](const DeviceArchives& a, const DeviceArchives& b) {
    return std::tie(a.count, a.serial_number) > std::tie(b.count, b.serial_number);
  };
  EraseThose(counts, [&](const DeviceArchives& device) {
    return device.count <= than || (behind && !comes_before(*behind, device));
  });
  auto devices = ValuesOf(counts);
  std::sort(devices.begin(), devices.end(), comes_before);
  if (devices.size() > limit) devices.resize(limit);
  return devices;
}

std::uint64_t MemoryStore::KeptOfDevice(const std::string& serial_number) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::uint64_t count = 0;
  for (const auto& [number, record] : content_.tickets) {
    if (record.ticket.device != serial_number) continue;
    for (const auto& [version, archive] : record.archives) count += archive.deleted ? 0 : 1;
  }
  return count;
}

std::optional<WallTime> MemoryStore::RetentionHeldUntil() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return content_.retention_held;
}

std::optional<WallTime> MemoryStore::RetentionLookedAt() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return content_.retention_looked;
}

std::vector<Event> MemoryStore::EventsAfter(EventNumber after, std::size_t limit) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::map<EventNumber, Event> events;
  for (const auto& [number, record] : content_.tickets) {
    for (const Event& event : record.events) {
      if (event.number > after) events.emplace(event.number, event);
    }
  }
  auto found = ValuesOf(events);
  if (found.size() > limit) found.resize(limit);
  return found;
}

std::optional<EnrolledDevice> MemoryStore::FindDevice(const std::string& serial_number) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return ValueOf(content_.devices, serial_number);
}

std::vector<EnrolledDevice> MemoryStore::Devices(const std::string& beginning, const std::string& after,
                                                 std::size_t limit) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<EnrolledDevice> devices;
  for (const auto& [serial_number, device] : content_.devices) {
    const bool is_meant = serial_number.compare(0, beginning.size(), beginning) == 0 && serial_number > after;
    if (is_meant && devices.size() < limit) devices.push_back(device);
  }
  return devices;
}

std::optional<User> MemoryStore::FindUser(const std::string& name) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return ValueOf(content_.users, name);
}

std::vector<User> MemoryStore::Users() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return ValuesOf(content_.users);
}

std::optional<ApiToken> MemoryStore::FindApiToken(const SecretHash& secret) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [id, token] : content_.api_tokens) {
    if (token.secret == secret) return token;
  }
  return std::nullopt;
}

std::vector<ApiToken> MemoryStore::ApiTokens() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  auto tokens = ValuesOf(content_.api_tokens);
  std::stable_sort(tokens.begin(), tokens.end(),
                   [](const ApiToken& a, const ApiToken& b) { return a.created < b.created; });
  return tokens;
}

std::optional<Session> MemoryStore::FindSession(const SecretHash& secret) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return ValueOf(content_.sessions, secret);
}

std::vector<AuditRecord> MemoryStore::Audit(std::uint64_t before, std::size_t limit) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<AuditRecord> records;
  for (auto record = content_.audit.rbegin(); record != content_.audit.rend() && records.size() < limit;
       ++record) {
    if (before == 0 || record->number < before) records.push_back(*record);
  }
  return records;
}

std::optional<EventNumber> MemoryStore::ToldByWebhook() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return content_.webhook;
}

}  // namespace TarvoOrvane::SupportService
