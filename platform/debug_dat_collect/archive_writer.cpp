#include "archive_writer.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "file_util.h"
#include "zstd_stream.h"

namespace TARVO::SupportForm {
namespace {

/// Bytes that are read, masked and handed to the compressor at a time. In the processor's second-level cache they stay
/// between these steps; much smaller ones cost system calls.
constexpr std::size_t kBlockBytes = std::size_t{128} << 10;
/// The most bytes of the archive that an entry takes beside its content: header, names of up to 4096 bytes, padding.
constexpr std::uint64_t kLargestOverheadBytes = 16384;
/// Bytes of the archive for the zeros in the place of the rest of an entry, of which there may be some 100 MiB, and for
/// its end.
constexpr std::uint64_t kArchiveEndBytes = std::uint64_t{256} << 10;

la_ssize_t WriteCompressed(archive* writer, void* stream, const void* data, std::size_t size) {
  try {
    static_cast<ZstdStream*>(stream)->Write({static_cast<const char*>(data), size});
    return static_cast<la_ssize_t>(size);
  } catch (const std::exception& error) {  // C code is the caller
    archive_set_error(writer, EIO, "%s", error.what());
    return -1;
  }
}

}  // namespace

/// Takes the masked content of one entry: drops the lead, counts, writes.
class ArchiveWriter::Content {
 public:
  Content(ArchiveWriter& writer, std::uint64_t lead) : writer_(writer), lead_(lead) {}

  void Take(std::string_view bytes) {
    const std::size_t dropped = AtMost(lead_, bytes.size());
    lead_ -= dropped;
    bytes.remove_prefix(dropped);
    if (bytes.empty()) return;
    const la_ssize_t written = archive_write_data(writer_.archive_.get(), bytes.data(), bytes.size());
    if (written != static_cast<la_ssize_t>(bytes.size())) writer_.Check(ARCHIVE_FATAL, "write");
    writer_.progress_.AddBytes(bytes.size());
  }

  void TakeZeros(std::uint64_t count) {
    static constexpr std::array<char, 4096> kZeros = {};
    while (count > 0) {
      const std::size_t step = AtMost(count, kZeros.size());
      Take({kZeros.data(), step});
      count -= step;
    }
  }

 private:
  ArchiveWriter& writer_;
  std::uint64_t lead_;  ///< Bytes still to be dropped.
};

ArchiveWriter::ArchiveWriter(int fd, int zstd_level, Progress& progress)
    : zstd_(std::make_unique<ZstdStream>(fd, zstd_level)),
      archive_(archive_write_new(), &archive_write_free),
      header_(archive_entry_new(), &archive_entry_free),
      progress_(progress),
      room_(fd),
      buffer_(kBlockBytes) {
  if (!archive_ || !header_) throw ArchiveFailed("out of memory");
  // It records names of any length as the bytes that they are. The library's pax takes four times as long for a
  // header, to convert the name, and wants a locale for that.
  Check(archive_write_set_format_gnutar(archive_.get()), "set up tar");
  // Blocks would only cost copying: the file is no tape.
  Check(archive_write_set_bytes_per_block(archive_.get(), 0), "set up tar");
  Check(archive_write_open2(archive_.get(), zstd_.get(), nullptr, &WriteCompressed, nullptr, nullptr),
        "open");
}

ArchiveWriter::~ArchiveWriter() = default;

void ArchiveWriter::Check(int result, const char* what) {
  if (result == ARCHIVE_OK) return;
  const char* text = archive_error_string(archive_.get());
  throw ArchiveFailed(std::string("failed to ") + what + " the archive: " + (text ? text : "unknown error"));
}

void ArchiveWriter::WriteHeader(const std::string& name, const EntrySource& source) {
  archive_entry* const entry = archive_entry_clear(header_.get());
  archive_entry_copy_pathname(entry, name.c_str());
  archive_entry_set_filetype(entry, AE_IFREG);
  archive_entry_set_perm(entry, 0600);
  archive_entry_set_size(entry, static_cast<la_int64_t>(source.size));
  archive_entry_set_mtime(entry, source.modified, 0);
  Check(archive_write_header(archive_.get(), entry), "write");
}

bool ArchiveWriter::TakeRoom(std::uint64_t more) {
  return room_.Reserve(SizeBound(more + kept_ + kArchiveEndBytes));
}

WrittenEntry ArchiveWriter::Add(const std::string& name, const EntrySource& source) {
  WrittenEntry written;
  if (!source.last && !TakeRoom(AtMost(source.size, buffer_.size()))) {
    written.no_room = errno;
    written.left_out = true;
    return written;
  }
  WriteHeader(name, source);
  zstd_->BeginPart();
  Content content(*this, source.lead);
  Redactor redactor(source.rules);
  std::uint64_t left = source.lead + source.size;  // bytes still to be read
  std::size_t held = 0;                            // bytes read, but not decided; at the buffer's beginning
  bool at_end = false;
  while (!at_end) {
    const std::size_t room = AtMost(left, buffer_.size() - held);
    if (!source.last && room > 0 && !TakeRoom(held + room)) written.no_room = errno;
    const bool reads = room > 0 && written.no_room == 0;
    const ssize_t count = reads ? source.read(buffer_.data() + held, room) : 0;
    if (count > 0) {
      left -= static_cast<std::uint64_t>(count);
      held += static_cast<std::size_t>(count);
    }
    at_end = count <= 0 || left == 0;
    const std::size_t decided = redactor.Process(buffer_.data(), held, at_end);
    content.Take({buffer_.data(), decided});
    held -= decided;
    std::memmove(buffer_.data(), buffer_.data() + decided, held);
  }
  content.TakeZeros(left);
  zstd_->EndPart();  // before the library pads the entry
  progress_.AddFile();
  ++summary_.entries;
  summary_.bytes += source.size;
  summary_.redacted += redactor.count();
  written.missing_bytes = std::min(left, source.size);
  written.redacted = redactor.count();
  written.masked_parts = redactor.masked_parts();
  return written;
}

WrittenEntry ArchiveWriter::AddText(const std::string& name, std::string_view text, std::time_t modified,
                                    const RedactionRules* rules, bool last) {
  EntrySource source;
  source.last = last;
  source.size = text.size();
  source.modified = modified;
  source.rules = rules;
  source.read = [text](char* buffer, std::size_t capacity) mutable {
    const std::size_t count = text.copy(buffer, capacity);
    text.remove_prefix(count);
    return static_cast<ssize_t>(count);
  };
  return Add(name, source);
}

const std::string& ArchiveWriter::Sums() {
  try {
    return zstd_->PartSums();
  } catch (const std::exception& error) {
    throw ArchiveFailed(std::string("failed to write the archive: ") + error.what());
  }
}

ArchiveSummary ArchiveWriter::Close() {
  Check(archive_write_close(archive_.get()), "finish");
  try {
    zstd_->End();  // not as a callback of libarchive's, which ignores what that returns
  } catch (const std::exception& error) {
    throw ArchiveFailed(std::string("failed to finish the archive: ") + error.what());
  }
  summary_.size = zstd_->size();
  room_.Release(summary_.size);
  summary_.sha256 = zstd_->Sum();
  return summary_;
}

std::uint64_t ArchiveWriter::size() const { return zstd_->size(); }

std::uint64_t ArchiveWriter::SizeBound(std::uint64_t more) const {
  return zstd_->SizeBound(more + kLargestOverheadBytes);
}

std::uint64_t ArchiveWriter::ReservedAhead() const {
  return room_.reserved() - std::min(size(), room_.reserved());
}

}  // namespace TARVO::SupportForm
