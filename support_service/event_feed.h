/// The events of tickets as a stream of server-sent events, for whoever follows them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "http_exchange.h"
#include "metrics.h"
#include "store.h"

namespace TarvoOrvane::SupportService {

/// Knows who waits for events, and wakes them. Lives longer than the server that sends the bodies.
class EventFeed {
 public:
  /// Starts a thread, which wakes those who wait.
  /// @param store  Is asked for the events. Lives longer than the feed.
  /// @param metrics  Told of those who follow. Lives longer than the feed.
  EventFeed(const Store& store, Metrics& metrics);
  ~EventFeed();
  EventFeed(const EventFeed&) = delete;
  EventFeed& operator=(const EventFeed&) = delete;

  /// The store has new events. Any thread may call it; it does not wait.
  void Notify();

  /// A body with each event behind the one of that number, and a comment while nothing happens.
  /// @param ticket     Only this one's, and the body ends with it.
  /// @param may_go_on  Whether who follows may still do so. It is asked before each look for events, in any thread of
  ///                   the server, and at least every kQuiet; the body ends where it says no.
  [[nodiscard]] std::shared_ptr<BodySource> Follow(EventNumber after, std::optional<TicketNumber> ticket,
                                                   std::function<bool()> may_go_on);

  /// Has `wake` called once, in the feed's thread: at the next event, or after kQuiet. It must not block.
  void Await(std::function<void()> wake);

  /// So often there is a comment while nothing happens: by this a lost connection is found.
  static constexpr std::chrono::seconds kQuiet{15};

 private:
  friend class FollowedEvents;

  void Run();

  const Store& store_;
  Metrics& metrics_;
  std::mutex mutex_;  ///< Guards what follows.
  std::condition_variable changed_;
  std::vector<std::function<void()>> waiting_;
  bool news_ = false;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace TarvoOrvane::SupportService
