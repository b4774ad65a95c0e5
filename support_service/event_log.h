/// The service's event lines: one line per event on standard output, safe to read in a terminal. Whoever reports an
/// event has made what came from outside printable (text_forms.h).
#pragma once

#include <functional>
#include <mutex>
#include <string>

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

  /// Writes an event, behind the time in UTC. Any thread may call it; lines don't mix.
  void Write(const std::string& event);

  /// Writes a line as it stands, for lines that programs read.
  void WritePlain(const std::string& line);

 private:
  std::mutex mutex_;  ///< Held while a line is written, so that a long one is not cut by another.
  int fd_;
};

}  // namespace TarvoOrvane::SupportService
