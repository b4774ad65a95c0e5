/// The whole support service in one object: book, store and the three fronts.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>

#include "archive_store.h"
#include "control_front.h"
#include "css_server.h"
#include "event_log.h"
#include "notification_front.h"
#include "ticket_book.h"

namespace TarvoOrvane::SupportService {

struct ServiceSettings {
  std::string grpc_address = "127.0.0.1:0";  ///< HOST:PORT or unix:/path.
  std::string http_address = "127.0.0.1:0";  ///< HOST:PORT.
  std::filesystem::path data_folder = "support_service_data";
  TicketBook::Settings tickets;
  std::chrono::seconds http_idle_limit{60};
};

/// @return where the service with this data folder has its control socket; an absolute path.
std::string ControlSocketPath(const std::filesystem::path& data_folder);

class SupportService {
 public:
  /// Starts everything. The calling thread's signal mask is inherited by all threads of the service.
  /// @throw std::exception  what could not be used or listened on, and what to do.
  SupportService(const ServiceSettings& settings, const EventSink& events);

  /// Ends all streams, calls and connections; takes a second or two at most.
  ~SupportService();

  SupportService(const SupportService&) = delete;
  SupportService& operator=(const SupportService&) = delete;

  [[nodiscard]] const std::string& grpc_url() const { return notification_.url(); }
  [[nodiscard]] const std::string& css_url() const { return css_.url(); }
  [[nodiscard]] const std::string& control_socket() const { return control_socket_; }
  [[nodiscard]] TicketBook& book() { return book_; }

 private:
  ArchiveStore store_;
  TicketBook book_;
  std::string control_socket_;
  CssServer css_;
  NotificationFront notification_;
  ControlFront control_;
};

}  // namespace TarvoOrvane::SupportService
