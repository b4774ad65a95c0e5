/// Checks of what lies on the device. None of them changes anything. What others than root could change, there or in a
/// folder above, is a problem.
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
  std::string notification;
  std::string css;
};

/// Reads the service configuration as the daemon does.
[[nodiscard]] Check CheckConfiguration(const std::string& path, ServiceUrls& urls);

/// Reads the TLS files as both servers' connections do.
/// @param out  Set when all files can be used.
/// @return One check for each problem, or a single one.
[[nodiscard]] std::vector<Check> CheckTlsFiles(const std::string& folder,
                                               std::optional<TarvoOrvane::Internal::TlsFiles>& out);

/// Determines the serial number, and which of the files tells it.
[[nodiscard]] Check CheckSerialNumber(const TarvoOrvane::Internal::SerialNumberPaths& paths);

/// Looks at the file system that archives are made on, which need not have their folder yet.
[[nodiscard]] Check CheckFreeSpace(const TARVO::SupportForm::Paths& paths,
                                   const TARVO::SupportForm::Limits& limits);

/// Reads the file of further patterns as a collection does, but does not compile them.
[[nodiscard]] Check CheckPatterns(const TARVO::SupportForm::Paths& paths);

/// Tells where log lines go.
[[nodiscard]] Check CheckDebugFlag(const TarvoOrvane::Internal::LoggerOptions& logger);

/// Reads every application description as a collection does.
/// @return One check for each entry of the folder, or a single one, in the order of their names.
[[nodiscard]] std::vector<Check> CheckApplications(const TARVO::SupportForm::Paths& paths,
                                                   const TARVO::SupportForm::Limits& limits);

}  // namespace DebugDatCheck
