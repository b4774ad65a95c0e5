/// The library's own diagnostics.
#pragma once

#include <string>
#include <string_view>

namespace TarvoOrvane::Internal {

/// Writes one line to the logger when there is one, to syslog otherwise. Others can cause lines as fast as they like.
/// So there is a limit: 30 at once, then one every two seconds. Lines beyond it are left out and counted. Any
/// thread may call it.
/// @param level  A syslog priority.
/// @param text   The line; what came from elsewhere went through MakePrintable().
void LogLine(int level, const std::string& text);

/// Tells how many lines were left out, if any were. LogLine() does so too, before the next line that it writes.
void LogHowManyWereLeftOut();

/// As if nothing had been logged for a long time; for tests.
void ForgetLoggedLines();

/// Makes text from elsewhere fit for a log line: every byte that is no printable ASCII character becomes
/// \n, \r, \t or \xHH, and what exceeds `max_length` characters is cut and marked by "...".
[[nodiscard]] std::string MakePrintable(std::string_view text, std::size_t max_length);

/// Sends gRPC's and protobuf's own logs (errors only) to LogLine(); by themselves they write to stderr.
/// Process-wide.
void TakeOverForeignLogs();

/// How often servers have closed a connection because of too many pings. gRPC says so in its log; the stream's status
/// tells it only where the server is built on the same gRPC core. Any thread may call it.
[[nodiscard]] unsigned PingComplaints();

}  // namespace TarvoOrvane::Internal
