/// What may be a device's serial number: its name in the stream, in the store and in its certificate.
#pragma once

#include <string>

namespace TarvoOrvane::SupportService {

/// Why a device can't have this serial number, as the beginning of a sentence; empty if it can.
[[nodiscard]] std::string SerialFault(const std::string& serial_number);

}  // namespace TarvoOrvane::SupportService
