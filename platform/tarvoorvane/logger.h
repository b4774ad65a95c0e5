/// The logger behind LoggerManager: a file that exists for as long as a flag file does.
#pragma once

#include <string>

namespace TarvoOrvane::Internal {

/// Where the logger looks and writes.
struct LoggerPaths {
  std::string flag_file = "/usr/tarvo/etc/debug_dat_transmitter.debug";
  std::string log_file = "/var/log/debug_dat_transmitter.log";
};

/// Sets LoggerManager::instance_ to the one logger object and (re)opens the log file while the flag file
/// exists; clears it otherwise. The file is opened afresh each time, so a SIGHUP after a rotation suffices.
/// A log file that can't be opened is told to syslog, which the lines then go to.
void ReconfigureLogger(const LoggerPaths& paths);

/// Builds one line of the log file: time with offset, process, level and text, with a newline at its end.
/// @param text  Its trailing newline is dropped; other control characters are made visible.
[[nodiscard]] std::string FormatLoggerLine(int level, const std::string& text);

}  // namespace TarvoOrvane::Internal
