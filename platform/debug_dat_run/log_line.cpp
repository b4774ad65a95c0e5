#include "log_line.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>

#include "standard_error.h"

namespace DebugDatRun {
namespace {

constexpr std::size_t kTimeLength = 16;  // "Nov 21 10:00:00 "
constexpr std::size_t kLongestTag = 64;
constexpr std::string_view kCutMark = "...";

constexpr std::array<std::string_view, 8> kLevelNames = {"emergency", "alert",  "critical", "error",
                                                         "warning",   "notice", "info",     "debug"};

/// Removes "<12>" from the front.
/// @return The level in it, or that of a line without one.
int TakeLevel(std::string_view& text) {
  const std::size_t end = text.substr(0, 5).find('>');
  if (text.empty() || text.front() != '<' || end == std::string_view::npos) return LOG_NOTICE;
  int priority = 0;
  for (const char digit : text.substr(1, end - 1)) {
    if (digit < '0' || digit > '9') return LOG_NOTICE;
    priority = priority * 10 + (digit - '0');
  }
  text.remove_prefix(end + 1);
  return LOG_PRI(priority);
}

void TakeTime(std::string_view& text) {
  const bool has_time = text.size() >= kTimeLength && text[3] == ' ' && text[6] == ' ' && text[9] == ':' &&
                        text[12] == ':' && text[15] == ' ';
  if (has_time) text.remove_prefix(kTimeLength);
}

/// Removes "tag: " from the front and returns "tag"; empty where there is none.
std::string_view TakeTag(std::string_view& text) {
  const std::size_t end = text.substr(0, kLongestTag).find(": ");
  if (end == std::string_view::npos || text.substr(0, end).find(' ') != std::string_view::npos) return {};
  const std::string_view tag = text.substr(0, end);
  text.remove_prefix(end + 2);
  return tag;
}

/// How many bytes at the front of `text`, which is not empty, are one character that a terminal just shows. 0: none.
std::size_t ShownBytes(std::string_view text) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return first >= 0x20 && first != 0x7f ? 1 : 0;
  const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || text.size() < length) return 0;
  for (std::size_t at = 1; at < length; ++at) {
    if ((byte(at) & 0xc0) != 0x80) return 0;
  }
  return first == 0xc2 && byte(1) < 0xa0 ? 0 : length;  // U+0080 to U+009F are controls
}

/// Appends `text` with everything escaped that a terminal would act on. Ends it where the line is full.
void AppendShown(std::string_view text, bool is_cut, std::string& line) {
  const std::size_t limit = kLongestLine - sizeof("<7>\n") - kCutMark.size();
  while (!text.empty()) {
    const std::size_t shown = ShownBytes(text);
    std::array<char, 5> escaped = {};
    static_cast<void>(
        snprintf(escaped.data(), escaped.size(), "\\x%02x", static_cast<unsigned char>(text.front())));
    const std::string_view piece = shown > 0 ? text.substr(0, shown) : std::string_view(escaped.data());
    is_cut = is_cut || line.size() + piece.size() > limit;
    if (line.size() + piece.size() > limit) break;
    line += piece;
    text.remove_prefix(std::max<std::size_t>(shown, 1));
  }
  if (is_cut) line += kCutMark;
}

/// The length of the string literal at the front of `text`, up to its closing quote or the end of a line that was cut.
std::size_t LiteralLength(std::string_view text) {
  std::size_t end = 1;
  while (end < text.size() && text[end] != '"') end += text[end] == '\\' ? 2 : 1;
  return std::min(end, text.size());
}

/// `text` with three stars in the place of each ticket's token.
std::string WithoutTokens(std::string_view text) {
  constexpr std::string_view kName = "\"token\"";
  std::string masked;
  for (std::size_t name = 0; (name = text.find(kName)) != std::string_view::npos;) {
    const std::size_t value = std::min(text.find_first_not_of(": \t", name + kName.size()), text.size());
    masked += text.substr(0, value);
    text.remove_prefix(value);
    if (text.empty() || text.front() != '"') continue;
    masked += "\"***";
    text.remove_prefix(LiteralLength(text));
  }
  return masked.append(text);
}

}  // namespace

LogLine ReadableLogLine(std::string_view datagram, pid_t sender, bool is_cut) {
  LogLine line;
  line.level = TakeLevel(datagram);
  TakeTime(datagram);
  const std::string_view tag = TakeTag(datagram);
  // Whole lines end so for the C library, and some of the daemon's formats do.
  const std::size_t last = datagram.find_last_not_of(std::string_view("\n\0", 2));
  if (!is_cut) datagram = datagram.substr(0, last + 1);
  line.text = kLevelNames[static_cast<std::size_t>(line.level)];
  line.text += ' ';
  AppendShown(tag, false, line.text);
  if (tag.empty() || tag.back() != ']') line.text += '[' + std::to_string(sender) + ']';
  line.text += ": ";
  AppendShown(WithoutTokens(datagram), is_cut, line.text);
  return line;
}

}  // namespace DebugDatRun
