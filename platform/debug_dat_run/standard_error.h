/// Lines on standard error, written without ever waiting for whoever reads them.
#pragma once

#include <cstddef>
#include <string_view>

namespace DebugDatRun {

/// Bytes of a line with its end. A pipe that poll() calls writable takes as many at once.
inline constexpr std::size_t kLongestLine = 4000;

/// Writes a line, of which it cuts what is too long. A line for which there is no room is lost, and the next one that
/// there is room for is preceded by a line that tells how many were.
/// @param level  As in syslog. Told to the journal where standard error leads there.
void WriteLine(int level, std::string_view text);

/// Writes a line of this program's own, which begins with its name.
[[gnu::format(printf, 2, 3)]] void Say(int level, const char* format, ...);

}  // namespace DebugDatRun
