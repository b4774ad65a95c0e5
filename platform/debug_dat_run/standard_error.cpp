#include "standard_error.h"

#include <poll.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace DebugDatRun {
namespace {

/// Lines lost since the last one that was written.
unsigned long lost_lines = 0;

/// The journal's promise about a program's standard error: device and inode of the stream that it reads.
bool LeadsToTheJournal() {
  const char* const stream = getenv("JOURNAL_STREAM");
  struct stat error = {};
  if (stream == nullptr || fstat(STDERR_FILENO, &error) != 0) return false;
  return std::to_string(error.st_dev) + ':' + std::to_string(error.st_ino) == stream;
}

/// Whether the reader has room for a line. One that has gone has; the line is lost then, and nobody misses it.
bool HasRoom() {
  pollfd writable = {STDERR_FILENO, POLLOUT, 0};
  return poll(&writable, 1, 0) > 0;
}

void WriteNow(int level, std::string_view text) {
  static const bool with_level = LeadsToTheJournal();
  std::array<char, kLongestLine> line = {};
  const auto head =
      static_cast<std::size_t>(with_level ? snprintf(line.data(), line.size(), "<%d>", level) : 0);
  const std::size_t length = std::min(text.size(), line.size() - head - 1);
  std::copy_n(text.begin(), length, line.begin() + head);
  line[head + length] = '\n';
  static_cast<void>(!write(STDERR_FILENO, line.data(), head + length + 1));
}

}  // namespace

void WriteLine(int level, std::string_view text) {
  if (!HasRoom()) {
    ++lost_lines;
    return;
  }
  if (lost_lines > 0) {
    std::array<char, 100> note = {};
    const int length =
        snprintf(note.data(), note.size(), "debug_dat_run: %lu lines were lost here: standard error was full",
                 lost_lines);
    lost_lines = 0;
    WriteNow(LOG_WARNING, {note.data(), static_cast<std::size_t>(length)});
    WriteLine(level, text);  // for which there may be no room any more
    return;
  }
  WriteNow(level, text);
}

void Say(int level, const char* format, ...) {
  std::array<char, kLongestLine> line = {};
  const int head = snprintf(line.data(), line.size(), "debug_dat_run: ");
  va_list arguments;
  va_start(arguments, format);
  const int length =
      vsnprintf(line.data() + head, line.size() - static_cast<std::size_t>(head), format, arguments);
  va_end(arguments);
  WriteLine(level, {line.data(), std::min(line.size() - 1, static_cast<std::size_t>(head + length))});
}

}  // namespace DebugDatRun
