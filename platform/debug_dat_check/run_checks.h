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
  std::string configuration = "/usr/tarvo/etc/tarvomibserver.conf";
  std::string tls_folder = TarvoOrvane::Internal::kTlsFolder;
  std::string system_roots = TarvoOrvane::Internal::TicketClientOptions().system_roots_file;
  TarvoOrvane::Internal::SerialNumberPaths serial_number;
  TarvoOrvane::Internal::LoggerOptions logger;
  TARVO::SupportForm::Paths collection;
};

/// Makes all checks and hands each to `report` as soon as it is made. A check that depends on one with a
/// problem is reported as skipped.
void RunChecks(const Places& places, const ServerLimits& limits,
               const std::function<void(const Check&)>& report);

}  // namespace DebugDatCheck
