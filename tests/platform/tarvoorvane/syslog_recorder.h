/// Stands in for syslog() in the test program: lines are kept instead of sent.
#pragma once

#include <string>
#include <vector>

namespace TarvoOrvane::Testing {

struct SyslogLine {
  int level;
  std::string text;
};

/// The lines since the last call, from all threads.
/// Also lets the library log as if it had logged nothing for a long time.
std::vector<SyslogLine> TakeSyslogLines();

/// The same as one text, a line per line.
std::string TakeSyslogText();

}  // namespace TarvoOrvane::Testing
