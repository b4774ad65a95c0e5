#include "serial_number.h"

#include <algorithm>

namespace TarvoOrvane::SupportService {
namespace {

/// What a device can have (the host platform takes no longer one), and what is printable in a name of a certificate.
constexpr std::size_t kMaxSerialBytes = 128;

}  // namespace

std::string SerialFault(const std::string& serial_number) {
  if (serial_number.empty()) return "the serial number is empty";
  if (serial_number.size() > kMaxSerialBytes) {
    return "the serial number is longer than " + std::to_string(kMaxSerialBytes) + " bytes";
  }
  const bool printable = std::all_of(serial_number.begin(), serial_number.end(),
                                     [](char character) { return character >= 0x20 && character <= 0x7e; });
  return printable ? "" : "the serial number has other characters than printable ASCII";
}

}  // namespace TarvoOrvane::SupportService
