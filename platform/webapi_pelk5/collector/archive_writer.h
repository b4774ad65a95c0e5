#pragma once

#include <locale.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "progress.h"

struct archive;

namespace TARVO::SupportForm {

/// The archive can't be made: the disk is full, memory ran out. Ends the task.
class ArchiveFailed : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What an entry is made of. Its size is announced before its content is read.
struct EntrySource {
  std::uint64_t size = 0;  ///< Bytes of the entry.
  std::uint64_t lead =
      0;  ///< Bytes that `read` gives before the entry's own: read for the mask, not archived.
  std::time_t modified = 0;  ///< Time of the last change, recorded in the archive.
  /// Reads the next bytes into a buffer of the given capacity. 0 at the end, negative on failure; both end
  /// the content.
  std::function<ssize_t(char*, std::size_t)> read;
};

/// What became of an entry.
struct WrittenEntry {
  std::string sha256;               ///< Of the content as it lies in the archive, in lower-case hex digits.
  std::uint64_t missing_bytes = 0;  ///< Announced bytes that the source did not have; zeros stand for them.
};

/// Writes a zstd-compressed pax tar to a descriptor, entry by entry, through the token mask. Content is
/// streamed; memory does not grow with it. Every failure to write throws ArchiveFailed. Made and used in one
/// thread.
class ArchiveWriter {
 public:
  /// @param fd        Where the archive goes; borrowed.
  /// @param progress  Told of every chunk and entry; borrowed.
  ArchiveWriter(int fd, int zstd_level, Progress& progress);
  ~ArchiveWriter();
  ArchiveWriter(const ArchiveWriter&) = delete;
  ArchiveWriter& operator=(const ArchiveWriter&) = delete;

  /// Adds a regular file of exactly `source.size` bytes, mode 0600.
  WrittenEntry Add(const std::string& name, const EntrySource& source);
  /// Adds a regular file that holds `text`.
  WrittenEntry AddText(const std::string& name, std::string_view text, std::time_t modified);
  /// Ends the archive. It is complete once this has returned.
  void Close();

 private:
  class Content;

  /// Makes the thread's character set UTF-8 as long as it lives, for libarchive: in another one it can't tell
  /// what the bytes of a name mean, and records names that are not ASCII in a way that tar warns about.
  class Utf8Locale {
   public:
    Utf8Locale();
    ~Utf8Locale();
    Utf8Locale(const Utf8Locale&) = delete;
    Utf8Locale& operator=(const Utf8Locale&) = delete;

   private:
    locale_t utf8_;    ///< Null where the system has no such locale.
    locale_t before_;  ///< What the thread used before.
  };

  void Check(int result, const char* what);

  Utf8Locale locale_;
  std::unique_ptr<archive, int (*)(archive*)> archive_;
  Progress& progress_;
};

}  // namespace TARVO::SupportForm
