/// Tells another program when tickets end: one HTTP request for each, signed, and repeated until it is answered by
/// success. How a receiver checks a call stands in docs/support-service.md.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>

#include "dispatcher.h"
#include "event_feed.h"
#include "event_log.h"
#include "store.h"
#include "upkeep.h"

namespace TarvoOrvane::SupportService {

struct WebhookSettings {
  std::string url;     ///< Empty: there is no webhook.
  std::string secret;  ///< Of the signatures. Is written nowhere.
  /// PEM file of who issues the receiver's certificate, and nobody else may. Empty for those that the system trusts.
  std::filesystem::path authority;
  // After a call without success. The pause doubles with each one, and is shortened by up to a half at random.
  std::chrono::milliseconds first_pause{1'000};
  std::chrono::milliseconds longest_pause{600'000};
  /// So long after its first call without success a ticket's end is not told any more.
  std::chrono::milliseconds give_up_after{std::chrono::hours(24)};
};

/// Why the webhook can't have this URL; empty if it can: https, or http to this machine.
[[nodiscard]] std::string WebhookUrlFault(const std::string& url);

/// Reads the secret, which is the file's first line.
/// @throws std::runtime_error when it can't be used, or when everybody may read the file.
[[nodiscard]] std::string ReadWebhookSecret(const std::filesystem::path& file);

/// What stands in the header Webhook-Signature.
/// @param timestamp  What stands in Webhook-Timestamp.
[[nodiscard]] std::string WebhookSignature(const std::string& secret, const std::string& timestamp,
                                           const std::string& body);

/// How long to wait before the next try.
/// @param failures  So many calls in a row were without success, this one among them; 1 at least.
/// @param random    Shortens it by up to a half, so that many services do not call at once.
[[nodiscard]] std::chrono::milliseconds WebhookPause(const WebhookSettings& settings, std::uint64_t failures,
                                                     std::minstd_rand& random);

/// Has a thread of its own. The ends are told one after the other, in their order. Which was told last is remembered by
/// the store, so that neither an outage of the receiver nor a restart of the service loses one. One may come twice.
class Webhook {
 public:
  /// Starts the thread. Where the store remembers no position, what ended before is not told.
  /// @param feed    Wakes it.
  /// @param counts  Is kept up to date. All of them live longer than the webhook.
  Webhook(WebhookSettings settings, Dispatcher& dispatcher, const Store& store, EventFeed& feed,
          WebhookCounts& counts, EventSink events);
  /// End(), and waits until the thread has ended.
  ~Webhook();
  /// Cuts off the call that is under way, at most a second or two later, and begins no other. Does not wait for that.
  void End();
  Webhook(const Webhook&) = delete;
  Webhook& operator=(const Webhook&) = delete;

 private:
  using SteadyTime = std::chrono::steady_clock::time_point;

  /// What the thread and those who wake it share; they may outlive the webhook.
  struct Signals {
    std::mutex mutex;
    std::condition_variable changed;
    bool has_news = false;
    bool is_ending = false;
    [[nodiscard]] bool IsEnding();
  };

  void Run();
  void Step();
  void Listen();
  void Fill();
  void Tell(const Event& event);
  [[nodiscard]] std::string Call(const std::string& id, const std::string& body);
  void Fail(const Event& event, const Ticket& ticket, const std::string& fault);
  void Drop();
  void Remember();
  void AwaitUntil(std::optional<SteadyTime> due);
  void Rest();

  const WebhookSettings settings_;
  const std::string address_;  ///< Of the URL, without what may be a secret in it.
  Dispatcher& dispatcher_;
  const Store& store_;
  EventFeed& feed_;
  WebhookCounts& counts_;
  const EventSink events_;
  const std::shared_ptr<Signals> signals_ = std::make_shared<Signals>();

  // The thread's alone.
  EventNumber told_;      ///< All before it, and it, are told or given up.
  bool is_remembered_;    ///< The store knows of `told_`.
  EventNumber read_;      ///< The last event of the store that was looked at.
  bool listens_ = false;  ///< The feed will wake it.
  std::deque<Event> waiting_;
  std::uint64_t failures_ = 0;               ///< Calls without success since the last one that had it.
  std::optional<SteadyTime> failing_since_;  ///< The first call for the first in line.
  std::optional<SteadyTime> next_try_;       ///< Not before.
  std::minstd_rand random_;

  std::thread thread_;
};

}  // namespace TarvoOrvane::SupportService
