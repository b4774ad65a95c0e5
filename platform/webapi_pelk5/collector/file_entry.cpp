#include "file_entry.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include "file_util.h"

namespace TARVO::SupportForm {
namespace {

/// Bytes read before the tail of a long file, for the redaction: the tail may begin inside a secret.
constexpr std::uint64_t kLeadBytes = 65536;
/// Bytes at the beginning of what is read of a file that tell whether it is text.
constexpr std::size_t kHeadBytes = 8192;

ssize_t ReadAt(int fd, char* buffer, std::size_t capacity, std::uint64_t offset) {
  ssize_t count = -1;
  do {
    count = pread(fd, buffer, capacity, static_cast<off_t>(offset));
  } while (count < 0 && errno == EINTR);
  return count;
}

/// Reads a file from an offset on. Its head may be looked at before; no byte is read twice.
class FileReader {
 public:
  FileReader(int fd, std::uint64_t offset) : fd_(fd), offset_(offset) {}

  /// @param size  How many bytes are wanted, at most kHeadBytes.
  std::string_view Head(std::size_t size) {
    head_ = {head_bytes_.data(), ReadFile(head_bytes_.data(), size)};
    return head_;
  }

  /// For EntrySource::read.
  ssize_t Read(char* buffer, std::size_t capacity) {
    const std::size_t copied = head_.copy(buffer, capacity);
    head_.remove_prefix(copied);
    const std::size_t count = copied < capacity ? ReadFile(buffer + copied, capacity - copied) : 0;
    return static_cast<ssize_t>(copied + count);
  }

  /// errno of a failure to read; 0 when there was none.
  [[nodiscard]] int error() const { return error_; }

 private:
  /// Returns 0 at the end and on failure.
  std::size_t ReadFile(char* buffer, std::size_t capacity) {
    const ssize_t count = ReadAt(fd_, buffer, capacity, offset_);
    if (count < 0) error_ = errno;
    const std::size_t taken = count < 0 ? 0 : static_cast<std::size_t>(count);
    offset_ += taken;
    return taken;
  }

  int fd_;
  std::uint64_t offset_;  ///< Where reading goes on.
  std::array<char, kHeadBytes> head_bytes_;
  std::string_view head_;  ///< What of head_bytes_ is still to be given.
  int error_ = 0;
};

bool IsLonger(int fd, off_t size) {
  struct stat now = {};
  return fstat(fd, &now) == 0 && now.st_size > size;
}

std::string ZerosNote(std::uint64_t missing_bytes, int read_error) {
  const std::string why = read_error == 0 ? "shrank while it was read"
                                          : "could not be read to its end (" + ErrorText(read_error) + ")";
  return why + ": zeros stand for its last " + std::to_string(missing_bytes) + " bytes";
}

}  // namespace

std::function<ssize_t(char*, std::size_t)> ReaderOf(int fd, std::uint64_t offset) {
  return [fd, offset](char* buffer, std::size_t capacity) mutable {
    const ssize_t count = ReadAt(fd, buffer, capacity, offset);
    if (count > 0) offset += static_cast<std::uint64_t>(count);
    return count;
  };
}

FileEntry AddFile(ArchiveWriter& archive, const std::string& name, int fd, const struct stat& status,
                  std::uint64_t max_bytes, const FileCheck& check) {
  const auto file_size = static_cast<std::uint64_t>(status.st_size);
  FileEntry entry;
  entry.size = std::min(file_size, max_bytes);
  const std::uint64_t skipped = file_size - entry.size;
  EntrySource source;
  source.size = entry.size;
  source.lead = std::min(skipped, kLeadBytes);
  source.modified = status.st_mtime;
  FileReader reader(fd, skipped - source.lead);
  const std::uint64_t wanted = source.lead + source.size;
  // One byte more is asked for than the file had: of a small file this tells whether it grew.
  const std::string_view head = reader.Head(std::min<std::uint64_t>(wanted + 1, kHeadBytes));
  const bool is_text = check.rules == nullptr || LooksLikeText(head);
  if (!is_text && !check.binary_allowed) {
    entry.left_out = "not text, so it can't be checked for secrets";
    return entry;
  }
  source.rules = is_text ? check.rules : nullptr;
  source.read = [&reader](char* buffer, std::size_t capacity) { return reader.Read(buffer, capacity); };
  const WrittenEntry written = archive.Add(name, source);
  entry.redacted = written.redacted;

  if (!is_text) entry.notes.emplace_back("not text: taken unchecked, as its description allows");
  if (skipped > 0) {
    entry.notes.push_back("longer than the limit: the last " + std::to_string(entry.size) + " of its " +
                          std::to_string(file_size) + " bytes");
  }
  if (written.missing_bytes > 0) entry.notes.push_back(ZerosNote(written.missing_bytes, reader.error()));
  if (wanted < kHeadBytes ? head.size() > wanted : IsLonger(fd, status.st_size)) {
    entry.notes.push_back("grew while it was read: cut at the " + std::to_string(file_size) +
                          " bytes that it had when it was opened");
  }
  return entry;
}

}  // namespace TARVO::SupportForm
