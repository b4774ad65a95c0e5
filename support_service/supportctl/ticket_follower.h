/// Follows what happens to tickets over streams of server-sent events, and over the ends of connections.
#pragma once

#include <curl/curl.h>
#include <json/value.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "api_client.h"
#include "event_stream.h"

namespace TarvoOrvane::Supportctl {

/// How a lost connection is made again.
struct Persistence {
  std::chrono::milliseconds first_pause{1000};  ///< Doubled with each attempt that brings nothing.
  std::chrono::milliseconds longest_pause{30'000};
  std::chrono::seconds silence{
      60};  ///< A connection without a byte for so long is lost. The service sends some sooner.
  std::chrono::seconds patience{300};  ///< So long after the last byte the service is given up.
};

/// Has a stream of its own for each ticket.
class TicketFollower {
 public:
  using Clock = std::chrono::steady_clock;

  /// @param api          Lives longer than the follower, as `persistence` does.
  /// @param tell         Gets sentences on lost connections, for people.
  TicketFollower(const ApiClient& api, const Persistence& persistence,
                 std::function<void(const std::string&)> tell);
  ~TicketFollower();
  TicketFollower(const TicketFollower&) = delete;
  TicketFollower& operator=(const TicketFollower&) = delete;

  /// Follows the ticket, from its first event to its end.
  /// @param id  All of it.
  void Follow(const std::string& id) { streams_.emplace_back(id); }
  /// Follows every ticket, from now on and without an end.
  void FollowAll() { streams_.emplace_back(""); }

  /// Calls on_event with each TicketEvent, once, until the end of every ticket.
  /// @param deadline  Without one it takes as long as it takes.
  /// @return false when the deadline came first.
  /// @throws Failure when the service refuses, can't be reached at first, or stays lost.
  bool Run(std::optional<Clock::time_point> deadline,
           const std::function<void(const Json::Value&)>& on_event);

 private:
  struct Stream {
    explicit Stream(std::string ticket_id) : ticket(std::move(ticket_id)) {}

    std::string ticket;  ///< Empty for all of them.
    EventStream events;
    std::vector<Json::Value> arrived;  ///< Not given to on_event yet.
    std::uint64_t last_number = 0;     ///< Of an event.
    bool is_at_end = false;
    std::unique_ptr<Transfer> transfer;  ///< Null between two connections.
    Clock::time_point last_byte;         ///< Of any connection; before the first, when Run() began.
    Clock::time_point last_try;
    Clock::time_point next_try;
    std::chrono::milliseconds pause{0};  ///< Before the next attempt; 0 while all is well.
    bool was_connected = false;          ///< At some time.
  };

  /// Of a stream that is connected, or tries to.
  static Clock::time_point SilentSince(const Stream& stream) {
    return std::max(stream.last_byte, stream.last_try);
  }

  void Connect(Stream& stream);
  void Disconnect(Stream& stream);
  void TakeBytes(Stream& stream, std::string_view bytes);
  void GiveArrived(Stream& stream, const std::function<void(const Json::Value&)>& on_event);
  void NoteEnds();
  void AfterEnd(Stream& stream, CURLcode code);
  void RetryLater(Stream& stream, const Failure& failure);
  bool IsTicketAtEnd(Stream& stream);
  void Await(std::optional<Clock::time_point> deadline);

  const ApiClient& api_;
  const Persistence& persistence_;
  const std::function<void(const std::string&)> tell_;
  std::unique_ptr<CURLM, CURLMcode (*)(CURLM*)> multi_;
  std::vector<Stream> streams_;  ///< Complete before Run(), so that each stays where it is.
};

}  // namespace TarvoOrvane::Supportctl
