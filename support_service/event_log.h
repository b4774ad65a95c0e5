/// The service's event lines: one line per event on standard output, safe to read in a terminal.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace TarvoOrvane::SupportService {

/// Takes one event, without a time stamp and without a newline. May be called from any thread and
/// calls nothing back.
using EventSink = std::function<void(const std::string& event)>;

/// Writes each event as one line with its time, in one write. An event whose reader has gone or whose
/// file is full is dropped: the service does its work without its log.
class EventLog {
 public:
  /// @param fd  Descriptor to write to; stays the caller's.
  explicit EventLog(int fd) : fd_(fd) {}

  void Write(const std::string& event);

  /// Writes a line as it stands, for lines that programs read.
  void WritePlain(const std::string& line);

 private:
  std::mutex mutex_;
  int fd_;
};

/// @return time in UTC as 2024-01-31T12:00:00.000Z.
std::string TimeText(std::chrono::system_clock::time_point time);

/// Makes text from outside fit for one line of a log or a terminal: every byte but printable ASCII
/// becomes \xNN, a backslash is doubled and what exceeds max_bytes is cut ("...").
std::string Printable(std::string_view text, std::size_t max_bytes = 256);

/// Printable() in double quotes; quotes inside become \".
std::string Quoted(std::string_view text, std::size_t max_bytes = 256);

/// A list of names as ["a", "b"], at most max_names of them.
std::string QuotedList(const std::vector<std::string>& names, std::size_t max_names = 16);

}  // namespace TarvoOrvane::SupportService
