#include "file_util.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <new>

#include "unique_fd.h"

namespace TARVO::SupportForm {

std::int64_t MonotonicMs() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

void SleepMs(std::int64_t milliseconds) {
  timespec left = {static_cast<std::time_t>(milliseconds / 1000),
                   static_cast<long>((milliseconds % 1000) * 1'000'000)};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

std::string IsoTime(std::time_t time) {
  std::tm utc = {};
  std::array<char, 32> text = {};
  gmtime_r(&time, &utc);
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc)};
}

std::string HexText(const unsigned char* bytes, std::size_t count) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text(2 * count, '0');  // not appended to: every entry has a digest
  for (std::size_t i = 0; i < count; ++i) {
    text[2 * i] = kDigits[bytes[i] >> 4U];
    text[2 * i + 1] = kDigits[bytes[i] & 15U];
  }
  return text;
}

std::string ErrorText(int error) {
  std::array<char, 128> text = {};
  return strerror_r(error, text.data(), text.size());
}

const char* FailureText(const std::exception& error) {
  return dynamic_cast<const std::bad_alloc*>(&error) != nullptr ? "memory ran out" : error.what();
}

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

bool ReadUpTo(int fd, std::size_t limit, std::string& out, bool& more) {
  std::array<char, 16384> buffer;
  out.clear();
  more = false;
  for (;;) {
    const ssize_t count = read(fd, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return count == 0;
    const std::size_t taken = std::min(static_cast<std::size_t>(count), limit - out.size());
    out.append(buffer.data(), taken);
    more = taken < static_cast<std::size_t>(count);
    if (more) return true;
  }
}

bool ReadFileUpTo(const std::string& path, std::size_t limit, std::string& out, bool& more) {
  // O_NONBLOCK: a pipe in the file's place must not hold the caller.
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status = {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) return false;
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return false;
  }
  return ReadUpTo(fd.get(), limit, out, more);
}

bool ReplaceFile(int folder_fd, const char* name, const char* fresh, std::string_view text, mode_t mode) {
  const UniqueFd fd(openat(folder_fd, fresh, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  return fd.valid() && fchmod(fd.get(), mode) == 0 && WriteAll(fd.get(), text) &&
         renameat(folder_fd, fresh, folder_fd, name) == 0;
}

bool IsKernelFileSystem(int fd) {
  constexpr std::uint32_t kConfigFsMagic = 0x62656570;  // the kernel's headers for programs lack it
  struct statfs status = {};
  if (fstatfs(fd, &status) != 0) return false;
  for (const std::uint32_t type : std::initializer_list<std::uint32_t>{
           PROC_SUPER_MAGIC, SYSFS_MAGIC, DEBUGFS_MAGIC, TRACEFS_MAGIC, CGROUP_SUPER_MAGIC,
           CGROUP2_SUPER_MAGIC, SECURITYFS_MAGIC, SELINUX_MAGIC, BINFMTFS_MAGIC, kConfigFsMagic}) {
    // On 32-bit processors it is a signed number of as many bits.
    if (static_cast<std::uint32_t>(status.f_type) == type) return true;
  }
  return false;
}

}  // namespace TARVO::SupportForm
