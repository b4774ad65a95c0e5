/// libtarvoorvane: the serial number; here the system's machine id.
#include <fstream>

#include "platform/support_service_client.h"

namespace TarvoOrvane::Utils {

Optional<std::string> GetSerialNumber() {
  std::string number;
  if (!std::getline(std::ifstream("/etc/machine-id"), number)) return {};
  return number;
}

}  // namespace TarvoOrvane::Utils
