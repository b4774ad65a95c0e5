#include "ticket_follower.h"

#include <algorithm>
#include <new>

namespace TarvoOrvane::Supportctl {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;

constexpr long kOk = 200;

}  // namespace

TicketFollower::TicketFollower(const ApiClient& api, const Persistence& persistence,
                               std::function<void(const std::string&)> tell)
    : api_(api),
      persistence_(persistence),
      tell_(std::move(tell)),
      multi_(curl_multi_init(), curl_multi_cleanup) {
  if (!multi_) throw std::bad_alloc();
}

TicketFollower::~TicketFollower() {
  for (Stream& stream : streams_) Disconnect(stream);
}

bool TicketFollower::Run(std::optional<Clock::time_point> deadline,
                         const std::function<void(const Json::Value&)>& on_event) {
  const auto all_are_at_end = [this] {
    return std::all_of(streams_.begin(), streams_.end(),
                       [](const Stream& stream) { return stream.is_at_end; });
  };
  for (Stream& stream : streams_) stream.last_byte = Clock::now();
  for (;;) {
    for (Stream& stream : streams_) {
      if (!stream.is_at_end && !stream.transfer && stream.next_try <= Clock::now()) Connect(stream);
    }
    int running = 0;
    curl_multi_perform(multi_.get(), &running);
    for (Stream& stream : streams_) GiveArrived(stream, on_event);
    NoteEnds();
    if (all_are_at_end()) return true;
    if (deadline && Clock::now() >= *deadline) return false;
    Await(deadline);
  }
}

void TicketFollower::Connect(Stream& stream) {
  std::vector<std::string> header = {"Accept: text/event-stream"};
  std::string query;
  if (!stream.ticket.empty()) query = "?ticket=" + Escaped(stream.ticket) + "&after=0";
  if (!stream.events.last_id().empty()) header.push_back("Last-Event-ID: " + stream.events.last_id());
  stream.events.Restart();
  stream.last_try = Clock::now();
  try {
    stream.transfer =
        std::make_unique<Transfer>(api_.service(), "GET", "/events" + query, header,
                                   [this, &stream](std::string_view bytes) { TakeBytes(stream, bytes); });
  } catch (const Failure& failure) {  // its socket is gone while the service starts again
    return RetryLater(stream, failure);
  }
  if (curl_multi_add_handle(multi_.get(), stream.transfer->handle()) != CURLM_OK) throw std::bad_alloc();
}

void TicketFollower::Disconnect(Stream& stream) {
  if (!stream.transfer) return;
  if (stream.transfer->status() == kOk) stream.was_connected = true;
  curl_multi_remove_handle(multi_.get(), stream.transfer->handle());
  stream.transfer.reset();
}

/// Runs inside of libcurl, so it only keeps what came.
void TicketFollower::TakeBytes(Stream& stream, std::string_view bytes) {
  stream.last_byte = Clock::now();
  stream.pause = milliseconds(0);
  for (const ServerEvent& event : stream.events.Take(bytes)) {
    if (event.name == "ticket") stream.arrived.push_back(ParseObject(event.data));
  }
}

void TicketFollower::GiveArrived(Stream& stream, const std::function<void(const Json::Value&)>& on_event) {
  for (const Json::Value& event : stream.arrived) {
    const std::uint64_t number = NumberOf(event["event"], "number");
    if (number <= stream.last_number) continue;  // repeated behind the end of a connection
    stream.last_number = number;
    on_event(event);
    if (!stream.ticket.empty() && !IsSet(event["ticket"], "open")) stream.is_at_end = true;
  }
  stream.arrived.clear();
  if (stream.is_at_end) Disconnect(stream);
}

/// Looks at the connections that have ended, or are as good as that.
void TicketFollower::NoteEnds() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    const CURLcode code = message->data.result;
    const auto stream = std::find_if(streams_.begin(), streams_.end(), [&](const Stream& candidate) {
      return candidate.transfer && candidate.transfer->handle() == message->easy_handle;
    });
    if (stream != streams_.end()) AfterEnd(*stream, code);
  }
  for (Stream& stream : streams_) {
    if (!stream.transfer || Clock::now() < SilentSince(stream) + persistence_.silence) continue;
    Disconnect(stream);
    RetryLater(stream, Failure(ExitStatus::kUnreachable, "the support service has fallen silent"));
  }
}

void TicketFollower::AfterEnd(Stream& stream, CURLcode code) {
  try {
    stream.transfer->Check(code);
    Disconnect(stream);
    if (!stream.ticket.empty() && IsTicketAtEnd(stream)) {
      stream.is_at_end = true;
    } else {
      RetryLater(stream,
                 Failure(ExitStatus::kUnreachable, "the support service has ended the stream of events"));
    }
  } catch (const Refusal& refusal) {
    Disconnect(stream);
    if (!refusal.IsPassing()) throw;
    RetryLater(stream, refusal);
  } catch (const Failure& failure) {
    Disconnect(stream);
    if (failure.status() != ExitStatus::kUnreachable) throw;
    RetryLater(stream, failure);
  }
}

/// A stream ends with its ticket, but also with the service. So the ticket is asked for.
bool TicketFollower::IsTicketAtEnd(Stream& stream) {
  return !IsSet(api_.Get("/tickets/" + Escaped(stream.ticket)), "open");
}

/// @throws Failure this one, when the service is to be given up.
void TicketFollower::RetryLater(Stream& stream, const Failure& failure) {
  if (!stream.was_connected || Clock::now() >= stream.last_byte + persistence_.patience) throw failure;
  if (stream.pause.count() == 0) tell_(std::string(failure.what()) + "; trying again");
  stream.pause = std::clamp(stream.pause * 2, persistence_.first_pause, persistence_.longest_pause);
  stream.next_try = Clock::now() + stream.pause;
}

/// Waits until something has come, or is due.
void TicketFollower::Await(std::optional<Clock::time_point> deadline) {
  Clock::time_point until = Clock::now() + persistence_.silence;
  if (deadline) until = std::min(until, *deadline);
  for (const Stream& stream : streams_) {
    if (stream.is_at_end) continue;
    until = std::min(until, stream.transfer ? SilentSince(stream) + persistence_.silence : stream.next_try);
  }
  // One more, because what is left of the last is cut off.
  const auto left =
      std::max(duration_cast<milliseconds>(until - Clock::now()), milliseconds(0)) + milliseconds(1);
  curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(left.count()), nullptr);
}

}  // namespace TarvoOrvane::Supportctl
