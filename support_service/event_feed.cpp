#include "event_feed.h"

#include <string>
#include <utility>

#include "api_json.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

/// So many events are read at once: a follower that is far behind takes them as fast as it reads.
constexpr std::size_t kPiece = 100;

}  // namespace

class FollowedEvents final : public BodySource {
 public:
  FollowedEvents(EventFeed& feed, EventNumber after, std::optional<TicketNumber> ticket,
                 std::function<bool()> may_go_on)
      : feed_(feed),
        after_(after),
        ticket_(ticket),
        may_go_on_(std::move(may_go_on)),
        last_piece_(std::chrono::steady_clock::now()) {
    feed_.metrics_.NoteFollower(true);
  }
  ~FollowedEvents() override { feed_.metrics_.NoteFollower(false); }
  FollowedEvents(const FollowedEvents&) = delete;
  FollowedEvents& operator=(const FollowedEvents&) = delete;

  std::optional<std::string> Next(const std::function<void()>& wake) override {
    if (ended_) return std::nullopt;
    // First: what is written behind the look wakes it.
    feed_.Await(wake);
    std::string piece = Read();
    if (ended_ && piece.empty()) return std::nullopt;
    // Half of it: the feed's thread woke this one a little less than that after its last piece.
    const bool is_quiet = std::chrono::steady_clock::now() - last_piece_ > EventFeed::kQuiet / 2;
    if (piece.empty() && is_quiet) piece = Told(":\n\n");
    return piece;
  }

 private:
  std::string Read() {
    std::string piece;
    ended_ = !may_go_on_();
    if (ended_) return piece;
    // First, so that no event of the ticket comes behind the look at it.
    const auto followed = ticket_ ? feed_.store_.Find(*ticket_) : std::nullopt;
    const auto events =
        ticket_ ? feed_.store_.EventsOf(*ticket_, after_, kPiece) : feed_.store_.EventsAfter(after_, kPiece);
    for (const Event& event : events) {
      after_ = event.number;
      const auto ticket = feed_.store_.Find(event.ticket);
      if (ticket) piece += TextOf(event, *ticket);
    }
    ended_ = followed && !IsOpen(followed->state) && events.size() < kPiece;
    return piece.empty() ? piece : Told(std::move(piece));
  }

  static std::string TextOf(const Event& event, const Ticket& ticket) {
    Json::Value data(Json::objectValue);
    data["event"] = JsonOf(event);
    data["ticket"] = JsonOf(ticket);
    return "id: " + std::to_string(event.number) + "\nevent: ticket\ndata: " + CompactJson(data) + "\n\n";
  }

  std::string Told(std::string piece) {
    last_piece_ = std::chrono::steady_clock::now();
    return piece;
  }

  EventFeed& feed_;
  EventNumber after_;
  const std::optional<TicketNumber> ticket_;
  const std::function<bool()> may_go_on_;
  std::chrono::steady_clock::time_point last_piece_;
  bool ended_ = false;
};

EventFeed::EventFeed(const Store& store, Metrics& metrics)
    : store_(store), metrics_(metrics), thread_([this] { Run(); }) {}

EventFeed::~EventFeed() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
    changed_.notify_all();
  }
  thread_.join();
}

void EventFeed::Notify() {
  const std::lock_guard<std::mutex> lock(mutex_);
  news_ = true;
  changed_.notify_all();
}

std::shared_ptr<BodySource> EventFeed::Follow(EventNumber after, std::optional<TicketNumber> ticket,
                                              std::function<bool()> may_go_on) {
  return std::make_shared<FollowedEvents>(*this, after, ticket, std::move(may_go_on));
}

void EventFeed::Await(std::function<void()> wake) {
  const std::lock_guard<std::mutex> lock(mutex_);
  waiting_.push_back(std::move(wake));
}

void EventFeed::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!ending_) {
    changed_.wait_for(lock, kQuiet, [this] { return news_ || ending_; });
    news_ = false;
    const auto woken = std::exchange(waiting_, {});
    lock.unlock();
    for (const auto& wake : woken) wake();
    lock.lock();
  }
}

}  // namespace TarvoOrvane::SupportService
