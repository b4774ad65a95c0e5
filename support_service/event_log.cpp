#include "event_log.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>

#include "hex_text.h"

namespace TarvoOrvane::SupportService {

void EventLog::Write(const std::string& event) {
  WritePlain(TimeText(std::chrono::system_clock::now()) + " " + event);
}

void EventLog::WritePlain(const std::string& line) {
  const std::string text = line + "\n";
  const std::lock_guard<std::mutex> lock(mutex_);
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = write(fd_, text.data() + written, text.size() - written);
    if (count == -1 && errno == EINTR) continue;
    if (count <= 0) return;
    written += static_cast<std::size_t>(count);
  }
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
