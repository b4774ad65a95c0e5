#include "archive_walk.h"

#include <archive.h>
#include <archive_entry.h>

#include <cerrno>
#include <new>

namespace TarvoOrvane::ArchiveReader {
namespace {

la_ssize_t ReadUnpacked(archive* reader, void* input_pointer, const void** data) {
  auto& input = *static_cast<ZstdInput*>(input_pointer);
  const std::string_view block = input.Next();
  *data = block.data();
  if (!input.failure()) return static_cast<la_ssize_t>(block.size());
  archive_set_error(reader, EIO, "it can't be unpacked");
  return -1;
}

EntryKind KindOf(archive_entry* header) {
  if (archive_entry_hardlink(header) != nullptr) return EntryKind::kLink;
  switch (archive_entry_filetype(header)) {
    case AE_IFREG:
      return archive_entry_sparse_count(header) == 0 ? EntryKind::kFile : EntryKind::kOther;
    case AE_IFDIR:
      return EntryKind::kFolder;
    case AE_IFLNK:
      return EntryKind::kLink;
    default:
      return EntryKind::kOther;
  }
}

/// The library has a text in the form in which the archive has it, and another one where it can make that.
std::string TextOf(const char* bytes, const char* utf8) {
  if (bytes != nullptr) return bytes;
  return utf8 != nullptr ? utf8 : "";
}

std::string TargetOf(archive_entry* header) {
  if (archive_entry_hardlink(header) != nullptr) {
    return TextOf(archive_entry_hardlink(header), archive_entry_hardlink_utf8(header));
  }
  return TextOf(archive_entry_symlink(header), archive_entry_symlink_utf8(header));
}

}  // namespace

ArchiveWalk::ArchiveWalk(int fd, const ReadLimits& limits)
    : limits_(limits), input_(fd, limits), archive_(archive_read_new(), &archive_read_free) {
  if (!archive_) throw std::bad_alloc();
}

ArchiveWalk::~ArchiveWalk() = default;

const Entry* ArchiveWalk::Next() {
  if (end_ || (!is_open_ && !Open())) return nullptr;
  // The library would pass over an entry's content in one call, whatever that costs.
  while (!Content().empty()) {
  }
  if (end_) return nullptr;
  archive_entry* header = nullptr;
  switch (archive_read_next_header(archive_.get(), &header)) {
    case ARCHIVE_EOF:
      StopAtEndOfTar();
      return nullptr;
    case ARCHIVE_OK:
    case ARCHIVE_WARN:
      return TakeEntry(header) ? &entry_ : nullptr;
    default:
      StopDamaged();
      return nullptr;
  }
}

std::string_view ArchiveWalk::Content() {
  if (end_ || entry_.number == 0) return {};
  const void* data = nullptr;
  std::size_t size = 0;
  la_int64_t offset = 0;
  int result = ARCHIVE_OK;
  do {
    result = archive_read_data_block(archive_.get(), &data, &size, &offset);
  } while (size == 0 && (result == ARCHIVE_OK || result == ARCHIVE_WARN));
  if (result != ARCHIVE_OK && result != ARCHIVE_WARN) {
    if (result != ARCHIVE_EOF) StopDamaged();
    return {};
  }
  // Of a file with holes of which the header has told nothing.
  const bool is_next = static_cast<std::uint64_t>(offset) == content_bytes_;
  if (entry_.kind == EntryKind::kFile && (!is_next || size > entry_.size - content_bytes_)) return {};
  content_bytes_ += size;
  return {static_cast<const char*>(data), size};
}

void ArchiveWalk::Stop(ReaderEnd end) {
  end_ = end;
  entry_ = {};
}

void ArchiveWalk::StopAtEndOfTar() {
  input_.Drain();
  Stop(input_.failure().value_or(ReaderEnd::kComplete));
}

/// The library can't go on.
void ArchiveWalk::StopDamaged() {
  Stop(input_.failure().value_or(entry_.number == 0 ? ReaderEnd::kNoArchive : ReaderEnd::kDamaged));
}

bool ArchiveWalk::Open() {
  // No filter is turned on, so the library looks for none: what ZstdInput gives is taken as it is.
  archive_read_support_format_tar(archive_.get());
  is_open_ = archive_read_open(archive_.get(), &input_, nullptr, &ReadUnpacked, nullptr) == ARCHIVE_OK;
  if (!is_open_) StopDamaged();
  return is_open_;
}

bool ArchiveWalk::TakeEntry(archive_entry* header) {
  const std::uint64_t number = entry_.number + 1;
  if (number > limits_.entries) {
    Stop(ReaderEnd::kTooManyEntries);
    return false;
  }
  content_bytes_ = 0;
  entry_.number = number;
  entry_.name = TextOf(archive_entry_pathname(header), archive_entry_pathname_utf8(header));
  entry_.kind = KindOf(header);
  entry_.size = static_cast<std::uint64_t>(archive_entry_size(header));
  entry_.modified = archive_entry_mtime(header);
  entry_.target = TargetOf(header);
  if (entry_.name.size() <= limits_.name_bytes && entry_.target.size() <= limits_.name_bytes) return true;
  Stop(ReaderEnd::kNameTooLong);
  return false;
}

}  // namespace TarvoOrvane::ArchiveReader
