/// The logger behind LoggerManager: lines go to a file for as long as a flag file exists.
///
/// Supervisor, worker and transmission child write to the same file, each through its own descriptor and from any
/// thread. A line is one write(). Whoever sees that the file is full renames it, under a lock of the file itself; the
/// others find at their next line that theirs is full, and open the new one.
#pragma once

#include <string>

namespace TarvoOrvane::Internal {

/// Where the logger looks and writes, and how much.
struct LoggerOptions {
  std::string flag_file = "/usr/tarvo/etc/debug_dat_transmitter.debug";
  std::string log_file = "/var/log/debug_dat_transmitter.log";

  /// A log file of this size is renamed to <log_file>.1, in the place of the former one, and a new one begun. Two
  /// files of 4 MiB hold weeks of an ordinary device and burden no flash.
  std::size_t max_file_bytes = 4UL << 20;
};

/// Longer lines are cut there and marked by "...".
inline constexpr std::size_t kMaxLineText = 1UL << 20;

/// Sets LoggerManager::instance_ to the one logger object and (re)opens the log file while the flag file exists;
/// clears it otherwise. The file is opened afresh each time, so a SIGHUP after a rotation suffices. In its place may be a
/// link that none but root can have put there: the file lies where that leads to, and belongs to that folder's owner. A log file that
/// can't be opened is told to syslog, which the lines then go to. One thread at a time; supervisor, worker and
/// transmission child each call it for themselves.
void ReconfigureLogger(const LoggerOptions& options);

/// Builds one line of the log file: time with offset, process, level and text, with a newline at its end.
/// @param text  Its trailing newline is dropped; other control characters are made visible.
[[nodiscard]] std::string FormatLoggerLine(int level, const std::string& text);

}  // namespace TarvoOrvane::Internal
