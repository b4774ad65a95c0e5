/// Records what the code under test logs and calls, in order, across processes.
///
/// The records lie in memory shared across fork(), so that a test sees what its forked children logged and
/// called, each record under the process that made it.
#pragma once

#include <gmock/gmock.h>
#include <sys/types.h>
#include <syslog.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "eventually.h"

namespace test_support {

/// The roles a record can carry: set for a child by the scripted forks, "supervisor" elsewhere.
constexpr char kSupervisor[] = "supervisor";
constexpr char kWorker[] = "worker";
constexpr char kTransmissionChild[] = "transmission child";

/// One record.
struct Event {
  enum Kind { kLine, kCall };

  Kind kind = kLine;
  bool via_logger = false;  ///< A line handed to LoggerManager::Log(), not to syslog().
  int level = 0;            ///< A line's level.
  std::string text;         ///< The line, prefix included, or the call as "name(argument, argument)".
  std::string format;       ///< What syslog() was given as its format; empty for any other record.
  pid_t pid = 0;
  std::string role;
};

void PrintTo(const Event& event, std::ostream* out);

/// While an object lives, it is where lines and calls are recorded. At most one lives at a time.
class LogRecorder {
 public:
  LogRecorder();
  ~LogRecorder();
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  /// The living recorder, or null.
  static LogRecorder* current();

  /// Names the calling process in its further records.
  static void SetRole(const char* role);

  void AddLine(bool via_logger, int level, const std::string& text, const std::string& format);
  void AddCall(const std::string& call);

  /// Lines and calls of all processes, in order.
  std::vector<Event> events() const;
  /// Lines and calls of the processes in `role`, in order.
  std::vector<Event> events(const std::string& role) const;
  /// Lines of all processes, in order.
  std::vector<Event> lines() const;
  std::vector<Event> lines(const std::string& role) const;
  /// Calls of all processes, in order.
  std::vector<std::string> calls() const;
  std::vector<std::string> calls(const std::string& role) const;
  /// The recorded calls of the function `name`, in order.
  std::vector<std::string> CallsOf(const std::string& name) const;

  /// Forgets everything recorded so far.
  void Clear();

  /// Waits until `condition` holds for the records so far.
  /// @return false when it did not within `deadline`.
  bool WaitUntil(const std::function<bool(const std::vector<Event>&)>& condition,
                 std::chrono::milliseconds deadline = kPatience) const;

  /// Waits until `count` records match.
  bool WaitFor(const testing::Matcher<const Event&>& matcher, std::ptrdiff_t count = 1,
               std::chrono::milliseconds deadline = kPatience) const;

 private:
  struct Record;
  struct Area;

  Record* NewRecord();

  Area* area_;
};

/// Records a call with the living recorder, if there is one. Leaves errno alone.
void RecordCall(const std::string& call);

/// A line "FILE:NNN text" at error level. `file` empty: any of the daemon's source files.
testing::Matcher<const Event&> Error(const testing::Matcher<std::string>& text, const std::string& file = "");
/// A line "FILE:NNN text" at warning level.
testing::Matcher<const Event&> Warning(const testing::Matcher<std::string>& text,
                                       const std::string& file = "");
/// A call, as "name(argument, argument)".
testing::Matcher<const Event&> Call(const testing::Matcher<std::string>& call);

}  // namespace test_support
