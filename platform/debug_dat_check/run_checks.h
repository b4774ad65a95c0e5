/// All checks, in the order in which they depend on each other.
#pragma once

#include <functional>
#include <string>

#include "check.h"
#include "collection_limits.h"
#include "logger.h"
#include "serial_number.h"
#include "server_checks.h"
#include "ticket_client.h"
#include "tls_files.h"

namespace DebugDatCheck {

/// Where to look. A device uses the values that stand here, tests pass others.
struct Places {
  /// The daemon's own path, which is written into it.
  std::string configuration = "/usr/tarvo/etc/tarvomibserver.conf";
  std::string tls_folder = TarvoOrvane::Internal::kTlsFolder;
  /// The ticket client's, trusted where there is no ca.pem.
  std::string system_roots = TarvoOrvane::Internal::TicketClientOptions().system_roots_file;
  TarvoOrvane::Internal::SerialNumberPaths serial_number;
  TarvoOrvane::Internal::LoggerOptions logger;
  TARVO::SupportForm::Paths collection;  ///< Archives, application descriptions and patterns.
  std::string pid_file = "/var/run/kestrix_debug_dat_transmitter.pid";
  /// Where it is installed the daemon runs as kUnitUser.
  std::string unit = "/lib/systemd/system/debug-dat-transmitter.service";
};

/// Makes all checks and hands each to `report` as soon as it is made, in the order of the document: an operator sees
/// what there is while a server lets the next one wait. A check that depends on one with a problem is reported as
/// skipped. Run by root it looks at what the daemon uses with the rights of the user that the daemon runs as, or would by
/// the installed unit, and with root's at what the collector uses. Where it may not become that user, it looks as root.
/// @param limits  Bound each look at a server; there are five.
/// @param report  Called in this thread.
void RunChecks(const Places& places, const ServerLimits& limits,
               const std::function<void(const Check&)>& report);

}  // namespace DebugDatCheck
