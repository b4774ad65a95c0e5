/// An address as the client reads it.
#pragma once

#include <stdexcept>
#include <string>

#include "address.h"

namespace TarvoOrvane::Testing {

/// @throws std::invalid_argument when the text is none.
inline Internal::Address ParsedAddress(const std::string& text) {
  Internal::Address address;
  std::string fault;
  if (!Internal::ParseAddress(text, address, fault)) throw std::invalid_argument(fault);
  return address;
}

/// The address of a server on this machine.
inline Internal::Address LocalServer(int port, bool tls = false) {
  return ParsedAddress((tls ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port));
}

}  // namespace TarvoOrvane::Testing
