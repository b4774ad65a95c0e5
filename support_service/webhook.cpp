#include "webhook.h"

#include <curl/curl.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "api_json.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;

/// So many ends of tickets are known ahead of the one that is told.
constexpr std::size_t kMostWaiting = 1000;
/// After the store could not be read.
constexpr std::chrono::seconds kReadPause{10};
constexpr long kConnectSeconds = 10;
constexpr long kCallSeconds = 30;
/// Of an answer's body: it means nothing here.
constexpr std::size_t kMostAnswerBytes = std::size_t{16} * 1024;
constexpr std::size_t kShortestSecret = 16;
constexpr std::size_t kLongestSecret = 4096;

using CurlUrl = std::unique_ptr<CURLU, void (*)(CURLU*)>;

/// @return "" where the URL has no such part.
std::string PartOf(const CurlUrl& url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url.get(), part, &text, 0) != CURLUE_OK) return "";
  std::string copy = text;
  curl_free(text);
  return copy;
}

bool IsThisMachine(const std::string& host) {
  const bool is_v4 = host.rfind("127.", 0) == 0 && host.find_first_not_of("0123456789.") == std::string::npos;
  return is_v4 || host == "localhost" || host == "[::1]";
}

CurlUrl Parsed(const std::string& text) {
  CurlUrl url(curl_url(), curl_url_cleanup);
  if (!url || curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) url.reset();
  return url;
}

/// In lower case, as the library reads it; "" for no URL.
std::string SchemeOf(const std::string& text) {
  const CurlUrl url = Parsed(text);
  return url ? PartOf(url, CURLUPART_SCHEME) : "";
}

std::string AddressOf(const std::string& text) {
  const CurlUrl url = Parsed(text);
  if (!url) return "";
  const std::string port = PartOf(url, CURLUPART_PORT);
  return PartOf(url, CURLUPART_SCHEME) + "://" + PartOf(url, CURLUPART_HOST) +
         (port.empty() ? "" : ":" + port);
}

/// Whether the ticket is at an end with it.
bool IsEnd(EventKind kind) {
  switch (kind) {
    case EventKind::kReported:
    case EventKind::kRefused:
    case EventKind::kNoResult:
    case EventKind::kCancelled:
    case EventKind::kExpired:
      return true;
    default:
      return false;
  }
}

/// An event's number alone comes a second time after a backup was restored, for the end of another ticket.
std::string IdOf(const Event& event, const Ticket& ticket) {
  return ticket.id + "-" + std::to_string(event.number);
}

std::string BodyOf(const Event& event, const Ticket& ticket) {
  Json::Value body(Json::objectValue);
  body["id"] = IdOf(event, ticket);
  body["type"] = "ticket.ended";
  body["time"] = TimeText(event.time);
  body["event"] = JsonOf(event);
  body["ticket"] = JsonOf(ticket);
  return CompactJson(body);
}

/// Counts what comes, up to so much that the rest is not waited for.
std::size_t PassOver(char* /*data*/, std::size_t size, std::size_t count, void* taken_pointer) {
  auto& taken = *static_cast<std::size_t*>(taken_pointer);
  taken += size * count;
  return taken > kMostAnswerBytes ? 0 : size * count;
}

constexpr long kFirstSuccess = 200;
constexpr long kFirstOther = 300;

}  // namespace

std::string WebhookUrlFault(const std::string& url) {
  const CurlUrl parsed = Parsed(url);
  if (!parsed) return "is no URL: write it as https://HOST/PATH";
  const std::string scheme = PartOf(parsed, CURLUPART_SCHEME);
  const std::string host = PartOf(parsed, CURLUPART_HOST);
  if (scheme != "https" && scheme != "http") return "is no https URL";
  if (scheme == "http" && !IsThisMachine(host)) {
    return "is not encrypted: write https. http is for a receiver on this machine alone, as "
           "http://127.0.0.1:8080/";
  }
  if (!PartOf(parsed, CURLUPART_USER).empty() || !PartOf(parsed, CURLUPART_PASSWORD).empty()) {
    return "has a name or a password: leave them out, the receiver knows the service by the signature";
  }
  return "";
}

std::string ReadWebhookSecret(const fs::path& file) {
  struct stat found {};
  std::ifstream stream(file);
  if (!stream || stat(file.c_str(), &found) == -1) {
    throw std::runtime_error(file.string() + ": " + std::generic_category().message(errno));
  }
  if ((found.st_mode & S_IRWXO) != 0) {
    throw std::runtime_error("everybody may use " + file.string() + ": chmod 600 " + file.string());
  }
  std::string secret;
  std::getline(stream, secret);
  if (secret.size() < kShortestSecret || secret.size() > kLongestSecret) {
    throw std::runtime_error("the first line of " + file.string() + " has to have " +
                             std::to_string(kShortestSecret) + " to " + std::to_string(kLongestSecret) +
                             " bytes: make one with openssl rand -hex 32");
  }
  return secret;
}

std::string WebhookSignature(const std::string& secret, const std::string& timestamp,
                             const std::string& body) {
  const std::string text = timestamp + "." + body;
  std::array<unsigned char, EVP_MAX_MD_SIZE> code{};
  unsigned int size = 0;
  const bool is_made =
      HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
           reinterpret_cast<const unsigned char*>(text.data()), text.size(), code.data(), &size) != nullptr;
  if (!is_made) throw std::runtime_error("cannot compute HMAC-SHA256");
  return "sha256=" + HexText(code.data(), size);
}

std::chrono::milliseconds WebhookPause(const WebhookSettings& settings, std::uint64_t failures,
                                       std::minstd_rand& random) {
  std::chrono::milliseconds pause = settings.first_pause;
  for (; failures > 1 && pause < settings.longest_pause; --failures) pause *= 2;
  pause = std::min(pause, settings.longest_pause);
  return std::chrono::milliseconds(
      std::uniform_int_distribution<std::int64_t>(pause.count() / 2, pause.count())(random));
}

bool Webhook::Signals::IsEnding() {
  const std::lock_guard<std::mutex> lock(mutex);
  return is_ending;
}

Webhook::Webhook(WebhookSettings settings, Dispatcher& dispatcher, const Store& store, EventFeed& feed,
                 WebhookCounts& counts, EventSink events)
    : settings_(std::move(settings)),
      address_(AddressOf(settings_.url)),
      dispatcher_(dispatcher),
      store_(store),
      feed_(feed),
      counts_(counts),
      events_(std::move(events)),
      told_(store.ToldByWebhook().value_or(store.LastEvent())),
      is_remembered_(store.ToldByWebhook().has_value()),
      read_(told_),
      random_(std::random_device()()) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  counts_.is_on = true;
  thread_ = std::thread([this] { Run(); });
}

Webhook::~Webhook() {
  End();
  thread_.join();
}

void Webhook::End() {
  const std::lock_guard<std::mutex> lock(signals_->mutex);
  signals_->is_ending = true;
  signals_->changed.notify_all();
}

void Webhook::Run() {
  while (!signals_->IsEnding()) {
    try {
      Step();
    } catch (const std::exception& failure) {
      events_(std::string("the webhook has to wait: ") + failure.what());
      Rest();
    }
  }
}

/// Tells one end, or waits until there may be something to do.
void Webhook::Step() {
  Listen();  // first: what is written behind the look wakes it
  if (!is_remembered_) Remember();
  Fill();
  if (waiting_.empty()) return AwaitUntil(std::nullopt);
  if (next_try_ && std::chrono::steady_clock::now() < *next_try_) return AwaitUntil(next_try_);
  Tell(waiting_.front());
}

/// Has the feed wake it once.
void Webhook::Listen() {
  if (std::exchange(listens_, true)) return;
  feed_.Await([signals = signals_] {
    const std::lock_guard<std::mutex> lock(signals->mutex);
    signals->has_news = true;
    signals->changed.notify_all();
  });
}

/// Looks for ends that the store has meanwhile.
void Webhook::Fill() {
  for (bool has_more = true; has_more && waiting_.size() < kMostWaiting;) {
    const std::vector<Event> events = store_.EventsAfter(read_, kMostWaiting);
    has_more = events.size() == kMostWaiting;
    for (const Event& event : events) {
      if (waiting_.size() == kMostWaiting) break;
      read_ = event.number;
      if (IsEnd(event.kind)) waiting_.push_back(event);
    }
  }
  counts_.waiting = waiting_.size();
}

void Webhook::Tell(const Event& event) {
  const auto ticket = store_.Find(event.ticket);
  if (!ticket) return Drop();  // it is not kept any more
  std::string fault;
  try {
    fault = Call(IdOf(event, *ticket), BodyOf(event, *ticket));
  } catch (const std::exception& failure) {
    fault = failure.what();  // it counts as any other
  }
  if (!fault.empty() && signals_->IsEnding()) return;  // it was cut off, and is told at the next start
  if (!fault.empty()) return Fail(event, *ticket, fault);
  ++counts_.delivered;
  failures_ = 0;
  next_try_.reset();
  Drop();
}

/// @return Why it was no success; empty where it was.
std::string Webhook::Call(const std::string& id, const std::string& body) {
  const std::string timestamp =
      std::to_string(std::chrono::duration_cast<std::chrono::seconds>(Now().wall.time_since_epoch()).count());
  std::unique_ptr<curl_slist, void (*)(curl_slist*)> headers(nullptr, curl_slist_free_all);
  for (const std::string& header :
       {std::string("Content-Type: application/json"), std::string("Expect:"), "Webhook-Id: " + id,
        "Webhook-Timestamp: " + timestamp,
        "Webhook-Signature: " + WebhookSignature(settings_.secret, timestamp, body)}) {
    curl_slist* former = headers.release();
    headers.reset(curl_slist_append(former, header.c_str()));
  }
  const std::unique_ptr<CURL, void (*)(CURL*)> call(curl_easy_init(), curl_easy_cleanup);
  if (!call || !headers) throw std::bad_alloc();
  std::array<char, CURL_ERROR_SIZE> detail{};
  std::size_t taken = 0;
  const auto set = [&](CURLoption option, auto value) {
    if (curl_easy_setopt(call.get(), option, value) != CURLE_OK) {
      throw std::runtime_error("a call can't be prepared");
    }
  };
  set(CURLOPT_URL, settings_.url.c_str());
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  if (SchemeOf(settings_.url) == "http") set(CURLOPT_PROXY, "");
  if (!settings_.authority.empty()) {
    set(CURLOPT_CAINFO, settings_.authority.c_str());
    set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));  // these alone, and not the system's as well
  }
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_QUICK_EXIT, 1L);  // a call that is cut off does not wait for a name server
  set(CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
  set(CURLOPT_TIMEOUT, kCallSeconds);
  set(CURLOPT_USERAGENT, "support_service/" DDT_VERSION);
  set(CURLOPT_HTTPHEADER, headers.get());
  set(CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  set(CURLOPT_POSTFIELDS, body.c_str());
  set(CURLOPT_WRITEFUNCTION, &PassOver);
  set(CURLOPT_WRITEDATA, &taken);
  set(CURLOPT_ERRORBUFFER, detail.data());
  // The library calls it once a second at least.
  const auto ends = [](void* signals, curl_off_t, curl_off_t, curl_off_t, curl_off_t) -> int {
    return static_cast<Signals*>(signals)->IsEnding() ? 1 : 0;
  };
  set(CURLOPT_NOPROGRESS, 0L);
  set(CURLOPT_XFERINFOFUNCTION, static_cast<curl_xferinfo_callback>(ends));
  set(CURLOPT_XFERINFODATA, signals_.get());
  const CURLcode code = curl_easy_perform(call.get());
  long status = 0;
  curl_easy_getinfo(call.get(), CURLINFO_RESPONSE_CODE, &status);
  // First: the receiver has taken it, whatever becomes of the rest of its answer.
  if (status >= kFirstSuccess && status < kFirstOther) return "";
  const bool is_cut_by_us = code == CURLE_WRITE_ERROR && taken > kMostAnswerBytes;
  if (code != CURLE_OK && !is_cut_by_us) {
    return Printable(detail.front() != '\0' ? detail.data() : curl_easy_strerror(code));
  }
  return "it was answered by HTTP " + std::to_string(status);
}

void Webhook::Fail(const Event& event, const Ticket& ticket, const std::string& fault) {
  ++counts_.failed;
  const auto now = std::chrono::steady_clock::now();
  if (!failing_since_) failing_since_ = now;
  const std::chrono::milliseconds pause = WebhookPause(settings_, ++failures_, random_);
  next_try_ = now + pause;
  const std::string what = "the end of ticket " + ticket.id + " was not told to " + address_ + ": " + fault;
  if (now - *failing_since_ < settings_.give_up_after) {
    return events_("webhook: " + what + "; next try in " + std::to_string((pause.count() + 999) / 1000) +
                   " s");
  }
  ++counts_.given_up;
  events_("webhook: " + what + "; it is given up");
  dispatcher_.Post([id = ticket.id, number = event.number, fault](TicketBook& book) {
    book.registry().Record({"webhook", "service"}, "webhook given up", id,
                           "event " + std::to_string(number) + ": " + fault);
  });
  Drop();
}

/// The first in line is told, or not to be told.
void Webhook::Drop() {
  told_ = waiting_.front().number;
  is_remembered_ = false;
  waiting_.pop_front();
  counts_.waiting = waiting_.size();
  failing_since_.reset();
  Remember();
}

void Webhook::Remember() {
  try {
    dispatcher_.Call([told = told_](TicketBook& book) { book.registry().SetWebhookPosition(told); });
    is_remembered_ = true;
  } catch (const StoreError&) {
    // The dispatcher has said so. The next step tries again; what is told twice until then is the smaller evil.
  }
}

/// Waits for news, for that time, or for the end.
void Webhook::AwaitUntil(std::optional<SteadyTime> due) {
  std::unique_lock<std::mutex> lock(signals_->mutex);
  const auto is_awake = [this] { return signals_->has_news || signals_->is_ending; };
  if (due) {
    signals_->changed.wait_until(lock, *due, is_awake);
  } else {
    signals_->changed.wait(lock, is_awake);
  }
  if (std::exchange(signals_->has_news, false)) listens_ = false;
}

/// Waits for kReadPause, or for the end. News change nothing about what failed.
void Webhook::Rest() {
  std::unique_lock<std::mutex> lock(signals_->mutex);
  signals_->changed.wait_for(lock, kReadPause, [this] { return signals_->is_ending; });
}

}  // namespace TarvoOrvane::SupportService
