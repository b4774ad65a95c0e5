/// What happens in any order: answers, uploads, reports, ends of streams, restarts, the passing of time. The book is
/// compared with a model that says the same in the plainest way: it looks at every ticket each time, and knows nothing
/// of timers, queues or stores.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "book_rig.h"

namespace TarvoOrvane::SupportService {
namespace {

constexpr std::int64_t kSecond = 1000;
constexpr std::int64_t kMinute = 60 * kSecond;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDayMs = 24 * kHour;

struct ModelTicket {
  std::string device;
  TicketState state = TicketState::kQueued;
  std::int64_t since = 0;
  std::int64_t deadline = 0;
  std::int64_t retry_at = 0;
  std::int64_t rejections = 0;
  std::int64_t rejected_since = -1;
  bool overdue = false;
  bool reported = false;
  std::set<std::string> contents;  // of its archives
  StreamId stream = 0;             // while delivered
};

/// The rules, one after the other. Times are milliseconds.
class Model {
 public:
  std::int64_t now = 0;
  std::map<TicketNumber, ModelTicket> tickets;
  std::map<StreamId, std::string> devices;  // who is connected
  std::map<StreamId, std::int64_t> silent;  // and since when others say nothing

  void Create(TicketNumber number, const std::string& device) {
    ModelTicket& ticket = tickets[number];
    ticket.device = device;
    ticket.since = now;
    ticket.retry_at = now;
    ticket.deadline = now + 14 * kDayMs;
  }
  void Cancel(TicketNumber number) { Enter(tickets.at(number), TicketState::kCancelled); }

  void Hello(StreamId stream, const std::string& device) {
    silent.erase(stream);
    for (const auto& [other, serial] : std::map<StreamId, std::string>(devices)) {
      if (serial != device) continue;
      if (IsTwin(device)) return;
      Close(other);
    }
    devices[stream] = device;
  }
  void Close(StreamId stream) {
    silent.erase(stream);
    devices.erase(stream);
    for (auto& [number, ticket] : tickets) {
      if (ticket.state == TicketState::kDelivered && ticket.stream == stream) {
        Enter(ticket, TicketState::kQueued);
      }
    }
  }
  void Answer(StreamId stream, TicketNumber number, bool accepted, bool with_reason) {
    ModelTicket& ticket = tickets.at(number);
    if (ticket.state != TicketState::kDelivered || ticket.stream != stream || devices.count(stream) == 0) {
      return;
    }
    if (accepted) return Take(ticket, TicketState::kAccepted);
    if (with_reason) return Enter(ticket, TicketState::kRefused);
    const auto report = last_report_.find(ticket.device);
    if (report != last_report_.end() && now - report->second < 30 * kSecond) {
      ticket.retry_at = now + 2 * kSecond;
      return Enter(ticket, TicketState::kQueued);
    }
    if (ticket.rejected_since >= 0 && now - ticket.rejected_since >= kDayMs) {
      return Enter(ticket, TicketState::kRefused);
    }
    std::int64_t pause = 2 * kSecond;
    for (std::int64_t i = 0; i < ticket.rejections; ++i) pause = std::min(2 * pause, 10 * kMinute);
    ticket.retry_at = now + pause;
    ++ticket.rejections;
    if (ticket.rejected_since < 0) ticket.rejected_since = now;
    Enter(ticket, TicketState::kQueued);
  }
  UploadFate Upload(TicketNumber number, const std::string& content) {
    ModelTicket& ticket = tickets.at(number);
    if (!Counts(ticket)) return UploadFate::kUnwanted;
    if (!ticket.contents.insert(content).second) return UploadFate::kRepeated;
    if (IsInPlay(ticket)) Take(ticket, TicketState::kUploaded);
    return UploadFate::kKept;
  }
  bool Report(TicketNumber number) {
    ModelTicket& ticket = tickets.at(number);
    if (!Counts(ticket)) return false;
    if (ticket.reported) return true;
    ticket.reported = true;
    last_report_[ticket.device] = now;
    Take(ticket, TicketState::kReported);
    return true;
  }
  void Restart() {
    for (const auto& [stream, device] : std::map<StreamId, std::string>(devices)) Close(stream);
    silent.clear();
    last_report_.clear();
    takeovers_.clear();
    twin_until_.clear();
    for (auto& [number, ticket] : tickets) ticket.retry_at = now;
  }

  /// What time and free devices bring about.
  /// @return The tickets that are delivered, by stream.
  std::map<StreamId, TicketNumber> Settle() {
    for (const auto& [stream, since] : std::map<StreamId, std::int64_t>(silent)) {
      if (now >= since + 10 * kSecond) silent.erase(stream);
    }
    for (const auto& [device, until] : std::map<std::string, std::int64_t>(twin_until_)) {
      if (now < until) continue;
      twin_until_.erase(device);
      takeovers_.erase(device);
    }
    for (auto& [number, ticket] : tickets) Pass(ticket);
    // Once more: what the end of a stream has queued may be expired.
    for (auto& [number, ticket] : tickets) Pass(ticket);
    std::map<StreamId, TicketNumber> delivered;
    for (const auto& [stream, device] : devices) {
      if (twin_until_.count(device) != 0) continue;
      const TicketNumber next = NextFor(device);
      if (next == 0) continue;
      ModelTicket& ticket = tickets.at(next);
      ticket.stream = stream;
      if (now - ticket.since > 20 * kMinute) {
        ticket.rejections = 0;
        ticket.rejected_since = -1;
      }
      Enter(ticket, TicketState::kDelivered);
      delivered[stream] = next;
    }
    return delivered;
  }

 private:
  static bool IsInPlay(const ModelTicket& ticket) {
    return ticket.state == TicketState::kQueued || ticket.state == TicketState::kDelivered ||
           ticket.state == TicketState::kAccepted || ticket.state == TicketState::kUploaded;
  }
  static bool Counts(const ModelTicket& ticket) {
    return IsInPlay(ticket) || ticket.state == TicketState::kReported ||
           ticket.state == TicketState::kNoResult;
  }
  void Enter(ModelTicket& ticket, TicketState state) {
    ticket.state = state;
    ticket.since = now;
    ticket.overdue = false;
  }
  /// The device has the ticket, so it is done with the others.
  void Take(ModelTicket& ticket, TicketState state) {
    const bool is_news = ticket.state == TicketState::kQueued || ticket.state == TicketState::kDelivered;
    for (auto& [number, other] : tickets) {
      const bool is_former = other.state == TicketState::kAccepted || other.state == TicketState::kUploaded;
      if (is_news && &other != &ticket && other.device == ticket.device && is_former) {
        Enter(other, TicketState::kNoResult);
      }
    }
    ticket.rejections = 0;
    ticket.rejected_since = -1;
    Enter(ticket, state);
  }
  void Pass(ModelTicket& ticket) {
    if (ticket.state == TicketState::kDelivered && now >= ticket.since + kMinute) {
      Close(ticket.stream);
    } else if (ticket.state == TicketState::kQueued && now >= ticket.deadline) {
      Enter(ticket, TicketState::kExpired);
    } else if (ticket.state == TicketState::kAccepted || ticket.state == TicketState::kUploaded) {
      if (now >= ticket.since + 6 * kHour) {
        Enter(ticket, TicketState::kNoResult);
      } else if (now >= ticket.since + 30 * kMinute) {
        ticket.overdue = true;
      }
    }
  }
  /// The device's oldest queued ticket, if nothing else is under way there and its pause is over; else 0.
  TicketNumber NextFor(const std::string& device) {
    TicketNumber oldest = 0;
    for (const auto& [number, ticket] : tickets) {
      if (ticket.device != device || !IsInPlay(ticket)) continue;
      if (ticket.state != TicketState::kQueued && !ticket.overdue) return 0;
      if (ticket.state == TicketState::kQueued && oldest == 0) oldest = number;
    }
    return oldest != 0 && tickets.at(oldest).retry_at <= now ? oldest : 0;
  }

  /// The device is connected, and another stream comes under its number.
  bool IsTwin(const std::string& device) {
    auto& times = takeovers_[device];
    while (!times.empty() && now - times.front() >= 10 * kMinute) times.erase(times.begin());
    const bool is_twin = twin_until_.count(device) != 0 || times.size() == 3;
    if (is_twin) {
      twin_until_[device] = now + 10 * kMinute;
    } else {
      times.push_back(now);
    }
    return is_twin;
  }

  std::map<std::string, std::int64_t> last_report_;
  std::map<std::string, std::vector<std::int64_t>> takeovers_;
  std::map<std::string, std::int64_t> twin_until_;
};

/// Does the same to the book and to the model, and compares.
class TwoLives {
 public:
  TwoLives(StoreKind kind, unsigned seed) : rig_(kind), random_(seed) {}

  void Step() {
    constexpr int kKinds = 40;
    const int kind = Below(kKinds);
    if (kind < 3) return Create();
    if (kind < 4) return Cancel();
    if (kind < 8) return Connect();
    if (kind < 9) return OpenSilently();
    if (kind < 11) return Close();
    if (kind < 20) return Answer();
    if (kind < 25) return Upload();
    if (kind < 29) return Report();
    if (kind < 30) return Restart();
    Pass();
  }

  /// Compares all that can be seen.
  void Check() {
    const Work work = rig_.Turn();
    const auto expected = model_.Settle();
    std::map<StreamId, TicketNumber> delivered;
    for (const Delivery& delivery : work.deliveries) {
      delivered[delivery.stream] = NumberOf(delivery.ticket_id);
    }
    ASSERT_EQ(delivered, expected);
    for (const Entry& entry : rig_.entries()) {
      seen_[entry.event.ticket] = entry.ticket;
      open_.insert(entry.event.ticket);
    }
    for (const TicketNumber number : std::set<TicketNumber>(open_)) Compare(number);
  }

  /// Nothing more happens; only time passes.
  void PassToTheEnd() {
    for (int quarter = 0; quarter < 21 * 4; ++quarter) {
      PassBoth(6 * kHour);
      Check();
    }
    for (const auto& [number, ticket] : model_.tickets) EXPECT_FALSE(IsOpen(ticket.state)) << number;
    EXPECT_TRUE(rig_.store().OpenTickets().empty());
  }

  /// What is remembered of each ticket follows from its events alone.
  void CheckThatStatesFollowFromEvents() {
    for (const auto& [number, ticket] : model_.tickets) {
      Ticket replayed;
      for (const Event& event : rig_.EventsOf(number)) Apply(event, replayed);
      const Ticket stored = rig_.Get(number);
      EXPECT_EQ(replayed.state, stored.state) << number;
      EXPECT_EQ(replayed.since, stored.since) << number;
      EXPECT_EQ(replayed.overdue, stored.overdue) << number;
      EXPECT_EQ(replayed.rejections, stored.rejections) << number;
      EXPECT_EQ(replayed.rejected_since, stored.rejected_since) << number;
      EXPECT_EQ(replayed.report, stored.report) << number;
      EXPECT_EQ(stored.archives.size(), ticket.contents.size()) << number;
    }
  }

  /// So that a long run doesn't look at ever more tickets.
  void ForgetEnded() {
    for (auto ticket = model_.tickets.begin(); ticket != model_.tickets.end();) {
      const bool is_old = !IsOpen(ticket->second.state) && model_.tickets.size() > 50;
      ticket = is_old ? model_.tickets.erase(ticket) : std::next(ticket);
    }
  }

  [[nodiscard]] std::size_t states_seen() const { return states_.size(); }

 private:
  int Below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(random_); }
  std::string AnyDevice() { return "SN" + std::to_string(Below(4)); }
  /// Mostly one of the newest.
  TicketNumber AnyTicket() {
    if (model_.tickets.empty()) return 0;
    const int size = static_cast<int>(model_.tickets.size());
    const int back = Below(4) == 0 ? Below(size) : Below(std::min(size, 6));
    return std::next(model_.tickets.rbegin(), back)->first;
  }
  StreamId AnyStream() {
    if (model_.devices.empty()) return 0;
    return std::next(model_.devices.begin(), Below(static_cast<int>(model_.devices.size())))->first;
  }
  TicketNumber NumberOf(const std::string& id) { return rig_.store().FindById(id, 1).at(0).number; }

  void Create() {
    const std::string device = AnyDevice();
    model_.Create(rig_.book().Create({device, {"a"}}).number, device);
  }
  void Cancel() {
    const TicketNumber number = AnyTicket();
    if (number == 0) return;
    if (model_.tickets.at(number).state == TicketState::kQueued) {
      rig_.book().Cancel(number, "somebody");
      model_.Cancel(number);
    } else {
      EXPECT_THROW(rig_.book().Cancel(number, "somebody"), std::invalid_argument);
    }
  }
  void Connect() {
    const std::string device = AnyDevice();
    model_.Hello(rig_.Connect(device), device);
  }
  void OpenSilently() { model_.silent[rig_.Open()] = model_.now; }
  void Close() {
    const StreamId stream = AnyStream();
    rig_.book().CloseStream(stream);
    model_.Close(stream);
  }
  void Answer() {
    const StreamId stream = AnyStream();
    TicketNumber number = AnyTicket();
    // Mostly the one that it has been given.
    for (const auto& [each, ticket] : model_.tickets) {
      if (ticket.state == TicketState::kDelivered && ticket.stream == stream && Below(10) != 0) number = each;
    }
    if (stream == 0 || number == 0) return;
    const bool accepted = Below(2) == 0;
    const bool with_reason = !accepted && Below(20) == 0;
    rig_.book().Answer(stream, rig_.Get(number).id, accepted, with_reason ? "why" : "");
    model_.Answer(stream, number, accepted, with_reason);
  }
  void Upload() {
    const TicketNumber number = AnyTicket();
    if (number == 0) return;
    Archive archive;
    archive.version = ++version_;
    archive.sha256 = "content " + std::to_string(Below(3));
    EXPECT_EQ(rig_.book().RecordUpload(number, archive), model_.Upload(number, archive.sha256));
  }
  void Report() {
    const TicketNumber number = AnyTicket();
    if (number == 0) return;
    EXPECT_EQ(rig_.book().RecordReport(number, "Success"), model_.Report(number));
  }
  void Restart() {
    rig_.Restart();
    for (const Entry& entry : rig_.entries()) seen_[entry.event.ticket] = entry.ticket;
    model_.Restart();
  }
  void PassBoth(std::int64_t time) {
    rig_.Pass(std::chrono::milliseconds(time));
    model_.now += time;
  }
  void Pass() {
    constexpr std::int64_t kTimes[] = {1,           kSecond,   2 * kSecond, 2 * kSecond,
                                       9 * kSecond, kMinute,   5 * kMinute, 30 * kMinute,
                                       kHour,       6 * kHour, kDayMs,      14 * kDayMs};
    // Long times are rare, or nothing would ever be under way.
    const int longest = Below(50) == 0 ? 12 : Below(5) == 0 ? 9 : 6;
    PassBoth(kTimes[Below(longest)] + Below(3) - 1);
  }

  void Compare(TicketNumber number) {
    const auto found = model_.tickets.find(number);
    if (found == model_.tickets.end()) {
      open_.erase(number);
      return;
    }
    const ModelTicket& expected = found->second;
    const Ticket& actual = seen_.at(number);
    states_.insert(actual.state);
    ASSERT_STREQ(ToText(actual.state), ToText(expected.state)) << number;
    ASSERT_EQ(actual.overdue, expected.overdue) << number;
    ASSERT_EQ(actual.rejections, static_cast<std::uint64_t>(expected.rejections)) << number;
    ASSERT_EQ(actual.report.has_value(), expected.reported) << number;
    if (!IsOpen(actual.state)) open_.erase(number);
  }

  BookRig rig_;
  std::mt19937 random_;
  Model model_;
  std::map<TicketNumber, Ticket> seen_;  // as of their last event
  std::set<TicketNumber> open_;
  std::set<TicketState> states_;
  std::uint64_t version_ = 0;
};

TEST(TicketLifeTest, AHundredThousandStepsGoAsTheModelSays) {
  TwoLives lives(StoreKind::kMemory, 1);
  for (int step = 0; step < 100'000; ++step) {
    lives.Step();
    ASSERT_NO_FATAL_FAILURE(lives.Check()) << "step " << step;
    lives.ForgetEnded();
  }
  EXPECT_EQ(lives.states_seen(), std::size(kTicketStates));
  lives.PassToTheEnd();
  lives.CheckThatStatesFollowFromEvents();
}

TEST(TicketLifeTest, OnDiskItGoesAsTheModelSays) {
  TwoLives lives(StoreKind::kSqlite, 2);
  for (int step = 0; step < 2'000; ++step) {
    lives.Step();
    ASSERT_NO_FATAL_FAILURE(lives.Check()) << "step " << step;
  }
  lives.PassToTheEnd();
  lives.CheckThatStatesFollowFromEvents();
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
