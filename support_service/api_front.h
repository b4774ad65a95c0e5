/// The API for people and programs (docs/support-service-api.yaml): which request is which operation, and who may ask
/// for it. HttpServer objects carry it, one for the control socket and one for https.
#pragma once

#include <memory>

#include "api_call.h"
#include "event_log.h"

namespace TarvoOrvane::SupportService {

/// The threads of the HTTP servers use it. It lives longer than those.
class ApiFront {
 public:
  /// @param overview  Lives longer than the front.
  /// @param events  Takes what went wrong, and what strangers try.
  ApiFront(Dispatcher& dispatcher, const Store& store, const ArchiveStore& archives, DiskWorkers& disk,
           const Enroller& enroller, const Overview& overview, Metrics& metrics, const Upkeep& upkeep,
           const EventSink& events);
  /// Followers of events are not woken any more.
  ~ApiFront();
  ApiFront(const ApiFront&) = delete;
  ApiFront& operator=(const ApiFront&) = delete;

  /// Ends all looks into archives, so that the servers' ends need not wait for them.
  void EndLooks() { contents_.Stop(); }

  /// For HttpServer.
  std::unique_ptr<Exchange> Begin(HttpRequest& request);

  [[nodiscard]] EventFeed& feed() { return feed_; }

 private:
  /// @param operation  For the metrics; empty where the request is for none.
  std::unique_ptr<Exchange> Refuse(const HttpRequest& request, const std::string& operation,
                                   const ApiError& error) const;
  [[nodiscard]] Caller CallerOf(const HttpRequest& request) const;

  Dispatcher& dispatcher_;
  EventFeed feed_;
  AttemptLimit addresses_;
  AttemptLimit names_;
  DiskWorkers hashing_;
  DiskWorkers readers_;
  const LimitedEvents strangers_;  ///< For what anybody can cause.
  ArchiveContents contents_;
  ApiDesk desk_;
};

}  // namespace TarvoOrvane::SupportService
