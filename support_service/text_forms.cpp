#include "text_forms.h"

#include <json/writer.h>

#include <algorithm>
#include <array>
#include <ctime>

namespace TarvoOrvane::SupportService {

std::string HexText(const unsigned char* bytes, std::size_t count) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += {kDigits[bytes[i] >> 4], kDigits[bytes[i] & 0x0f]};
  return text;
}

std::string CompactJson(const Json::Value& value) {
  // Making one costs more than a small text.
  static const Json::StreamWriterBuilder writer = [] {
    Json::StreamWriterBuilder settings;
    settings["indentation"] = "";
    return settings;
  }();
  return Json::writeString(writer, value);
}

std::string TimeText(std::chrono::system_clock::time_point time) {
  const auto since_epoch =
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
  const std::time_t seconds = static_cast<std::time_t>(since_epoch / 1000);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 32> date{};
  const std::size_t length = std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  const std::string milliseconds = std::to_string(1000 + since_epoch % 1000).substr(1);
  return std::string(date.data(), length) + "." + milliseconds + "Z";
}

std::string Printable(std::string_view text, std::size_t max_bytes) {
  std::string result;
  for (const char character : text.substr(0, max_bytes)) {
    const auto byte = static_cast<unsigned char>(character);
    if (character == '\\') {
      result += "\\\\";
    } else if (byte >= 0x20 && byte <= 0x7e) {
      result += character;
    } else {
      result += "\\x" + HexText(&byte, 1);
    }
  }
  if (text.size() > max_bytes) result += "...";
  return result;
}

std::size_t CharactersIn(std::string_view text) {
  // Each has one byte that continues no other.
  return static_cast<std::size_t>(std::count_if(
      text.begin(), text.end(), [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0) != 0x80; }));
}

std::string Quoted(std::string_view text, std::size_t max_bytes) {
  std::string result = "\"";
  for (const char character : Printable(text, max_bytes)) {
    if (character == '"') result += '\\';
    result += character;
  }
  return result + "\"";
}

std::string QuotedList(const std::vector<std::string>& names, std::size_t max_names) {
  std::string result = "[";
  for (std::size_t i = 0; i < names.size() && i < max_names; ++i) {
    if (i > 0) result += ", ";
    result += Quoted(names[i]);
  }
  if (names.size() > max_names) result += ", ... " + std::to_string(names.size()) + " in all";
  return result + "]";
}

}  // namespace TarvoOrvane::SupportService
