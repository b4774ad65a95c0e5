#include "file_entry.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "file_util.h"

namespace TARVO::SupportForm {
namespace {

/// Bytes read before the tail of a long file, for the mask: the tail may begin inside a token.
constexpr std::uint64_t kMaskLeadBytes = 65536;

}  // namespace

std::function<ssize_t(char*, std::size_t)> ReaderOf(int fd, std::uint64_t offset) {
  return [fd, offset](char* buffer, std::size_t capacity) mutable {
    ssize_t count = -1;
    do {
      count = pread(fd, buffer, capacity, static_cast<off_t>(offset));
    } while (count < 0 && errno == EINTR);
    if (count > 0) offset += static_cast<std::uint64_t>(count);
    return count;
  };
}

FileEntry AddFile(ArchiveWriter& archive, const std::string& name, int fd, const struct stat& status,
                  std::uint64_t max_bytes) {
  const auto file_size = static_cast<std::uint64_t>(status.st_size);
  FileEntry entry;
  entry.size = std::min(file_size, max_bytes);
  const std::uint64_t skipped = file_size - entry.size;
  EntrySource source;
  source.size = entry.size;
  source.lead = std::min(skipped, kMaskLeadBytes);
  source.modified = status.st_mtime;
  int read_error = 0;
  source.read = [&read_error, read = ReaderOf(fd, skipped - source.lead)](char* buffer,
                                                                          std::size_t capacity) {
    const ssize_t count = read(buffer, capacity);
    if (count < 0) read_error = errno;
    return count;
  };
  const WrittenEntry written = archive.Add(name, source);
  entry.sha256 = written.sha256;

  if (skipped > 0) {
    entry.notes.push_back("longer than the limit: the last " + std::to_string(entry.size) + " of its " +
                          std::to_string(file_size) + " bytes");
  }
  if (written.missing_bytes > 0) {
    entry.notes.push_back((read_error != 0 ? "could not be read to its end (" + ErrorText(read_error) + ")"
                                           : "shrank while it was read") +
                          ": zeros stand for its last " + std::to_string(written.missing_bytes) + " bytes");
  }
  struct stat now = {};
  if (fstat(fd, &now) == 0 && now.st_size > status.st_size) {
    entry.notes.push_back("grew while it was read: cut at the " + std::to_string(file_size) +
                          " bytes that it had when it was opened");
  }
  return entry;
}

}  // namespace TARVO::SupportForm
