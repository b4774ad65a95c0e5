/// Where the device's serial number comes from. The worker asks for it before each stream, the transmission child once
/// for each request, so that a changed number needs no restart.
#pragma once

#include <string>

#include "platform/support_service_client.h"

namespace TarvoOrvane::Internal {

/// The files that may tell the serial number, in the order in which they are asked.
struct SerialNumberPaths {
  std::string configured = "/usr/tarvo/etc/serial_number";  ///< First line: the number itself.
  std::string dmi = "/sys/class/dmi/id/product_serial";     ///< As the board's maker set it; root only.
  std::string machine_id = "/etc/machine-id";               ///< Hashed: the id itself is confidential.
};

/// Reads the device's serial number: 1 to 128 printable ASCII characters, blanks only inside. A configured file that
/// holds no such number, or can't be read, is logged as a warning, and the next source is asked. Board makers'
/// placeholders ("To be filled by O.E.M.") count as no number: two devices with one number would take each other's
/// tickets.
/// @return Nothing when none of the files tells a usable one.
[[nodiscard]] Utils::Optional<std::string> ReadSerialNumber(const SerialNumberPaths& paths);

}  // namespace TarvoOrvane::Internal
