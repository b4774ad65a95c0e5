#include "syslog_recorder.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "library_log.h"

namespace TarvoOrvane::Testing {
namespace {

std::mutex g_mutex;
std::vector<SyslogLine> g_lines;

void Record(int level, const char* format, va_list arguments) {
  char text[4096];
  static_cast<void>(std::vsnprintf(text, sizeof text, format, arguments));
  const std::lock_guard<std::mutex> lock(g_mutex);
  g_lines.push_back({level, text});
}

}  // namespace

std::vector<SyslogLine> TakeSyslogLines() {
  Internal::ForgetLoggedLines();
  const std::lock_guard<std::mutex> lock(g_mutex);
  return std::move(g_lines);
}

std::string TakeSyslogText() {
  std::string text;
  for (const auto& line : TakeSyslogLines()) text += line.text + "\n";
  return text;
}

}  // namespace TarvoOrvane::Testing

// The C library's names; with _FORTIFY_SOURCE the second one is called.
extern "C" {

__attribute__((format(printf, 2, 3))) void syslog(int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  TarvoOrvane::Testing::Record(level, format, arguments);
  va_end(arguments);
}

__attribute__((format(printf, 3, 4))) void __syslog_chk(int level, int /*flag*/, const char* format, ...);
void __syslog_chk(int level, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  TarvoOrvane::Testing::Record(level, format, arguments);
  va_end(arguments);
}

}  // extern "C"
