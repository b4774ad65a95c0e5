#include "archive_writer.h"

#include <archive.h>
#include <archive_entry.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "file_util.h"
#include "token_mask.h"

namespace TARVO::SupportForm {
namespace {

constexpr std::size_t kChunkBytes = std::size_t{128} << 10;

/// Checks a call of the digest.
void CheckDigest(int result) {
  if (result != 1) throw ArchiveFailed("SHA-256 can't be computed");
}

}  // namespace

/// Takes the masked content of one entry: drops the lead, counts, digests, writes.
class ArchiveWriter::Content {
 public:
  Content(ArchiveWriter& writer, std::uint64_t lead)
      : writer_(writer), lead_(lead), digest_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
    CheckDigest(EVP_DigestInit_ex(digest_.get(), EVP_sha256(), nullptr));
  }

  void Take(std::string_view bytes) {
    const auto dropped = static_cast<std::size_t>(std::min<std::uint64_t>(lead_, bytes.size()));
    lead_ -= dropped;
    bytes.remove_prefix(dropped);
    if (bytes.empty()) return;
    CheckDigest(EVP_DigestUpdate(digest_.get(), bytes.data(), bytes.size()));
    const la_ssize_t written = archive_write_data(writer_.archive_.get(), bytes.data(), bytes.size());
    if (written != static_cast<la_ssize_t>(bytes.size())) writer_.Check(ARCHIVE_FATAL, "write");
    writer_.progress_.AddBytes(bytes.size());
  }

  void TakeZeros(std::uint64_t count) {
    static constexpr std::array<char, 4096> kZeros = {};
    while (count > 0) {
      const std::size_t step = std::min<std::uint64_t>(count, kZeros.size());
      Take({kZeros.data(), step});
      count -= step;
    }
  }

  std::string Sha256() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> sum = {};
    unsigned length = 0;
    CheckDigest(EVP_DigestFinal_ex(digest_.get(), sum.data(), &length));
    return HexText(sum.data(), length);
  }

 private:
  ArchiveWriter& writer_;
  std::uint64_t lead_;  ///< Bytes still to be dropped.
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> digest_;
};

ArchiveWriter::Utf8Locale::Utf8Locale()
    : utf8_(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)), before_(utf8_ ? uselocale(utf8_) : nullptr) {}

ArchiveWriter::Utf8Locale::~Utf8Locale() {
  if (!utf8_) return;
  uselocale(before_);
  freelocale(utf8_);
}

ArchiveWriter::ArchiveWriter(int fd, int zstd_level, Progress& progress)
    : archive_(archive_write_new(), &archive_write_free), progress_(progress) {
  if (!archive_) throw ArchiveFailed("out of memory");
  const std::string level = std::to_string(zstd_level);
  Check(archive_write_add_filter_zstd(archive_.get()), "set up zstd");
  Check(archive_write_set_filter_option(archive_.get(), "zstd", "compression-level", level.c_str()),
        "set up zstd");
  // Restricted: pax headers only for entries that need them, a third of the size for many small files.
  Check(archive_write_set_format_pax_restricted(archive_.get()), "set up tar");
  Check(archive_write_open_fd(archive_.get(), fd), "open");
}

ArchiveWriter::~ArchiveWriter() = default;

/// A warning is no failure: libarchive gives one for a name that is not in the locale's character set, and
/// records the name as it is.
void ArchiveWriter::Check(int result, const char* what) {
  if (result == ARCHIVE_OK || result == ARCHIVE_WARN) return;
  const char* text = archive_error_string(archive_.get());
  const int error = archive_errno(archive_.get());
  throw ArchiveFailed(std::string("failed to ") + what + " the archive: " + (text ? text : "unknown error") +
                      (error > 0 ? " (" + ErrorText(error) + ")" : ""));
}

WrittenEntry ArchiveWriter::Add(const std::string& name, const EntrySource& source) {
  const std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(),
                                                                       &archive_entry_free);
  archive_entry_copy_pathname(entry.get(), name.c_str());
  archive_entry_set_filetype(entry.get(), AE_IFREG);
  archive_entry_set_perm(entry.get(), 0600);
  archive_entry_set_size(entry.get(), static_cast<la_int64_t>(source.size));
  archive_entry_set_mtime(entry.get(), source.modified, 0);
  Check(archive_write_header(archive_.get(), entry.get()), "write");

  Content content(*this, source.lead);
  TokenMask mask;
  std::vector<char> buffer(kChunkBytes);
  std::string masked;
  std::uint64_t left = source.lead + source.size;
  while (left > 0) {
    const ssize_t count = source.read(buffer.data(), std::min<std::uint64_t>(left, buffer.size()));
    if (count <= 0) break;
    left -= static_cast<std::uint64_t>(count);
    masked.clear();
    mask.Feed({buffer.data(), static_cast<std::size_t>(count)}, masked);
    content.Take(masked);
  }
  masked.clear();
  mask.Finish(masked);
  content.Take(masked);
  content.TakeZeros(left);
  progress_.AddFile();
  return {content.Sha256(), std::min(left, source.size)};
}

WrittenEntry ArchiveWriter::AddText(const std::string& name, std::string_view text, std::time_t modified) {
  EntrySource source;
  source.size = text.size();
  source.modified = modified;
  source.read = [text](char* buffer, std::size_t capacity) mutable {
    const std::size_t count = text.copy(buffer, capacity);
    text.remove_prefix(count);
    return static_cast<ssize_t>(count);
  };
  return Add(name, source);
}

void ArchiveWriter::Close() { Check(archive_write_close(archive_.get()), "finish"); }

}  // namespace TARVO::SupportForm
