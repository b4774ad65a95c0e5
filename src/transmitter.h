/// The HTTP client of the support service's file server (the CSS server). Runs in the transmission child.
#pragma once

#include <curl/curl.h>
#include <json/value.h>

#include <functional>
#include <string>

#include "platform/support_service_client.h"

namespace TarvoOrvane::Utils {

/// Sets one option of an easy handle.
/// @param option_name  The option's macro name, so that a failure names it.
/// @throws CurlFailedException ("CurlSetOpt: " and the name) when libcurl refuses.
template <typename T>
void CurlSetOpt(CurlHandle& handle, const std::string& option_name, CURLoption option, T value) {
  const CURLcode code = curl_easy_setopt(handle.get(), option, value);
  if (code != CURLE_OK) {
    throw CurlFailedException(code, "CurlSetOpt: " + option_name);
  }
}

}  // namespace TarvoOrvane::Utils

namespace TarvoOrvane::Transmitter {

/// The outcome of one ticket, as reported to the CSS server.
enum Result : int {
  kSuccess = 0,
  kFailedToGenerateDebugFile = 1,
  kFailedToUploadDebugFile = 2,
};

/// Sets a caller's own options on the handle and may append header lines to the list.
/// Returns false after it logged why something could not be set.
using CurlOptionSetter = std::function<bool(Utils::CurlHandle&, Utils::CurlHeaderList&)>;

/// One request to the CSS server: built from a ticket's token, used for one operation, discarded.
class DebugFileTransmitter {
 public:
  /// Fetches the device's serial number; without one it logs that and goes on with an empty one.
  explicit DebugFileTransmitter(const std::string& token);

  /// Sends the archive and the names of the applications it holds as a multipart form.
  /// @param file_path  Archive to read; it stays where it is, the caller deletes it.
  /// @param apps       Application names; one form part each, in this order.
  /// @return true once the server answered {"success": true}; false after the cause was logged.
  [[nodiscard]] bool UploadFile(const std::string& file_path, const Json::Value& apps);

  /// Reports the outcome of the ticket.
  /// @return true once the server answered {"success": true}; false after the cause was logged.
  [[nodiscard]] bool UpdateResult(const Result& result);

 private:
  friend struct DebugFileTransmitterPeer;  // the tests' way in

  /// Makes one request, in up to five attempts of at most 1800 s each, and judges the answer.
  /// @param set_options  The caller's part; what it hands to libcurl uncopied outlives this call.
  /// @param path         Appended to the server's address as it stands.
  /// @return true only when the answer's "success" is true; false after the cause was logged. Lets no
  ///         std::exception out but one that the logger throws while a failure is being reported.
  [[nodiscard]] bool SendRequest(const CurlOptionSetter& set_options, const std::string& path);

  /// The CSS server's base address, read afresh from the service configuration file.
  /// @return Exactly what the file says; empty, after the cause was logged, when it can't be had.
  [[nodiscard]] std::string GetCssServerUrl();

  /// The text that stands for `result` in the report.
  [[nodiscard]] std::string ResultToString(const Result& result);

  std::string token_;          ///< The ticket's credential, sent with every request.
  std::string serial_number_;  ///< The device's serial number; empty when it could not be had.
};

}  // namespace TarvoOrvane::Transmitter
