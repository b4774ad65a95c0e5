/// The JSON operations that the daemon needs beyond jsoncpp's own. They report failure by their result, also
/// where jsoncpp throws (its exceptions are no std::runtime_error).
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

}  // namespace TarvoOrvane::Utils
