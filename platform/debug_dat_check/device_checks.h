/// Checks of what lies on the device. None of them changes or logs anything. What others than root could change, there
/// or in a folder above, is a problem. Where to look is the caller's to say (run_checks.h), so that a test needs no
/// device.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "check.h"
#include "collection_limits.h"
#include "logger.h"
#include "serial_number.h"
#include "tls_files.h"

namespace DebugDatCheck {

/// What the service configuration names, as it stands there; empty where it names nothing.
struct ServiceUrls {
  std::string notification;  ///< For CheckNotificationAddress().
  std::string css;           ///< For CheckCssAddress().
};

/// Reads the service configuration as the daemon does, and tells what the daemon's log would not: the line of a fault,
/// and which member is missing or of another kind.
/// @param urls  Set as far as the file has them, also when one of them is missing.
[[nodiscard]] Check CheckConfiguration(const std::string& path, ServiceUrls& urls);

/// Reads the TLS files as both servers' connections do.
/// @param out  Set when all files can be used, even if others could change them; otherwise left alone.
/// @return One check for each problem, or a single one.
[[nodiscard]] std::vector<Check> CheckTlsFiles(const std::string& folder,
                                               std::optional<TarvoOrvane::Internal::TlsFiles>& out);

/// Determines the serial number as both libraries' users do, and which of the files tells it. A configured file that is
/// passed over is a warning: the device would show up under a number that nobody chose.
[[nodiscard]] Check CheckSerialNumber(const TarvoOrvane::Internal::SerialNumberPaths& paths);

/// Looks at the file system that archives are made on, which need not have their folder yet.
/// @param limits  Less room than `least_bytes` beside what stays free is a problem, less than the largest archive
///                takes a warning.
[[nodiscard]] Check CheckFreeSpace(const TARVO::SupportForm::Paths& paths,
                                   const TARVO::SupportForm::Limits& limits);

/// Reads and compiles the file of further patterns as a collection does.
[[nodiscard]] Check CheckPatterns(const TARVO::SupportForm::Paths& paths);

/// Tells where log lines go. Either way is in order; an operator who looks into the other place finds nothing.
[[nodiscard]] Check CheckDebugFlag(const TarvoOrvane::Internal::LoggerOptions& logger);

/// Reads every application description as a collection does, and looks for the programs that it names.
/// @return One check for each entry of the folder, or a single one, in the order of their names.
[[nodiscard]] std::vector<Check> CheckApplications(const TARVO::SupportForm::Paths& paths,
                                                   const TARVO::SupportForm::Limits& limits);

}  // namespace DebugDatCheck
