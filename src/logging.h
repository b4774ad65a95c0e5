/// The log statement used by every source file, in all three kinds of process.
///
/// A line goes to the support-service client library's logger when there is one, otherwise to syslog.
/// Its format begins with "%s:%d ", filled with the logging source file's name and the line number.
#pragma once

#include <syslog.h>

#include <cstdio>
#include <string>

#include "platform/support_service_client.h"

/// Logs one line under the calling file's name and line number.
///
/// "%m" in the format shows the errno of the moment, so the statement stands first after a failed call.
/// On the syslog path the format and the arguments go to syslog itself; nothing is cut.
/// @param level   LOG_ERR or LOG_WARNING.
/// @param format  A printf format that begins with "%s:%d ", a literal.
/// @param ...     The arguments of the rest of the format; strings as `const char*`.
#define DAEMON_LOG(level, format, ...)                                                              \
  do {                                                                                              \
    ::TarvoOrvane::Utils::LoggerManager* const daemon_log_logger =                                  \
        ::TarvoOrvane::Utils::LoggerManager::instance_;                                             \
    if (daemon_log_logger != nullptr) {                                                             \
      daemon_log_logger->Log(level, FormatLogText(format, __FILE_NAME__, __LINE__, ##__VA_ARGS__)); \
    } else {                                                                                        \
      syslog(level, format, __FILE_NAME__, __LINE__, ##__VA_ARGS__);                                \
    }                                                                                               \
  } while (false)

/// What FormatLogText() returns for a format that can't be filled in.
std::string FormatFailureText(const char* format);

/// Fills in `format`.
/// @return The text, cut silently at 255 characters; "(snprintf failed)" and the format itself where
///         snprintf fails, so that the line is not lost.
template <typename... Args>
std::string FormatLogText(const char* format, Args... args) {
  char buffer[256] = {};
  if (snprintf(buffer, sizeof(buffer), format, args...) < 0) {
    return FormatFailureText(format);
  }
  return buffer;
}

/// DAEMON_LOG as a function, for code that logs on behalf of several callers.
/// @param file  The logging source file's name, without directory (__FILE_NAME__).
/// @param line  The line number there (__LINE__).
template <typename... Args>
void LogAt(int level, const char* format, const char* file, int line, Args... args) {
  TarvoOrvane::Utils::LoggerManager* const logger = TarvoOrvane::Utils::LoggerManager::instance_;
  if (logger != nullptr) {
    logger->Log(level, FormatLogText(format, file, line, args...));
  } else {
    syslog(level, format, file, line, args...);
  }
}
