/// What becomes of settings that are read again while the service runs. A setting is a row of the table in
/// settings_change.cpp.
#pragma once

#include <string>
#include <vector>

#include "service_settings.h"

namespace TarvoOrvane::SupportService {

/// Takes over what can change while the service runs.
/// @param running  As the service runs now.
/// @param read     As the options and the file have them now.
/// @return A line for each setting that differs: that it counts from now on, or takes a restart.
[[nodiscard]] std::vector<std::string> TakeChanges(ServiceSettings& running, const ServiceSettings& read);

/// The settings that the table has, by the names of their options.
[[nodiscard]] std::vector<std::string> KnownSettings();

}  // namespace TarvoOrvane::SupportService
