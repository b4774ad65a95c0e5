/// What an operator may set.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "event_log.h"
#include "retention.h"
#include "server_identity.h"
#include "ticket_book.h"
#include "webhook.h"

namespace TarvoOrvane::SupportService {

/// What may be set; the defaults are those of the command line.
struct ServiceSettings {
  std::string grpc_address = "127.0.0.1:0";  ///< HOST:PORT or unix:/path.
  std::string http_address = "127.0.0.1:0";  ///< HOST:PORT.
  std::string api_address;                   ///< HOST:PORT; empty for the control socket alone.
  std::filesystem::path data_folder = "support_service_data";  ///< Made where it is missing.
  IdentitySettings identity;
  LogFormat log_format = LogFormat::kPlain;  ///< The program's; the service itself writes no log.
  TicketBook::Settings tickets;              ///< How devices are known is part of it.
  WebhookSettings webhook;
  /// At the end, uploads that are under way have so long to come to their end.
  std::chrono::milliseconds stop_limit{10'000};
  std::chrono::seconds http_idle_limit{60};  ///< A connection on which nothing moves for so long is ended.
  std::chrono::seconds http_head_limit{30};  ///< A request's head takes so long at most.
  std::uint64_t largest_upload = std::uint64_t{4} << 30;  ///< In bytes.
  /// To one network listener. Those of a proxy on this machine are not limited.
  std::size_t connections_per_address = 200;
  RetentionSettings retention;
  /// So many bytes of the disk are never filled by uploads; nothing for a twentieth of it, a GiB at most.
  std::optional<std::uint64_t> disk_stays_free;
};

}  // namespace TarvoOrvane::SupportService
