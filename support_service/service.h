/// The whole support service in one object: store, dispatcher and the listeners.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "address_limit.h"
#include "api_front.h"
#include "archive_store.h"
#include "css_desk.h"
#include "disk_room.h"
#include "disk_workers.h"
#include "dispatcher.h"
#include "enrolment.h"
#include "event_log.h"
#include "http_server.h"
#include "metrics.h"
#include "notification_front.h"
#include "overview.h"
#include "retention.h"
#include "server_identity.h"
#include "service_settings.h"
#include "sqlite_store.h"
#include "upkeep.h"
#include "webhook.h"

namespace TarvoOrvane::SupportService {

/// Where the service with this data folder has its control socket: an absolute path, so that client and service agree
/// wherever each was started. The service and its client ask by this alone.
std::string ControlSocketPath(const std::filesystem::path& data_folder);

/// Used by one thread, the one that made it; all other threads are the fronts' own.
class SupportService {
 public:
  /// Starts everything. The calling thread's signal mask is inherited by all threads of the service.
  /// @param events  Takes the event lines, from any of them.
  /// @throws std::exception with what could not be used or listened on, and what to do.
  SupportService(const ServiceSettings& settings, const EventSink& events);

  /// Ends all streams, and refuses what is asked over the API. Waits for uploads for ServiceSettings::stop_limit, and
  /// then until complete requests are remembered and answered.
  ~SupportService();

  /// Takes over what can change while the service runs: limits, retention and the pause before a rejected ticket is
  /// delivered again. Of the rest nothing is looked at.
  /// @throws StoreError when the store fails at the same time. Some of it may count then.
  void SetSettings(const ServiceSettings& settings);

  SupportService(const SupportService&) = delete;
  SupportService& operator=(const SupportService&) = delete;

  /// Where devices get tickets: what stands as grpc_server.url in their configuration.
  [[nodiscard]] const std::string& grpc_url() const { return notification_.url(); }
  /// Where devices send archives and reports: what stands as css_server.url there.
  [[nodiscard]] const std::string& css_url() const { return css_.url(); }
  /// Where people and programs reach the API; empty where it is served over the control socket alone.
  [[nodiscard]] std::string api_url() const { return people_ ? people_->url() : ""; }
  /// Where programs on this machine reach the API: the path of a unix socket.
  [[nodiscard]] const std::string& control_socket() const { return control_socket_; }
  /// Who decides, and what is remembered. They live as long as this.
  [[nodiscard]] Dispatcher& dispatcher() { return dispatcher_; }
  [[nodiscard]] const Store& store() const { return store_; }
  [[nodiscard]] const WebhookCounts& webhook_counts() const { return webhook_counts_; }

 private:
  void ServePeople(const ServiceSettings& settings, const EventSink& events);
  void Stop();
  void StartWebhook(const WebhookSettings& settings, const EventSink& events);

  const EventSink events_;
  const std::chrono::milliseconds stop_limit_;
  // In this order: the folder's lock shows that no other service is alive before anything is read or listens, and each
  // part ends before what it uses.
  Metrics metrics_;
  ArchiveStore archives_;
  SqliteStore store_;
  ServerIdentity identity_;
  Dispatcher dispatcher_;
  DiskWorkers disk_;
  DiskRoom room_;
  std::atomic<std::uint64_t> largest_upload_;
  AddressLimit css_addresses_;
  AddressLimit people_addresses_;
  Overview overview_;
  BackupMaker backups_;
  WebhookCounts webhook_counts_;
  const Upkeep upkeep_;
  NotificationFront notification_;
  CssDesk css_desk_;
  HttpServer css_;
  Enroller enroller_;
  ApiFront api_;
  std::string control_socket_;
  HttpServer control_;
  std::optional<HttpServer> people_;
  RetentionThread retention_;
  std::optional<Webhook> webhook_;
};

}  // namespace TarvoOrvane::SupportService
