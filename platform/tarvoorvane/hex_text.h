/// Hexadecimal text. The log collection has its own, in another library.
#pragma once

#include <cstddef>
#include <string>

namespace TarvoOrvane::Internal {

/// Bytes as lower-case hex digits, two each.
inline std::string HexText(const unsigned char* bytes, std::size_t count) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += {kDigits[bytes[i] >> 4U], kDigits[bytes[i] & 15U]};
  return text;
}

}  // namespace TarvoOrvane::Internal
