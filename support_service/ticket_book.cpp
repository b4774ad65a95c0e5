#include "ticket_book.h"

#include <json/value.h>
#include <openssl/crypto.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

/// An id only has to tell tickets apart, and people type it. A token is a secret that nobody must be able to guess.
constexpr std::size_t kIdBytes = 8;
constexpr std::size_t kTokenBytes = 32;
/// Devices take messages of at most 64 KiB; this leaves room for the rest of the message.
constexpr std::size_t kMaxTicketBytes = std::size_t{60} * 1024;
/// Kept of one ticket. A device that rejects it for ever would fill the memory with its rejections.
constexpr std::size_t kMaxChanges = 256;

std::string RandomHex(std::size_t bytes) {
  std::vector<unsigned char> random(bytes);
  // A request of up to 256 bytes is answered whole once the kernel's generator is seeded.
  ssize_t count = 0;
  do {
    count = getrandom(random.data(), random.size(), 0);
  } while (count == -1 && errno == EINTR);
  if (count != static_cast<ssize_t>(bytes)) {
    throw std::system_error(errno, std::generic_category(), "cannot get random bytes");
  }
  return HexText(random.data(), random.size());
}

std::string TicketJson(const std::string& token, const std::vector<std::string>& apps) {
  Json::Value ticket(Json::objectValue);
  ticket["token"] = token;
  ticket["apps"] = Json::Value(Json::arrayValue);
  for (const std::string& app : apps) ticket["apps"].append(app);
  return CompactJson(ticket);
}

std::string DeviceText(const std::string& serial_number, const std::string& peer) {
  return (serial_number.empty() ? "without serial number" : Quoted(serial_number)) + ", " + Printable(peer);
}

std::string SecondsText(std::chrono::milliseconds time) {
  return time.count() % 1000 == 0 ? std::to_string(time.count() / 1000) + " s"
                                  : std::to_string(time.count()) + " ms";
}

}  // namespace

const char* ToText(TicketState state) {
  constexpr std::array<const char*, 6> kWords = {"waiting",  "delivered", "accepted",
                                                 "rejected", "uploaded",  "reported"};
  return kWords.at(static_cast<std::size_t>(state));
}

TicketBook::TicketBook(const Settings& settings, EventSink events, Clock clock)
    : settings_(settings), events_(std::move(events)), clock_(std::move(clock)) {}

std::string TicketBook::CreateTicket(const std::vector<std::string>& apps, const std::string& device) {
  Ticket ticket;
  ticket.token = RandomHex(kTokenBytes);
  ticket.json = TicketJson(ticket.token, apps);
  if (ticket.json.size() > kMaxTicketBytes) {
    throw std::invalid_argument("the list of applications is too long: the ticket would have " +
                                std::to_string(ticket.json.size()) + " bytes, the limit is " +
                                std::to_string(kMaxTicketBytes));
  }
  ticket.view.apps = apps;
  ticket.view.device = device;
  ticket.view.created = std::chrono::system_clock::now();

  // All that may fail or take time is done: the book is locked for short.
  const std::lock_guard<std::mutex> lock(mutex_);
  do {
    ticket.view.id = RandomHex(kIdBytes);
  } while (FindTicket(ticket.view.id) != nullptr);
  events_("ticket " + ticket.view.id + " created: apps " + QuotedList(apps) + ", for " +
          (device.empty() ? "the first connected device" : "device " + Quoted(device)));
  tickets_.push_back(std::move(ticket));
  Change(tickets_.back(), TicketState::kWaiting,
         device.empty() ? "for any device" : "for device " + Quoted(device));
  return tickets_.back().view.id;
}

std::optional<TicketView> TicketBook::Find(const std::string& ticket_id) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const Ticket* ticket = FindTicket(ticket_id);
  return ticket == nullptr ? std::nullopt : std::optional<TicketView>(ticket->view);
}

std::vector<TicketView> TicketBook::Tickets() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<TicketView> views;
  views.reserve(tickets_.size());
  for (const Ticket& ticket : tickets_) views.push_back(ticket.view);
  return views;
}

std::vector<DeviceView> TicketBook::Devices() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<DeviceView> views;
  for (const auto& [id, stream] : streams_) {
    if (stream.greeted) views.push_back({stream.serial_number, stream.peer, stream.connected});
  }
  return views;
}

std::vector<TicketChange> TicketBook::WaitForChanges(const std::string& ticket_id, std::uint64_t& seen,
                                                     std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  const Ticket* ticket = FindTicket(ticket_id);
  if (ticket == nullptr) return {};
  changed_.wait_for(lock, limit,
                    [&] { return closed_ || ticket->changes_dropped + ticket->changes.size() > seen; });
  // A caller that is far behind has missed what was dropped; it goes on with the oldest one that is left.
  const std::uint64_t skip = std::max(seen, ticket->changes_dropped) - ticket->changes_dropped;
  std::vector<TicketChange> fresh(ticket->changes.begin() + static_cast<std::ptrdiff_t>(skip),
                                  ticket->changes.end());
  seen = ticket->changes_dropped + ticket->changes.size();
  return fresh;
}

StreamId TicketBook::OpenStream(const std::string& peer) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (closed_) return 0;
  Stream stream;
  stream.peer = peer;
  stream.hello_deadline = clock_() + settings_.hello_limit;
  streams_.emplace(++last_stream_, std::move(stream));
  changed_.notify_all();  // there is a new deadline to wait for
  return last_stream_;
}

void TicketBook::Hello(StreamId stream, const std::string& serial_number, std::uint32_t protocol) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = streams_.find(stream);
  // What a device says may arrive after the book has ended its stream. That is no error, here and below.
  if (found == streams_.end()) return;
  if (found->second.greeted) return EndStream(stream, EndReason::kProtocolError, "a second hello");
  if (protocol != 1) {
    return EndStream(stream, EndReason::kWrongProtocol,
                     "protocol " + std::to_string(protocol) + " is not known here, only 1 is");
  }
  const StreamId older = StreamOf(serial_number);
  if (older != 0) {
    EndStream(older, EndReason::kReplaced, "the device opened a newer stream");
  }
  found->second.serial_number = serial_number;
  found->second.greeted = true;
  found->second.connected = std::chrono::system_clock::now();
  events_("device connected: " + DeviceText(serial_number, found->second.peer));
  changed_.notify_all();
}

void TicketBook::Answer(StreamId stream, const std::string& ticket_id, bool accepted,
                        const std::string& reason) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = streams_.find(stream);
  if (found == streams_.end()) return;
  if (!found->second.greeted) {
    return EndStream(stream, EndReason::kProtocolError, "an answer before the hello");
  }
  Ticket* ticket = FindTicket(ticket_id);
  if (ticket == nullptr || !ticket->answer_due || ticket->stream != stream) {
    events_("answer ignored: ticket " + Printable(ticket_id, 64) + " is not waiting for one from " +
            DeviceText(found->second.serial_number, found->second.peer));
    return;
  }
  ticket->answer_due = false;
  std::string detail = reason.empty() ? "" : "reason " + Quoted(reason);
  if (!accepted && ticket->view.last_change.state == TicketState::kDelivered) {
    detail += (detail.empty() ? "" : ", ") + ("again in " + SecondsText(settings_.retry_pause));
  }
  events_("ticket " + ticket_id + " answered: " + (accepted ? "accepted" : "rejected") +
          (detail.empty() ? "" : ", " + detail));
  // An upload or a report may have overtaken the answer.
  if (ticket->view.last_change.state != TicketState::kDelivered) return;
  ticket->retry_at = clock_() + settings_.retry_pause;
  Change(*ticket, accepted ? TicketState::kAccepted : TicketState::kRejected, std::move(detail));
}

void TicketBook::ProtocolError(StreamId stream, const std::string& text) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (streams_.count(stream) != 0) EndStream(stream, EndReason::kProtocolError, text);
}

void TicketBook::CloseStream(StreamId stream) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (streams_.count(stream) != 0) Release(stream, "the device ended its stream or was lost");
}

Work TicketBook::TakeWork() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return TakeWorkLocked();
}

Work TicketBook::WaitForWork() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    // Whatever wakes the thread, it looks again: it may have been woken for what is not its business.
    Work work = TakeWorkLocked();
    if (work.closed || !work.ends.empty() || !work.deliveries.empty()) return work;
    const auto deadline = NextDeadline();
    if (deadline) {
      changed_.wait_for(lock, *deadline - clock_());
    } else {
      changed_.wait(lock);
    }
  }
}

void TicketBook::Close() {
  const std::lock_guard<std::mutex> lock(mutex_);
  // Each EndStream() takes one out.
  while (!streams_.empty()) {
    EndStream(streams_.begin()->first, EndReason::kShutdown, "the service shuts down");
  }
  closed_ = true;
  changed_.notify_all();
}

bool TicketBook::closed() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return closed_;
}

std::optional<TicketView> TicketBook::FindByToken(const std::string& token) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::optional<TicketView> found;
  // To the end, even behind a match: where the loop stops must tell nothing either.
  for (const Ticket& ticket : tickets_) {
    // How long a comparison takes must not tell how much of a guess was right.
    if (ticket.delivered_before && ticket.token.size() == token.size() &&
        CRYPTO_memcmp(ticket.token.data(), token.data(), token.size()) == 0) {
      found = ticket.view;
    }
  }
  return found;
}

void TicketBook::RecordUpload(const std::string& ticket_id, const Upload& upload) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Ticket* ticket = FindTicket(ticket_id);
  if (ticket == nullptr) return;
  const bool replaced = ticket->view.upload.has_value();
  ticket->view.upload = upload;
  const std::string size_and_hash = std::to_string(upload.size_bytes) + " bytes, sha256 " + upload.sha256;
  events_("ticket " + ticket_id + " upload finished: " + size_and_hash + ", apps " + QuotedList(upload.apps) +
          ", serial " + Quoted(upload.serial_number) + (replaced ? ", replaces the former one" : ""));
  // A report that has overtaken the upload stays the end of the road.
  if (ticket->view.last_change.state != TicketState::kReported) {
    Change(*ticket, TicketState::kUploaded, size_and_hash);
  }
}

void TicketBook::RecordReport(const std::string& ticket_id, const Report& report) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Ticket* ticket = FindTicket(ticket_id);
  if (ticket == nullptr) return;
  ticket->view.report = report;
  events_("ticket " + ticket_id + " report received: " + Quoted(report.status) + ", serial " +
          Quoted(report.serial_number));
  Change(*ticket, TicketState::kReported, report.status);
}

TicketBook::Ticket* TicketBook::FindTicket(const std::string& ticket_id) {
  const auto found = std::find_if(tickets_.begin(), tickets_.end(),
                                  [&](const Ticket& ticket) { return ticket.view.id == ticket_id; });
  return found == tickets_.end() ? nullptr : &*found;
}

const TicketBook::Ticket* TicketBook::FindTicket(const std::string& ticket_id) const {
  const auto found = std::find_if(tickets_.begin(), tickets_.end(),
                                  [&](const Ticket& ticket) { return ticket.view.id == ticket_id; });
  return found == tickets_.end() ? nullptr : &*found;
}

/// The one place that moves a ticket, so that no change goes unseen by those who wait.
void TicketBook::Change(Ticket& ticket, TicketState state, std::string detail) {
  ticket.view.last_change = {state, std::move(detail), std::chrono::system_clock::now()};
  ticket.changes.push_back(ticket.view.last_change);
  if (ticket.changes.size() > kMaxChanges) {
    ticket.changes.pop_front();
    ++ticket.changes_dropped;
  }
  changed_.notify_all();
}

/// The stream a ticket would be delivered on now; 0 when its device is not connected.
StreamId TicketBook::RouteOf(const Ticket& ticket) const {
  if (!ticket.view.device.empty()) return StreamOf(ticket.view.device);
  // A device without serial number is known by its stream alone.
  if (streams_.count(ticket.stream) != 0) return ticket.stream;
  // Otherwise any device will do: the one that has been connected longest.
  const auto first =
      std::find_if(streams_.begin(), streams_.end(), [](const auto& entry) { return entry.second.greeted; });
  return first == streams_.end() ? 0 : first->first;
}

/// The stream of a device; 0 when it is not connected. There is one at most: Hello() ends an older one.
StreamId TicketBook::StreamOf(const std::string& serial_number) const {
  if (serial_number.empty()) return 0;
  const auto found = std::find_if(streams_.begin(), streams_.end(), [&](const auto& entry) {
    return entry.second.greeted && entry.second.serial_number == serial_number;
  });
  return found == streams_.end() ? 0 : found->first;
}

/// Whether the ticket is still to be delivered, now or later.
bool TicketBook::IsOpen(const Ticket& ticket) const {
  const TicketState state = ticket.view.last_change.state;
  return state == TicketState::kWaiting || state == TicketState::kRejected;
}

/// Notes the ticket as delivered. From here on it belongs to the device that it went to: only that one may answer it,
/// and it gets it again if the answer is lost.
Delivery TicketBook::Deliver(Ticket& ticket, StreamId stream) {
  const Stream& device = streams_.at(stream);
  const char* how = "delivered";
  if (ticket.delivered_before) {
    how = ticket.view.last_change.state == TicketState::kRejected ? "retried" : "redelivered";
  }
  ticket.stream = stream;
  ticket.answer_due = true;
  ticket.delivered_before = true;
  ticket.view.device = device.serial_number.empty() ? ticket.view.device : device.serial_number;
  const std::string to = "device " + DeviceText(device.serial_number, device.peer);
  events_("ticket " + ticket.view.id + " " + how + ": " + to);
  Change(ticket, TicketState::kDelivered, to);
  return {stream, ticket.view.id, ticket.json};
}

void TicketBook::EndOverdueStreams(std::chrono::steady_clock::time_point now) {
  std::vector<StreamId> overdue;  // collected first: EndStream() changes what is walked through
  for (const auto& [id, stream] : streams_) {
    if (!stream.greeted && stream.hello_deadline <= now) overdue.push_back(id);
  }
  for (const StreamId id : overdue) {
    EndStream(id, EndReason::kNoHello, "no hello within " + SecondsText(settings_.hello_limit));
  }
}

void TicketBook::EndStream(StreamId stream, EndReason reason, const std::string& text) {
  Release(stream, text);
  ends_.push_back({stream, reason, text});
  changed_.notify_all();
}

/// Forgets a stream; what waited for its answer is to be delivered again.
void TicketBook::Release(StreamId stream, const std::string& cause) {
  const auto found = streams_.find(stream);
  events_(std::string(found->second.greeted ? "device disconnected: " : "stream without hello ended: ") +
          DeviceText(found->second.serial_number, found->second.peer) + ": " + cause);
  streams_.erase(found);
  for (Ticket& ticket : tickets_) {
    if (!ticket.answer_due || ticket.stream != stream) continue;
    ticket.answer_due = false;
    if (ticket.view.last_change.state == TicketState::kDelivered) {
      Change(ticket, TicketState::kWaiting, "the stream ended before the answer");
    }
  }
}

Work TicketBook::TakeWorkLocked() {
  const auto now = clock_();
  EndOverdueStreams(now);
  Work work;
  for (Ticket& ticket : tickets_) {
    if (!IsOpen(ticket)) continue;
    // The device has said that it is busy; asked at once, it would say so again.
    if (ticket.view.last_change.state == TicketState::kRejected && now < ticket.retry_at) continue;
    const StreamId stream = RouteOf(ticket);
    if (stream != 0) work.deliveries.push_back(Deliver(ticket, stream));
  }
  work.ends = std::exchange(ends_, {});
  work.closed = closed_;
  return work;
}

/// When there may be work again if nothing else happens before.
std::optional<std::chrono::steady_clock::time_point> TicketBook::NextDeadline() const {
  std::optional<std::chrono::steady_clock::time_point> next;
  const auto consider = [&next](std::chrono::steady_clock::time_point time) {
    if (!next || time < *next) next = time;
  };
  for (const auto& [id, stream] : streams_) {
    if (!stream.greeted) consider(stream.hello_deadline);
  }
  for (const Ticket& ticket : tickets_) {
    // Without a route the end of the pause changes nothing; the device's Hello wakes who waits.
    if (ticket.view.last_change.state == TicketState::kRejected && RouteOf(ticket) != 0) {
      consider(ticket.retry_at);
    }
  }
  return next;
}

}  // namespace TarvoOrvane::SupportService
