/// The JSON operations that the daemon needs beyond jsoncpp's own. They report failure by their result, also
/// where jsoncpp throws (its exceptions are no std::runtime_error). None of them logs, and any process may call them.
#pragma once

#include <json/value.h>

#include <string>

namespace TarvoOrvane::Utils {

/// Reads the whole file at `path` and parses it into `value`.
/// @return false when the file can't be read or does not parse.
[[nodiscard]] bool FromFile(const std::string& path, Json::Value& value);

/// What becomes of a text's comments. They are accepted either way; collected ones show in the value's hasComment() and
/// nowhere else. To collect them takes time that grows with the square of the text's length: for short texts only.
enum class Comments { kDrop, kCollect };

/// Parses `text` into `value`, as Json::Reader does.
/// @return false when it does not parse; `value` is then unspecified.
[[nodiscard]] bool FromString(const std::string& text, Json::Value& value,
                              Comments comments = Comments::kDrop);

/// The value as JSON text on one line: no newline at its end, no comments, members sorted by key, ASCII only
/// (other characters as \uXXXX; a byte that is no UTF-8 as \ufffd).
[[nodiscard]] std::string ToString(const Json::Value& value);

/// Whether `value` is an object that has the member `key`.
[[nodiscard]] bool HasMember(const Json::Value& value, const char* key);

/// Whether `value` is an object whose member "success" is the boolean true.
[[nodiscard]] bool ReportsSuccess(const Json::Value& value);

/// Where both servers' addresses stand.
inline constexpr char kServiceConfigPath[] = "/usr/tarvo/etc/tarvomibserver.conf";

/// Finds a server's address in the service configuration: debug_dat_file_transmitter.<server>.url.
/// @param config  The whole document; it stays as it is.
/// @param server  "grpc_server" or "css_server".
/// @param url     Set to the string as it stands there (it may be empty); left alone on failure.
/// @return Whether that is a string, and what leads to it are objects.
[[nodiscard]] bool FindServerUrl(const Json::Value& config, const char* server, std::string& url);

}  // namespace TarvoOrvane::Utils
