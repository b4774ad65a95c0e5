/// Small file operations and the clock, shared by all units.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <exception>
#include <string>
#include <string_view>

namespace TARVO::SupportForm {

/// Milliseconds of the monotonic clock: for time limits, which a change of the device's date must not touch.
[[nodiscard]] std::int64_t MonotonicMs();

/// So much of `count` as `most` allows: a count of bytes may be one of a file, which a size of memory may not hold.
inline std::size_t AtMost(std::uint64_t count, std::size_t most) {
  return static_cast<std::size_t>(std::min<std::uint64_t>(count, most));
}

/// Waits that long, through signals that are handled meanwhile.
void SleepMs(std::int64_t milliseconds);

/// `time` as UTC in ISO 8601, "2024-05-06T07:08:09Z".
[[nodiscard]] std::string IsoTime(std::time_t time);

/// Bytes as lower-case hex digits.
[[nodiscard]] std::string HexText(const unsigned char* bytes, std::size_t count);

/// The system's text for an errno value: "Permission denied". May be called in any thread.
[[nodiscard]] std::string ErrorText(int error);

/// What went wrong, for people: what() of the exception, which lives as long as that, or words for a lack of memory.
[[nodiscard]] const char* FailureText(const std::exception& error);

/// Writes all of `text` where the descriptor stands, over interruptions by signals.
/// @return false, with errno set, on failure; a part may have been written then.
[[nodiscard]] bool WriteAll(int fd, std::string_view text);

/// Reads from `fd` to its end, but no more than `limit` bytes.
/// @param out   Receives what was read, on failure too.
/// @param more  Set when the file holds more than `limit` bytes.
/// @return false, with errno set, when reading failed.
[[nodiscard]] bool ReadUpTo(int fd, std::size_t limit, std::string& out, bool& more);

/// Opens the regular file `path`, following links, and reads it as ReadUpTo() does. For files of the system's or of
/// root's folders; ReadTrustedFile() is for what others must not have had a say in.
/// @return As ReadUpTo(); errno is EINVAL for what is no regular file.
[[nodiscard]] bool ReadFileUpTo(const std::string& path, std::size_t limit, std::string& out, bool& more);

/// Creates or replaces the file `name` in a folder in one step: a reader sees the old text or the new one,
/// whole.
/// @return false, with errno set, on failure: the old text stays then.
/// @param fresh  A name in the folder for the new text until it is whole; what has it is overwritten.
/// @param mode   Of the file, whatever the process's umask.
[[nodiscard]] bool ReplaceFile(int folder_fd, const char* name, const char* fresh, std::string_view text,
                               mode_t mode);

/// Whether the file lies in a file system whose files the kernel makes as they are read: proc, sysfs and the like. What
/// fstat() says of their size is not true. false where it can't be told.
[[nodiscard]] bool IsKernelFileSystem(int fd);

}  // namespace TARVO::SupportForm
