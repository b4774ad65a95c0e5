#include "ticket_book.h"

#include <json/value.h>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <stdexcept>

#include "serial_number.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using SteadyTime = std::chrono::steady_clock::time_point;

/// An id only has to tell tickets apart, and people type it. A token is a secret that nobody must be able to guess.
constexpr std::size_t kTicketIdBytes = 8;
constexpr std::size_t kTokenBytes = 32;

std::string TicketJson(const std::string& token, const std::vector<std::string>& apps) {
  Json::Value ticket(Json::objectValue);
  ticket["token"] = token;
  ticket["apps"] = Json::Value(Json::arrayValue);
  for (const std::string& app : apps) ticket["apps"].append(app);
  return CompactJson(ticket);
}

std::string SecondsText(milliseconds time) {
  return time.count() % 1000 == 0 ? std::to_string(time.count() / 1000) + " s"
                                  : std::to_string(time.count()) + " ms";
}

std::string DeviceText(const std::string& serial_number, const std::string& peer) {
  return (serial_number.empty() ? "without serial number" : Quoted(serial_number)) + ", " + Printable(peer);
}

/// How long ago that was, as far as the wall clock can be believed: never before the time was noted.
milliseconds AgeOf(WallTime time, const Moment& now) {
  return std::max(milliseconds(0), duration_cast<milliseconds>(now.wall - time));
}

}  // namespace

TicketBook::TicketBook(const Settings& settings, const Store& store, EventSink events, Metrics& metrics,
                       Clock clock)
    : settings_(settings),
      store_(store),
      events_(std::move(events)),
      metrics_(metrics),
      clock_(std::move(clock)),
      registry_(store, clock_),
      strangers_(events_, [this] { return clock_().steady; }) {
  Reload();
}

void TicketBook::SetSettings(const Settings& settings) {
  const Trust trust = settings_.trust;
  settings_ = settings;
  settings_.trust = trust;
}

/// @throws std::invalid_argument or LimitReached.
void TicketBook::CheckLimits(const NewTicket& wanted) const {
  if (CharactersIn(wanted.note) > kMaxNoteCharacters) {
    metrics_.NoteMet(Limit::kNoteCharacters);
    throw std::invalid_argument("the note is longer than " + std::to_string(kMaxNoteCharacters) +
                                " characters");
  }
  const std::size_t bytes = TicketJson(std::string(2 * kTokenBytes, '0'), wanted.apps).size();
  if (bytes > kMaxTicketBytes) {
    metrics_.NoteMet(Limit::kTicketBytes);
    throw std::invalid_argument("the list of applications is too long for a device: the ticket would have " +
                                std::to_string(bytes) + " bytes, the limit is " +
                                std::to_string(kMaxTicketBytes) + "; send several tickets");
  }
  const auto device = devices_.find(wanted.device);
  if (device != devices_.end() && device->second.queued.size() >= settings_.most_queued) {
    metrics_.NoteMet(Limit::kQueuedTicketsPerDevice);
    throw LimitReached("as many tickets wait for device " + Quoted(wanted.device) + " as may, " +
                       std::to_string(settings_.most_queued) +
                       ": cancel one of them, or wait until the device has taken one");
  }
  if (std::accumulate(counts_.begin(), counts_.end(), std::size_t{0}) >= settings_.most_open) {
    metrics_.NoteMet(Limit::kOpenTickets);
    throw LimitReached("as many tickets are open as may be, " + std::to_string(settings_.most_open) +
                       ": cancel some of them, or wait until some have come to their end");
  }
}

BookView TicketBook::Overview() const {
  BookView view;
  view.streams = streams_.size();
  view.silent_streams = greetings_.size();
  view.devices = connected_.size();
  view.tickets = counts_;
  view.open_tickets = std::accumulate(counts_.begin(), counts_.end(), std::size_t{0});
  if (!queue_lengths_.empty()) view.longest_queue = queue_lengths_.rbegin()->first;
  return view;
}

Ticket TicketBook::Create(const NewTicket& wanted) {
  if (const std::string fault = SerialFault(wanted.device); !fault.empty()) {
    throw std::invalid_argument(fault + ": name the device that the ticket is for");
  }
  const auto device = registry_.FindDevice(wanted.device);
  if (!device || device->blocked) {
    throw std::invalid_argument(
        "device " + Quoted(wanted.device) +
        (device ? " is blocked: unblock it first" : " is not enrolled: enrol it first"));
  }
  const auto is_empty = [](const std::string& app) { return app.empty(); };
  if (std::any_of(wanted.apps.begin(), wanted.apps.end(), is_empty)) {
    throw std::invalid_argument("an application's name is empty");
  }
  CheckLimits(wanted);
  const Moment now = clock_();
  Ticket ticket;
  ticket.number = ++last_ticket_;
  ticket.id = RandomHex(kTicketIdBytes);
  ticket.device = wanted.device;
  ticket.apps = wanted.apps;
  ticket.note = wanted.note;
  ticket.requested_by = wanted.requested_by;
  ticket.created = now.wall;
  ticket.deadline = now.wall + wanted.lifetime.value_or(settings_.lifetime);
  TakeUp(ticket, now);
  OpenTicket& open = tickets_.at(ticket.number);
  Record(open, EventKind::kCreated,
         "apps " + QuotedList(wanted.apps) + ", for device " + Quoted(wanted.device));
  return open.ticket;
}

Ticket TicketBook::Cancel(TicketNumber number, const std::string& who) {
  OpenTicket* open = FindOrLoad(number);
  if (open == nullptr) throw std::invalid_argument("there is no such ticket");
  const TicketState state = open->ticket.state;
  if (state != TicketState::kQueued) {
    const std::string why = IsOpen(state) ? "its device has it already" : "it is at its end";
    throw std::invalid_argument("ticket " + open->ticket.id + " is " + ToText(state) + ": " + why +
                                ", so it can't be cancelled");
  }
  Record(*open, EventKind::kCancelled, who);
  return open->ticket;
}

EnrolledDevice TicketBook::SetBlocked(const std::string& serial_number, bool blocked) {
  EnrolledDevice changed = registry_.SetBlocked(serial_number, blocked);
  const auto device = devices_.find(serial_number);
  if (blocked && device != devices_.end() && device->second.stream != 0) {
    EndStream(device->second.stream, EndReason::kStranger, "the device is blocked");
  }
  return changed;
}

bool TicketBook::IsBlocked(const std::string& serial_number) const {
  const auto device = registry_.FindDevice(serial_number);
  return device && device->blocked;
}

void TicketBook::DeleteArchive(TicketNumber number, std::uint64_t version, const std::string& who) {
  OpenTicket* open = FindOrLoad(number);
  if (open == nullptr) throw std::invalid_argument("there is no such ticket");
  auto& archives = open->ticket.archives;
  const auto archive = std::find_if(archives.begin(), archives.end(),
                                    [&](const Archive& each) { return each.version == version; });
  if (archive == archives.end() || archive->deleted) {
    throw std::invalid_argument("ticket " + open->ticket.id + " has no archive of version " +
                                std::to_string(version));
  }
  archive->deleted = clock_().wall;
  archive->deletion = who;
  Record(*open, EventKind::kArchiveDeleted, "version " + std::to_string(version) + " by " + who).archive =
      *archive;
}

bool TicketBook::IsInPlay(TicketNumber number) const {
  const auto found = tickets_.find(number);
  return found != tickets_.end() && IsOpen(found->second.ticket.state);
}

ArchiveTotals TicketBook::DeletedSince(const std::optional<std::string>& device) const {
  ArchiveTotals deleted;
  for (const Entry& entry : entries_) {
    if (!entry.archive || !entry.archive->deleted || (device && entry.ticket.device != *device)) continue;
    ++deleted.count;
    deleted.bytes += entry.archive->size_bytes;
  }
  return deleted;
}

DeviceView TicketBook::View(const std::string& serial_number) const {
  const auto device = devices_.find(serial_number);
  return device == devices_.end() ? DeviceView{serial_number, false, "", {}, "", 0}
                                  : ViewOf(serial_number, device->second);
}

DeviceView TicketBook::ViewOf(const std::string& serial_number, const Device& device) const {
  DeviceView view;
  view.serial_number = serial_number;
  view.twin = device.twin;
  view.open_tickets = device.queued.size() + device.in_hand.size();
  if (device.stream == 0) return view;
  const Stream& stream = streams_.at(device.stream);
  view.connected = true;
  view.peer = stream.peer;
  view.connected_since = stream.connected;
  return view;
}

std::vector<DeviceView> TicketBook::Connected(const std::string& beginning, const std::string& after,
                                              std::size_t limit) const {
  std::vector<DeviceView> views;
  auto next = after < beginning ? connected_.lower_bound(beginning) : connected_.upper_bound(after);
  if (after.empty()) next = connected_.lower_bound(beginning);
  for (; next != connected_.end() && views.size() < limit; ++next) {
    if (next->compare(0, beginning.size(), beginning) != 0) break;
    views.push_back(View(*next));
  }
  return views;
}

void TicketBook::OpenStream(StreamId stream, const std::string& peer) {
  const SteadyTime deadline = clock_().steady + settings_.hello_limit;
  streams_[stream] = {peer, "", deadline, {}};
  greetings_.emplace(deadline, stream);
  constexpr char kTooMany[] = "the service has as many streams as it takes, try again later";
  if (streams_.size() > settings_.most_streams) {
    metrics_.NoteMet(Limit::kStreams);
    return EndStream(stream, EndReason::kTooMany, kTooMany);
  }
  // The oldest of them: a device says Hello at once, and is not to wait behind those that say nothing.
  if (greetings_.size() > settings_.most_silent_streams) {
    metrics_.NoteMet(Limit::kSilentStreams);
    EndStream(greetings_.begin()->second, EndReason::kTooMany, kTooMany);
  }
}

void TicketBook::Hello(StreamId stream, const std::string& serial_number, std::uint32_t protocol,
                       const std::optional<std::string>& certificate_name) {
  const auto found = streams_.find(stream);
  if (found == streams_.end()) return;
  if (!found->second.serial_number.empty()) {
    return EndStream(stream, EndReason::kProtocolError, "a second hello");
  }
  if (protocol != 1) {
    return EndStream(stream, EndReason::kBadHello,
                     "protocol " + std::to_string(protocol) + " is not known here, only 1 is");
  }
  if (const std::string fault = SerialFault(serial_number); !fault.empty()) {
    return EndStream(stream, EndReason::kBadHello, fault);
  }
  if (const std::string fault = AdmissionFault(serial_number, certificate_name); !fault.empty()) {
    const std::string who = certificate_name ? "device " + *certificate_name : "a stranger";
    registry_.RecordRefusal({who, found->second.peer}, "stream refused", serial_number, fault);
    return EndStream(stream, EndReason::kStranger, fault);
  }
  const auto device = devices_.find(serial_number);
  if (device != devices_.end() && device->second.stream != 0) {
    if (IsTakenForTwin(stream, serial_number)) {
      return EndStream(stream, EndReason::kTwin,
                       "another machine has this serial number: each needs one of its own");
    }
    EndStream(device->second.stream, EndReason::kReplaced, "the device opened a newer stream");
  }
  greetings_.erase({found->second.hello_deadline, stream});
  found->second.serial_number = serial_number;
  found->second.connected = clock_().wall;
  devices_[serial_number].stream = stream;
  connected_.insert(serial_number);
  stirred_.insert(serial_number);
  registry_.NoteSeen(serial_number, found->second.peer);
  events_("device connected: " + DeviceText(serial_number, found->second.peer));
}

/// Why a stream is not that of the device that it says it is of; empty if it is.
std::string TicketBook::AdmissionFault(const std::string& serial_number,
                                       const std::optional<std::string>& certificate_name) const {
  if (settings_.trust != Trust::kAllowList && certificate_name != serial_number) {
    return certificate_name ? "the certificate is that of " + Quoted(*certificate_name)
                            : "it has shown no certificate";
  }
  const auto device = registry_.FindDevice(serial_number);
  if (!device) return "the device is not enrolled";
  return device->blocked ? "the device is blocked" : "";
}

/// Whether the machine that opened this stream is another one than that which has an older one.
bool TicketBook::IsTakenForTwin(StreamId stream, const std::string& serial_number) {
  const SteadyTime now = clock_().steady;
  Device& device = devices_.at(serial_number);
  if (device.quiet_at) takeovers_.erase({*device.quiet_at, serial_number});
  device.quiet_at = now + settings_.twin_window;
  takeovers_.emplace(*device.quiet_at, serial_number);

  while (!device.takeovers.empty() && now - device.takeovers.front() >= settings_.twin_window) {
    device.takeovers.pop_front();
  }
  if (!device.has_twin && device.takeovers.size() < settings_.takeovers_in_window) {
    device.takeovers.push_back(now);
    return false;
  }
  device.twin = streams_.at(stream).peer;
  if (!std::exchange(device.has_twin, true)) {
    events_("device " + Quoted(serial_number) + " is there twice, at " +
            Printable(streams_.at(device.stream).peer) + " and at " + Printable(device.twin) +
            ": nothing is delivered to it until one of them stays away");
  }
  return true;
}

void TicketBook::ForgetTakeovers(SteadyTime now) {
  while (!takeovers_.empty() && takeovers_.begin()->first <= now) {
    const std::string serial_number = takeovers_.begin()->second;
    takeovers_.erase(takeovers_.begin());
    Device& device = devices_.at(serial_number);
    device.quiet_at.reset();
    device.takeovers.clear();
    device.twin.clear();
    if (std::exchange(device.has_twin, false)) {
      events_("device " + Quoted(serial_number) + " is there only once again");
    }
    stirred_.insert(serial_number);
  }
}

void TicketBook::Answer(StreamId stream, const std::string& ticket_id, bool accepted,
                        const std::string& reason) {
  const auto found = streams_.find(stream);
  if (found == streams_.end()) return;
  const std::string serial_number = found->second.serial_number;
  if (serial_number.empty()) {
    return EndStream(stream, EndReason::kProtocolError, "an answer before the hello");
  }
  OpenTicket* open = DeliveredOn(stream, ticket_id);
  if (open == nullptr) {
    strangers_.Write("answer ignored: ticket " + Printable(ticket_id, 64) + " is not waiting for one from " +
                     DeviceText(serial_number, found->second.peer));
    return;
  }
  if (!accepted) return Reject(*open, reason);
  Supersede(*open);
  Record(*open, EventKind::kAccepted, reason.empty() ? "" : "reason " + ReasonText(reason));
}

/// A device's words, cut where they are too long.
std::string TicketBook::ReasonText(const std::string& reason) const {
  if (reason.size() > kMaxReasonBytes) metrics_.NoteMet(Limit::kReasonBytes);
  return Quoted(reason, kMaxReasonBytes);
}

void TicketBook::Reject(OpenTicket& open, const std::string& reason) {
  if (!reason.empty()) {
    Record(open, EventKind::kRefused,
           "the device says " + ReasonText(reason) +
               ": send a ticket that it can take, or look at the daemon's log on the device");
    return;
  }
  const SteadyTime now = clock_().steady;
  const auto& last_report = devices_.at(open.ticket.device).last_report;
  if (last_report && now - *last_report < settings_.busy_after_report) {
    open.retry_at = now + settings_.retry_pause;
    Record(open, EventKind::kStillBusy, "again in " + SecondsText(settings_.retry_pause));
    return;
  }
  if (open.rejected_since && now - *open.rejected_since >= settings_.rejections_limit) {
    Record(open, EventKind::kRefused,
           "the device has rejected it for a day: its worker is stuck, or a transmission hangs; "
           "restart the daemon on the device");
    return;
  }
  // Doubled so often that the longest pause is reached, and no number overflows.
  const auto doublings = std::min<std::uint64_t>(open.ticket.rejections, 30);
  const milliseconds pause =
      std::min(settings_.longest_retry_pause, milliseconds(settings_.retry_pause.count() << doublings));
  open.retry_at = now + pause;
  if (!open.rejected_since) open.rejected_since = now;
  Record(open, EventKind::kRejected, "again in " + SecondsText(pause));
}

void TicketBook::ProtocolError(StreamId stream, const std::string& text) {
  if (streams_.count(stream) != 0) EndStream(stream, EndReason::kProtocolError, text);
}

void TicketBook::CloseStream(StreamId stream) {
  if (streams_.count(stream) != 0) Release(stream, "the device ended its stream or was lost");
}

UploadFate TicketBook::RecordUpload(TicketNumber number, const Archive& archive) {
  OpenTicket* open = FindOrLoad(number);
  if (open == nullptr || !TakesResults(open->ticket.state)) return UploadFate::kUnwanted;
  if (IsBlocked(open->ticket.device)) return UploadFate::kBlocked;
  const auto& archives = open->ticket.archives;
  if (std::any_of(archives.begin(), archives.end(),
                  [&](const Archive& former) { return former.sha256 == archive.sha256; })) {
    return UploadFate::kRepeated;
  }
  const auto is_taken = [&](const Archive& former) { return former.version == archive.version; };
  if (std::any_of(archives.begin(), archives.end(), is_taken)) return UploadFate::kTaken;
  const auto is_kept = [](const Archive& former) { return !former.deleted; };
  const auto kept = static_cast<std::size_t>(std::count_if(archives.begin(), archives.end(), is_kept));
  if (kept >= settings_.most_archives) {
    metrics_.NoteMet(Limit::kArchivesPerTicket);
    return UploadFate::kTooMany;
  }
  Supersede(*open);
  Record(*open, EventKind::kUploaded,
         std::to_string(archive.size_bytes) + " bytes, sha256 " + archive.sha256 + ", apps " +
             QuotedList(archive.apps) + ", serial " + Quoted(archive.serial_number))
      .archive = archive;
  open->ticket.archives.push_back(archive);
  return UploadFate::kKept;
}

bool TicketBook::RecordReport(TicketNumber number, const std::string& status) {
  OpenTicket* open = FindOrLoad(number);
  if (open == nullptr || !TakesResults(open->ticket.state) || IsBlocked(open->ticket.device)) return false;
  if (open->ticket.report) return true;
  Supersede(*open);
  Record(*open, EventKind::kReported, status);
  // The report comes before the device is free again.
  devices_[open->ticket.device].last_report = clock_().steady;
  return true;
}

/// A device that takes a ticket is done with those that it had before, whatever has become of their results.
void TicketBook::Supersede(OpenTicket& open) {
  const auto device = devices_.find(open.ticket.device);
  const TicketState before = open.ticket.state;
  const bool is_news = before == TicketState::kQueued || before == TicketState::kDelivered;
  if (device == devices_.end() || !is_news) return;
  const std::set<TicketNumber> in_hand = device->second.in_hand;  // a copy: Record() takes ended ones out
  for (const TicketNumber number : in_hand) {
    OpenTicket& former = tickets_.at(number);
    const TicketState state = former.ticket.state;
    if (&former == &open || !(state == TicketState::kAccepted || state == TicketState::kUploaded)) continue;
    Record(former, EventKind::kNoResult, "the device has taken ticket " + open.ticket.id + " since");
  }
}

void TicketBook::Advance() {
  const SteadyTime now = clock_().steady;
  EndSilentStreams(now);
  ForgetTakeovers(now);
  while (!timers_.empty() && timers_.begin()->first <= now) {
    OpenTicket& open = tickets_.at(timers_.begin()->second);
    timers_.erase(timers_.begin());
    open.due.reset();
    HandleDue(open, now);
    SetTimer(open);
    stirred_.insert(open.ticket.device);
  }
  for (const std::string& serial_number : std::exchange(stirred_, {})) DeliverDue(serial_number, now);
  stirred_.clear();  // by the deliveries themselves
}

/// Does what a ticket's state asks for at this time; more than one thing after a long stop of the process.
void TicketBook::HandleDue(OpenTicket& open, SteadyTime now) {
  switch (open.ticket.state) {
    case TicketState::kQueued:
      if (now >= open.deadline) {
        Record(open, EventKind::kExpired, "no device accepted it until its deadline");
      }
      return;
    case TicketState::kDelivered:
      if (now >= open.since + settings_.answer_limit) {
        EndStream(open.stream, EndReason::kNoAnswer,
                  "no answer to ticket " + open.ticket.id + " within " + SecondsText(settings_.answer_limit));
      }
      return;
    case TicketState::kAccepted:
    case TicketState::kUploaded:
      if (now >= open.since + settings_.result_limit) {
        Record(open, EventKind::kNoResult,
               "no report within " + std::to_string(settings_.result_limit.count()) + " h");
      } else if (now >= open.since + settings_.overdue_after && !open.ticket.overdue) {
        Record(open, EventKind::kOverdue, "the device's next ticket is tried");
      }
      return;
    default:
      return;
  }
}

/// When HandleDue() has something to do for it, or its device may get it again.
std::optional<SteadyTime> TicketBook::DueOf(const OpenTicket& open) const {
  switch (open.ticket.state) {
    case TicketState::kQueued:
      return open.retry_at > clock_().steady ? std::min(open.retry_at, open.deadline) : open.deadline;
    case TicketState::kDelivered:
      return open.since + settings_.answer_limit;
    case TicketState::kAccepted:
    case TicketState::kUploaded:
      return open.since + (open.ticket.overdue ? milliseconds(settings_.result_limit)
                                               : milliseconds(settings_.overdue_after));
    default:
      return std::nullopt;
  }
}

void TicketBook::SetTimer(OpenTicket& open) {
  if (open.due) timers_.erase({*open.due, open.ticket.number});
  open.due = DueOf(open);
  if (open.due) timers_.emplace(*open.due, open.ticket.number);
}

void TicketBook::EndSilentStreams(SteadyTime now) {
  while (!greetings_.empty() && greetings_.begin()->first <= now) {
    EndStream(greetings_.begin()->second, EndReason::kNoHello,
              "no hello within " + SecondsText(settings_.hello_limit));
  }
}

/// Gives a device its next ticket, if it is connected and free as far as is known.
void TicketBook::DeliverDue(const std::string& serial_number, SteadyTime now) {
  const auto device = devices_.find(serial_number);
  if (device == devices_.end()) return;
  if (device->second.stream != 0 && !device->second.has_twin) {
    OpenTicket* next = FirstInLine(device->second);
    if (next != nullptr && next->retry_at <= now) Deliver(*next, device->second.stream);
  }
  ForgetIdle(serial_number);
}

/// The ticket that the device gets next; null while it is busy with another one.
TicketBook::OpenTicket* TicketBook::FirstInLine(const Device& device) {
  // One that takes unusually long may never end. The next one shows whether the device is free.
  const auto is_busy = [this](TicketNumber number) { return !tickets_.at(number).ticket.overdue; };
  if (device.queued.empty() || std::any_of(device.in_hand.begin(), device.in_hand.end(), is_busy)) {
    return nullptr;
  }
  return &tickets_.at(*device.queued.begin());
}

void TicketBook::Deliver(OpenTicket& open, StreamId stream) {
  const std::string token = RandomHex(kTokenBytes);
  open.stream = stream;
  Record(open, EventKind::kDelivered, "device " + DeviceText(open.ticket.device, streams_.at(stream).peer))
      .token = HashOf(token);
  open.delivery = open.ticket.last_event;
  work_.deliveries.push_back({stream, open.ticket.id, TicketJson(token, open.ticket.apps)});
}

void TicketBook::EndStream(StreamId stream, EndReason reason, const std::string& text) {
  Release(stream, text);
  work_.ends.push_back({stream, reason, text});
}

/// Forgets a stream; what waited for its answer is queued again.
void TicketBook::Release(StreamId stream, const std::string& cause) {
  const auto found = streams_.find(stream);
  const Stream released = std::move(found->second);
  streams_.erase(found);
  const bool greeted = !released.serial_number.empty();
  const std::string who = DeviceText(released.serial_number, released.peer) + ": " + cause;
  if (!greeted) {
    strangers_.Write("stream without hello ended: " + who);
    greetings_.erase({released.hello_deadline, stream});
    return;
  }
  events_("device disconnected: " + who);
  registry_.NoteSeen(released.serial_number, released.peer);
  Device& device = devices_.at(released.serial_number);
  device.stream = 0;
  connected_.erase(released.serial_number);
  Requeue(device, stream, cause);
  stirred_.insert(released.serial_number);
}

void TicketBook::Requeue(const Device& device, StreamId stream, const std::string& cause) {
  const std::set<TicketNumber> in_hand = device.in_hand;
  for (const TicketNumber number : in_hand) {
    OpenTicket& open = tickets_.at(number);
    if (open.ticket.state != TicketState::kDelivered || open.stream != stream) continue;
    Record(open, EventKind::kStreamEnded, cause);
  }
}

void TicketBook::ForgetIdle(const std::string& serial_number) {
  const auto device = devices_.find(serial_number);
  if (device == devices_.end()) return;
  auto& last_report = device->second.last_report;
  if (last_report && clock_().steady - *last_report >= settings_.busy_after_report) last_report.reset();
  const bool has_tickets = !device->second.queued.empty() || !device->second.in_hand.empty();
  if (device->second.stream == 0 && !has_tickets && !last_report && !device->second.quiet_at) {
    devices_.erase(device);
  }
}

/// The one place where something happens to a ticket.
Entry& TicketBook::Record(OpenTicket& open, EventKind kind, std::string text) {
  const Moment now = clock_();
  const TicketState state_before = open.ticket.state;
  const WallTime since_before = open.ticket.since;
  const Event event{++last_event_, open.ticket.number, kind, std::move(text), now.wall};
  Apply(event, open.ticket);
  Count(state_before, -1);
  Count(open.ticket.state, 1);
  // A further archive begins the wait for the report anew.
  if (open.ticket.state != state_before || open.ticket.since != since_before) open.since = now.steady;
  if (!open.ticket.rejected_since) open.rejected_since.reset();
  SetTimer(open);
  stirred_.insert(open.ticket.device);
  Sort(open.ticket);
  entries_.push_back({event, open.ticket, std::nullopt, std::nullopt});
  return entries_.back();
}

/// @param state  An end is not counted.
void TicketBook::Count(TicketState state, int change) {
  if (!IsOpen(state)) return;
  change > 0 ? ++counts_.at(static_cast<std::size_t>(state)) : --counts_.at(static_cast<std::size_t>(state));
}

/// Puts a ticket where its device's tickets of that state are.
void TicketBook::Sort(const Ticket& ticket) {
  if (!IsOpen(ticket.state)) ended_.insert(ticket.number);
  const auto device = devices_.find(ticket.device);
  if (device == devices_.end()) return;
  const std::size_t length = device->second.queued.size();
  device->second.queued.erase(ticket.number);
  device->second.in_hand.erase(ticket.number);
  if (ticket.state == TicketState::kQueued) {
    device->second.queued.insert(ticket.number);
  } else if (IsOpen(ticket.state)) {
    device->second.in_hand.insert(ticket.number);
  }
  CountQueue(length, device->second.queued.size());
}

/// A device's queue has changed its length.
void TicketBook::CountQueue(std::size_t before, std::size_t after) {
  if (before == after) return;
  if (after != 0) ++queue_lengths_[after];
  const auto former = queue_lengths_.find(before);
  if (before != 0 && --former->second == 0) queue_lengths_.erase(former);
}

TicketBook::OpenTicket* TicketBook::FindOpen(TicketNumber number) {
  const auto found = tickets_.find(number);
  return found == tickets_.end() ? nullptr : &found->second;
}

/// Also a ticket that is at its end; null when there is none.
TicketBook::OpenTicket* TicketBook::FindOrLoad(TicketNumber number) {
  if (OpenTicket* open = FindOpen(number)) return open;
  auto ticket = store_.Find(number);
  if (!ticket) return nullptr;
  OpenTicket& loaded = tickets_[number];
  loaded.ticket = *std::move(ticket);
  ended_.insert(number);
  return &loaded;
}

TicketBook::OpenTicket* TicketBook::DeliveredOn(StreamId stream, const std::string& ticket_id) {
  for (const TicketNumber number : devices_.at(streams_.at(stream).serial_number).in_hand) {
    OpenTicket& open = tickets_.at(number);
    const bool waits = open.ticket.state == TicketState::kDelivered && open.stream == stream;
    if (waits && open.ticket.id == ticket_id) return &open;
  }
  return nullptr;
}

std::optional<SteadyTime> TicketBook::NextDeadline() const {
  // What Reload() has found is due at once.
  if (!stirred_.empty() || !entries_.empty()) return clock_().steady;
  std::optional<SteadyTime> next;
  if (!timers_.empty()) next = timers_.begin()->first;
  if (!takeovers_.empty() && (!next || takeovers_.begin()->first < *next)) next = takeovers_.begin()->first;
  if (!greetings_.empty() && (!next || greetings_.begin()->first < *next)) next = greetings_.begin()->first;
  const auto seen = registry_.NextDeadline();
  if (seen && (!next || *seen < *next)) next = seen;
  return next;
}

std::vector<Change> TicketBook::TakeChanges(bool all) {
  std::vector<Change> changes;
  std::vector<Entry> entries = std::exchange(entries_, {});
  changes.reserve(entries.size());
  for (Entry& entry : entries) changes.emplace_back(std::move(entry));
  std::vector<Change> others = registry_.TakeChanges(all || !changes.empty());
  std::move(others.begin(), others.end(), std::back_inserter(changes));
  return changes;
}

Work TicketBook::TakeWork() { return std::exchange(work_, {}); }

void TicketBook::Settle() {
  registry_.Settle();
  for (const TicketNumber number : std::exchange(ended_, {})) {
    const auto found = tickets_.find(number);
    if (found->second.due) timers_.erase({*found->second.due, number});
    tickets_.erase(found);
  }
}

void TicketBook::Reload() {
  // First what may fail: the next try has to know what this one knew.
  std::vector<Ticket> stored = store_.OpenTickets();
  const std::map<TicketNumber, OpenTicket> former = std::move(tickets_);
  tickets_.clear();
  timers_.clear();
  ended_.clear();
  entries_.clear();
  work_.deliveries.clear();
  counts_.fill(0);
  queue_lengths_.clear();
  for (auto& [serial_number, device] : devices_) {
    device.queued.clear();
    device.in_hand.clear();
  }
  registry_.Settle();
  last_event_ = store_.LastEvent();
  last_ticket_ = store_.LastTicket();

  const Moment now = clock_();
  const bool is_set_back = std::any_of(stored.begin(), stored.end(),
                                       [&](const Ticket& ticket) { return ticket.since > now.wall; });
  if (is_set_back) {
    events_(
        "the clock stands before what has happened already: the limits of such tickets begin anew. Set the "
        "clock");
  }
  for (Ticket& ticket : stored) TakeUp(std::move(ticket), now);
  for (auto& [number, open] : tickets_) {
    if (open.ticket.state != TicketState::kDelivered) continue;
    // Whether it still waits for the answer to the delivery that the store knows of.
    const auto found = former.find(number);
    const bool waits = found != former.end() && found->second.delivery == open.ticket.last_event &&
                       streams_.count(found->second.stream) != 0;
    if (waits) {
      open.stream = found->second.stream;
      open.delivery = found->second.delivery;
    } else {
      Record(open, EventKind::kStreamEnded,
             "the service was restarted, or its disk failed, before the answer");
    }
  }
}

/// Puts an open ticket among those in play. Its limits go on from where they stand by the wall clock, within what the
/// whole limit would be: that clock may have been set meanwhile.
void TicketBook::TakeUp(Ticket ticket, const Moment& now) {
  OpenTicket& open = tickets_[ticket.number];
  open.ticket = std::move(ticket);
  Count(open.ticket.state, 1);
  open.since = now.steady - AgeOf(open.ticket.since, now);
  const milliseconds whole = duration_cast<milliseconds>(open.ticket.deadline - open.ticket.created);
  const milliseconds left = duration_cast<milliseconds>(open.ticket.deadline - now.wall);
  open.deadline = now.steady + std::clamp(left, milliseconds(0), whole);
  if (open.ticket.rejected_since) open.rejected_since = now.steady - AgeOf(*open.ticket.rejected_since, now);
  open.retry_at = now.steady;
  static_cast<void>(devices_[open.ticket.device]);
  Sort(open.ticket);
  stirred_.insert(open.ticket.device);
  SetTimer(open);
}

void TicketBook::CloseAllStreams() {
  // Each EndStream() takes one out.
  while (!streams_.empty()) {
    EndStream(streams_.begin()->first, EndReason::kShutdown, "the service shuts down");
  }
}

}  // namespace TarvoOrvane::SupportService
