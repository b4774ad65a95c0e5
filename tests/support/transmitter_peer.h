/// The tests' way to the private parts of DebugFileTransmitter.
#pragma once

#include <cstddef>
#include <string>
#include <type_traits>

#include "transmitter.h"

namespace TarvoOrvane::Transmitter {

struct DebugFileTransmitterPeer {
  static bool SendRequest(DebugFileTransmitter& transmitter, const CurlOptionSetter& set_options,
                          const std::string& path) {
    return transmitter.SendRequest(set_options, path);
  }
  static std::string GetCssServerUrl(DebugFileTransmitter& transmitter) {
    return transmitter.GetCssServerUrl();
  }
  static std::string ResultToString(DebugFileTransmitter& transmitter, const Result& result) {
    return transmitter.ResultToString(result);
  }
  static const std::string& Token(const DebugFileTransmitter& transmitter) { return transmitter.token_; }
  static const std::string& SerialNumber(const DebugFileTransmitter& transmitter) {
    return transmitter.serial_number_;
  }

  // No library sees this class. Its form is fixed because it is to hold a ticket's token and the serial number and
  // nothing else: a further field would be state that outlives an operation, and is to be a decision, not a slip. A
  // result goes into a log line as "%d".
  static_assert(offsetof(DebugFileTransmitter, token_) == 0, "the token is the first field");
  static_assert(offsetof(DebugFileTransmitter, serial_number_) == sizeof(std::string),
                "the serial number is the second field");
  static_assert(sizeof(DebugFileTransmitter) == 2 * sizeof(std::string), "there are no other fields");
  static_assert(!std::is_polymorphic_v<DebugFileTransmitter>, "there are no virtual operations");
  static_assert(std::is_same_v<std::underlying_type_t<Result>, int>, "a result is held as an int");
};

}  // namespace TarvoOrvane::Transmitter
