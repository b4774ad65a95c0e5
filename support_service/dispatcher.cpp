#include "dispatcher.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

/// After a failure of the store. What comes meanwhile waits: to try at once would keep a full disk busy.
constexpr std::chrono::seconds kStorePause{1};
constexpr char kShutsDown[] = "the service shuts down";

/// The event as a line. A device's report is quoted, because it may hold anything.
std::string LineOf(const Entry& entry) {
  const Event& event = entry.event;
  const std::string text = event.kind == EventKind::kReported ? Quoted(event.text) : event.text;
  return "ticket " + entry.ticket.id + " " + ToText(event.kind) + (text.empty() ? "" : ": " + text);
}

}  // namespace

Dispatcher::Dispatcher(const TicketBook::Settings& settings, Store& store, EventSink events, Metrics& metrics)
    : events_(std::move(events)),
      metrics_(metrics),
      store_(store),
      book_(settings, store, events_, metrics),
      thread_([this] { Run(); }) {}

Dispatcher::~Dispatcher() { Close(); }

void Dispatcher::SetWorkSink(WorkSink sink) {
  const std::lock_guard<std::mutex> lock(sink_mutex_);
  sink_ = std::move(sink);
}

void Dispatcher::SetNewsSink(std::function<void()> sink) {
  const std::lock_guard<std::mutex> lock(sink_mutex_);
  news_ = std::move(sink);
}

void Dispatcher::Post(Input input, Done done) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!closed_) {
      inputs_.push_back({std::move(input), std::move(done)});
      posted_.notify_one();
      return;
    }
  }
  if (done) done(kShutsDown);
}

void Dispatcher::Close() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    posted_.notify_one();
  }
  if (thread_.joinable()) thread_.join();
}

bool Dispatcher::closed() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return closed_;
}

void Dispatcher::Run() {
  while (!closed()) Handle(AwaitInputs());
  std::unique_lock<std::mutex> lock(mutex_);
  auto last = std::exchange(inputs_, {});  // nobody posts any more
  lock.unlock();
  last.push_back({[](TicketBook& book) { book.CloseAllStreams(); }, {}});
  Handle(last);
}

/// Waits until something was posted or is due.
std::deque<Dispatcher::Posted> Dispatcher::AwaitInputs() {
  const auto due = book_.NextDeadline();
  std::unique_lock<std::mutex> lock(mutex_);
  const auto is_awake = [this] { return closed_ || !inputs_.empty(); };
  if (due) {
    posted_.wait_until(lock, *due, is_awake);
  } else {
    posted_.wait(lock, is_awake);
  }
  if (closed_) return {};
  return std::exchange(inputs_, {});
}

/// One batch, from what happened to what is done about it.
void Dispatcher::Handle(const std::deque<Posted>& posted) {
  const auto begin = std::chrono::steady_clock::now();
  std::string fault;
  std::vector<Change> changes;
  const auto attempt = [&fault](const auto& step) {
    try {
      step();
    } catch (const std::exception& error) {
      fault = error.what();
    }
  };
  // Each of them, whatever became of the others: where a stream began or ended, that is so in any case.
  for (const Posted& each : posted) attempt([&] { each.input(book_); });
  attempt([&] { book_.Advance(); });
  attempt([&] { changes = book_.TakeChanges(closed()); });
  if (fault.empty()) attempt([&] { Remember(changes); });
  Work work = book_.TakeWork();
  if (fault.empty()) {
    book_.Settle();
    Publish(changes);
  } else {
    // A stream that has ended has ended, whatever is remembered.
    work.deliveries.clear();
    events_("nothing was remembered of what happened last: " + fault);
  }
  CarryOut(std::move(work));
  metrics_.NoteBatch(posted.size(),
                     std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
  for (const Posted& each : posted) {
    if (each.done) each.done(fault);
  }
  if (!fault.empty()) Recover();
}

void Dispatcher::CarryOut(Work work) {
  if (work.ends.empty() && work.deliveries.empty()) return;
  const std::lock_guard<std::mutex> lock(sink_mutex_);
  if (sink_) sink_(std::move(work));
}

void Dispatcher::Remember(const std::vector<Change>& changes) {
  if (!changes.empty()) store_.Write(changes);
}

/// Has the book forget what could not be remembered. Until that succeeds the service knows no tickets, and serves none.
void Dispatcher::Recover() {
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      posted_.wait_for(lock, kStorePause, [this] { return closed_; });
      if (closed_) return;
    }
    try {
      return book_.Reload();
    } catch (const std::exception& error) {
      events_(std::string("the tickets can't be read: ") + error.what());
      Refuse(error.what());
    }
  }
}

/// Tells those who wait. What devices' streams have posted stays: it is about what happened in any case.
void Dispatcher::Refuse(const std::string& fault) {
  std::deque<Posted> refused;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto first = std::stable_partition(inputs_.begin(), inputs_.end(),
                                             [](const Posted& each) { return each.done == nullptr; });
    std::move(first, inputs_.end(), std::back_inserter(refused));
    inputs_.erase(first, inputs_.end());
  }
  for (const Posted& each : refused) each.done(fault);
}

/// Tells those who watch. Only now: what stands in a line has happened for good.
void Dispatcher::Publish(const std::vector<Change>& changes) {
  EventNumber newest = 0;
  for (const Change& change : changes) {
    const auto* entry = std::get_if<Entry>(&change);
    if (entry == nullptr) continue;
    events_(LineOf(*entry));
    metrics_.NoteEvent(entry->event);
    const bool is_upload = entry->event.kind == EventKind::kUploaded && entry->archive;
    if (is_upload) metrics_.NoteUpload(entry->archive->size_bytes);
    newest = entry->event.number;
  }
  if (newest == 0) return;
  const std::lock_guard<std::mutex> lock(sink_mutex_);
  if (news_) news_();
}

}  // namespace TarvoOrvane::SupportService
