#include "event_log.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <utility>

#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

/// How long the reader may take nothing at the service's end.
constexpr int kLastPatienceMs = 1000;
/// How often the writer looks whether the service ends while the reader takes nothing.
constexpr int kLookMs = 100;

std::atomic<std::uint64_t> events_left_out{0};

}  // namespace

std::uint64_t EventsLeftOut() { return events_left_out; }

struct LimitedEvents::Budget {
  const EventSink events;
  const Clock clock;
  std::mutex mutex;                               ///< Guards what follows.
  std::chrono::steady_clock::time_point full_at;  ///< From then on all of the burst may come again.
  std::uint64_t left_out = 0;
};

LimitedEvents::LimitedEvents(EventSink events, Clock clock)
    : budget_(new Budget{std::move(events), std::move(clock), {}, {}, 0}) {}

void LimitedEvents::Write(const std::string& event) const {
  std::uint64_t left_out = 0;
  {
    const std::lock_guard<std::mutex> lock(budget_->mutex);
    const auto now = budget_->clock();
    const auto full_at = std::max(budget_->full_at, now) + kPause;
    if (full_at > now + kBurst * kPause) {
      ++budget_->left_out;
      ++events_left_out;
      return;
    }
    budget_->full_at = full_at;
    left_out = std::exchange(budget_->left_out, 0);
  }
  if (left_out > 0) {
    budget_->events(std::to_string(left_out) + " events of this kind are left out here: too many came");
  }
  budget_->events(event);
}

EventLog::EventLog(int fd, LogFormat format) : fd_(fd), format_(format), thread_([this] { Run(); }) {}

EventLog::~EventLog() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
    changed_.notify_one();
  }
  thread_.join();
}

/// The event with the present time.
std::string EventLog::LineOf(const std::string& event) const {
  const std::string time = TimeText(std::chrono::system_clock::now());
  if (format_ == LogFormat::kPlain) return time + " " + event;
  Json::Value line(Json::objectValue);
  line["time"] = time;
  line["message"] = event;
  return CompactJson(line);
}

void EventLog::Write(const std::string& event) { Append(LineOf(event)); }

void EventLog::WritePlain(const std::string& line) {
  Append(format_ == LogFormat::kPlain ? line : LineOf(line));
}

void EventLog::Append(const std::string& line) {
  const std::lock_guard<std::mutex> lock(mutex_);
  // Once something is left out the rest waits for its turn, or the line that counts would come too late.
  if (left_out_ > 0 || waiting_.size() + line.size() > kMaxWaiting) {
    ++left_out_;
    ++events_left_out;
    return;
  }
  waiting_ += line + "\n";
  changed_.notify_one();
}

void EventLog::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
    if (waiting_.empty()) return;
    const std::string text = std::exchange(waiting_, {});
    lock.unlock();
    const bool goes_on = WriteAll(text);
    lock.lock();
    if (!goes_on) return;
    if (left_out_ == 0) continue;
    waiting_ +=
        LineOf(std::to_string(left_out_) + " events are left out here: their reader was too slow") + "\n";
    left_out_ = 0;
  }
}

/// @return false when the service ends and its reader takes nothing any more.
bool EventLog::WriteAll(std::string_view text) {
  while (!text.empty()) {
    if (!AwaitRoom()) return false;
    // A pipe that has room has it for so much. A longer write could block.
    const ssize_t count = write(fd_, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    if (count == -1 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) return true;  // nobody reads, or nothing more fits
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

bool EventLog::AwaitRoom() {
  int waited_at_the_end = 0;
  for (;;) {
    pollfd target = {fd_, POLLOUT, 0};
    if (poll(&target, 1, kLookMs) != 0) return true;  // room, or a failure that the write will tell of
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ending_) waited_at_the_end += kLookMs;
    if (waited_at_the_end >= kLastPatienceMs) return false;
  }
}

}  // namespace TarvoOrvane::SupportService
