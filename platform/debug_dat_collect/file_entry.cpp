#include "file_entry.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <string_view>
#include <utility>

#include "file_util.h"

namespace TARVO::SupportForm {
namespace {

/// Bytes read before the tail of a long file, for the redaction: the tail may begin inside a secret.
constexpr std::uint64_t kLeadBytes = 65536;
/// Bytes that are unpacked at a time where they are only counted.
constexpr std::size_t kUnpackBytes = std::size_t{128} << 10;

ssize_t ReadAt(int fd, char* buffer, std::size_t capacity, std::uint64_t offset) {
  ssize_t count = -1;
  do {
    count = pread(fd, buffer, capacity, static_cast<off_t>(offset));
  } while (count < 0 && errno == EINTR);
  return count;
}

/// Reads a content whose head may be looked at before; no byte is read twice.
class HeadReader {
 public:
  explicit HeadReader(std::function<ssize_t(char*, std::size_t)> source) : source_(std::move(source)) {}

  /// @param size  How many bytes are wanted, at most kTextHeadBytes.
  std::string_view Head(std::size_t size) {
    head_ = {head_bytes_.data(), ReadSource(head_bytes_.data(), size)};
    return head_;
  }

  /// For EntrySource::read.
  ssize_t Read(char* buffer, std::size_t capacity) {
    const std::size_t copied = head_.copy(buffer, capacity);
    head_.remove_prefix(copied);
    const std::size_t count = copied < capacity ? ReadSource(buffer + copied, capacity - copied) : 0;
    return static_cast<ssize_t>(copied + count);
  }

  /// errno of a failure to read; 0 when there was none.
  [[nodiscard]] int error() const { return error_; }

 private:
  /// Returns 0 at the end and on failure.
  std::size_t ReadSource(char* buffer, std::size_t capacity) {
    const ssize_t count = source_(buffer, capacity);
    if (count < 0) error_ = errno;
    return count < 0 ? 0 : static_cast<std::size_t>(count);
  }

  std::function<ssize_t(char*, std::size_t)> source_;
  std::array<char, kTextHeadBytes> head_bytes_;
  std::string_view head_;  ///< What of head_bytes_ is still to be given.
  int error_ = 0;
};

bool IsLonger(int fd, off_t size) {
  struct stat now = {};
  return fstat(fd, &now) == 0 && now.st_size > size;
}

std::string ZerosNote(std::uint64_t missing_bytes, const std::string& read_error) {
  const std::string why =
      read_error.empty() ? "shrank while it was read" : "could not be read to its end (" + read_error + ")";
  return why + ": zeros stand for its last " + std::to_string(missing_bytes) + " bytes";
}

std::string MissingNote(const WrittenEntry& written, const std::string& read_error) {
  if (written.no_room == 0) return ZerosNote(written.missing_bytes, read_error);
  return "there was no room for all of it (" + ErrorText(written.no_room) + "): zeros stand for its last " +
         std::to_string(written.missing_bytes) + " bytes";
}

std::string TailNote(std::uint64_t taken, std::uint64_t whole) {
  return "longer than the limit: the last " + std::to_string(taken) + " of its " + std::to_string(whole) +
         " bytes";
}

/// The end of a content of `whole` bytes, `max_bytes` of them at most, with what is read before it.
EntrySource EndOf(std::uint64_t whole, std::uint64_t max_bytes, const struct stat& status) {
  EntrySource source;
  source.size = std::min(whole, max_bytes);
  source.lead = std::min(whole - source.size, kLeadBytes);
  source.modified = status.st_mtime;
  return source;
}

/// Adds an entry to the archive.
/// @param entry  Is told what became of it.
/// @return nothing when there was no room for it.
std::optional<WrittenEntry> Write(ArchiveWriter& archive, const std::string& name, const EntrySource& source,
                                  FileEntry& entry) {
  const WrittenEntry written = archive.Add(name, source);
  if (written.left_out) {
    entry.left_out = "there is no room for it any more: " + ErrorText(written.no_room);
    return std::nullopt;
  }
  entry.redacted = written.redacted;
  entry.masked_parts = written.masked_parts;
  entry.no_room = written.no_room;
  return written;
}

/// Which compression the file has, some of which was read already.
/// @param begin  What was read begins with the file's beginning.
Packing PackingOfFile(int fd, std::string_view head, bool begin) {
  if (begin) return PackingOf(head);
  std::array<char, kPackingMarkBytes> mark = {};
  const ssize_t count = ReadAt(fd, mark.data(), mark.size(), 0);
  return PackingOf({mark.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))});
}

/// A compressed file's bytes, up to the size that it had when it was opened, for as long as there is time.
Unpacker::Input PackedInput(int fd, const struct stat& status, const UnpackLimits& limits) {
  return [fd, size = static_cast<std::uint64_t>(status.st_size), deadline = limits.deadline_ms,
          offset = std::uint64_t{0}](char* buffer, std::size_t capacity) mutable {
    if (MonotonicMs() >= deadline) {
      errno = ETIME;
      return ssize_t{-1};
    }
    const ssize_t count = ReadAt(fd, buffer, AtMost(size - offset, capacity), offset);
    if (count > 0) offset += static_cast<std::uint64_t>(count);
    return count;
  };
}

/// Why a compressed content that begins so is not taken; empty when it is.
std::string WhyNotUnpacked(std::string_view head) {
  constexpr std::size_t kTarMarkOffset = 257;
  if (head.size() > kTarMarkOffset && head.substr(kTarMarkOffset, 5) == "ustar") {
    return "a tar archive inside";
  }
  if (PackingOf(head) != Packing::kNone) return "compressed twice";
  return LooksLikeText(head) ? "" : "no text inside";
}

/// @param packing  kNone: the file is not compressed.
std::string NotText(Packing packing, const std::string& why) {
  const std::string text = "not text, so it can't be checked for secrets";
  return packing == Packing::kNone ? text : text + " (" + NameOf(packing) + " data: " + why + ")";
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
  EntrySource source = EndOf(file_size, max_bytes, status);
  FileEntry entry;
  entry.size = source.size;
  const std::uint64_t skipped = file_size - source.size;
  HeadReader reader(ReaderOf(fd, skipped - source.lead));
  const std::uint64_t wanted = source.lead + source.size;
  // One byte more is asked for than the file had: of a small file this tells whether it grew.
  const std::string_view head = reader.Head(AtMost(wanted + 1, kTextHeadBytes));
  if (check.rules != nullptr && check.unpacks && !check.binary_allowed) {
    entry.packing = PackingOfFile(fd, head, skipped == source.lead);
    if (entry.packing != Packing::kNone) return entry;
  }
  const bool is_text = check.rules == nullptr || LooksLikeText(head);
  if (!is_text && !check.binary_allowed) {
    entry.left_out = NotText(Packing::kNone, {});
    return entry;
  }
  source.rules = is_text ? check.rules : nullptr;
  source.read = [&reader](char* buffer, std::size_t capacity) { return reader.Read(buffer, capacity); };
  const std::optional<WrittenEntry> written = Write(archive, name, source, entry);
  if (!written) return entry;

  if (!is_text) entry.notes.emplace_back("not text: taken unchecked, as its description allows");
  if (skipped > 0) entry.notes.push_back(TailNote(entry.size, file_size));
  if (written->missing_bytes > 0) {
    const std::string error = reader.error() == 0 ? std::string() : ErrorText(reader.error());
    entry.notes.push_back(MissingNote(*written, error));
  }
  if (wanted < kTextHeadBytes ? head.size() > wanted : IsLonger(fd, status.st_size)) {
    entry.notes.push_back("grew while it was read: cut at the " + std::to_string(file_size) +
                          " bytes that it had when it was opened");
  }
  return entry;
}

PackedFile MeasurePacked(int fd, const struct stat& status, Packing packing, const UnpackLimits& limits) {
  PackedFile packed;
  packed.packing = packing;
  const auto leave_out = [&](const std::string& why) { packed.left_out = NotText(packing, why); };
  if (static_cast<std::uint64_t>(status.st_size) > limits.packed_bytes) {
    leave_out("longer than " + std::to_string(limits.packed_bytes) + " bytes");
    return packed;
  }
  Unpacker unpacker(packing, PackedInput(fd, status, limits));
  std::vector<char> buffer(kUnpackBytes);
  std::size_t wanted = kTextHeadBytes;  // What is no text is seen there, and costs no more.
  for (;;) {
    const ssize_t count = unpacker.Read(buffer.data(), wanted);
    packed.cost = unpacker.bytes_read() + packed.size;
    if (count <= 0) break;
    if (packed.size == 0) {
      const std::string why = WhyNotUnpacked({buffer.data(), static_cast<std::size_t>(count)});
      if (!why.empty() && unpacker.failure().empty()) {
        leave_out(why);
        return packed;
      }
    }
    packed.size += static_cast<std::uint64_t>(count);
    if (packed.size > limits.unpacked_bytes) {
      leave_out("it unpacks to more than " + std::to_string(limits.unpacked_bytes) + " bytes");
      return packed;
    }
    wanted = buffer.size();
  }
  packed.has_tail = unpacker.has_tail();
  if (!unpacker.failure().empty()) leave_out(unpacker.failure());
  return packed;
}

FileEntry AddUnpacked(ArchiveWriter& archive, const std::string& name, int fd, const struct stat& status,
                      const PackedFile& packed, std::uint64_t max_bytes, const RedactionRules* rules,
                      const UnpackLimits& limits) {
  EntrySource source = EndOf(packed.size, max_bytes, status);
  source.rules = rules;
  FileEntry entry;
  entry.size = source.size;
  const std::uint64_t skipped = packed.size - source.size;
  Unpacker unpacker(packed.packing, PackedInput(fd, status, limits));
  std::vector<char> buffer(kUnpackBytes);
  for (std::uint64_t left = skipped - source.lead; left > 0;) {
    const ssize_t count = unpacker.Read(buffer.data(), AtMost(left, buffer.size()));
    if (count <= 0) break;
    left -= static_cast<std::uint64_t>(count);
  }
  HeadReader reader([&unpacker](char* to, std::size_t capacity) { return unpacker.Read(to, capacity); });
  const std::uint64_t wanted = source.lead + source.size;
  // The file may be another one than it was, and its end another kind of content than its beginning.
  const std::string why = WhyNotUnpacked(reader.Head(AtMost(wanted, kTextHeadBytes)));
  if (!why.empty()) {
    entry.left_out = NotText(packed.packing, why);
    return entry;
  }
  source.read = [&reader](char* to, std::size_t capacity) { return reader.Read(to, capacity); };
  const std::optional<WrittenEntry> written = Write(archive, name, source, entry);
  if (!written) return entry;

  entry.notes.push_back("unpacked: " + std::to_string(status.st_size) + " bytes of " +
                        NameOf(packed.packing) + " data on the device");
  if (packed.has_tail) entry.notes.emplace_back("what follows the compressed data is left out");
  if (skipped > 0) entry.notes.push_back(TailNote(entry.size, packed.size));
  if (written->missing_bytes > 0) entry.notes.push_back(MissingNote(*written, unpacker.failure()));
  return entry;
}

}  // namespace TARVO::SupportForm
