#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "progress.h"
#include "redactor.h"
#include "reserved_room.h"

struct archive;
struct archive_entry;

namespace TARVO::SupportForm {

class ZstdStream;  // the compressor behind the tar writer; zstd_stream.h

/// The archive can't be written on: the disk is full, a device fails, memory ran out. What is there of it is worth
/// nothing then; the collection tries one of the manifest alone.
class ArchiveFailed : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What an entry is made of. Its size is announced before its content is read.
struct EntrySource {
  std::uint64_t size = 0;  ///< Bytes of the entry.
  std::uint64_t lead =
      0;  ///< Bytes that `read` gives before the entry's own: read for the redaction, not archived.
  std::time_t modified = 0;  ///< Time of the last change, recorded in the archive.
  /// What is masked. Null: only the values of "token" members, as they always are. Borrowed.
  const RedactionRules* rules = nullptr;
  /// Reads the next bytes into a buffer of the given capacity. 0 at the end, negative on failure; both end
  /// the content.
  std::function<ssize_t(char*, std::size_t)> read;
  /// Whether the entry is the archive's last one, for which room was kept.
  bool last = false;
};

/// What became of an entry.
struct WrittenEntry {
  std::uint64_t missing_bytes = 0;  ///< Announced bytes that the source did not have; zeros stand for them.
  std::uint64_t redacted = 0;       ///< Secrets masked in it, those in the lead counted too.
  std::uint64_t masked_parts = 0;   ///< Of them, parts masked as a whole: see Redactor::masked_parts().
  /// Not 0: there was no room on the device for all of the entry, and this errno value says why; zeros stand for what
  /// is missing. With `left_out` the archive has nothing of it.
  int no_room = 0;
  bool left_out = false;
};

/// A finished archive.
struct ArchiveSummary {
  std::uint64_t size = 0;      ///< Bytes of the archive's file.
  std::string sha256;          ///< Of the archive's file, in lower-case hex digits.
  std::uint64_t entries = 0;   ///< The manifest counts as one of them.
  std::uint64_t bytes = 0;     ///< Of their contents, before compression.
  std::uint64_t redacted = 0;  ///< Secrets masked in them.
};

/// Writes a zstd-compressed GNU tar to a descriptor, entry by entry, each through a Redactor. Content is
/// streamed; memory does not grow with it. Nothing is taken for which there is no room, whatever it compresses to,
/// beside what is needed to complete the archive: that room is reserved as the archive grows, and so the archive
/// can be completed on a device that others fill up. Every failure to write throws ArchiveFailed. Made and used in
/// one thread; the compression runs in threads of its own where the process may use more than one core.
class ArchiveWriter {
 public:
  /// @param fd        Where the archive goes: a file, empty, open for writing; borrowed.
  /// @param zstd_level  As zstd counts them; below 0 is faster than its usual ones.
  /// @param progress  Told of every block and entry; borrowed.
  ArchiveWriter(int fd, int zstd_level, Progress& progress);
  ~ArchiveWriter();
  ArchiveWriter(const ArchiveWriter&) = delete;
  ArchiveWriter& operator=(const ArchiveWriter&) = delete;

  /// Keeps room for so many bytes of the last entry. To be called whenever that has grown; it counts from the next
  /// entry on.
  void KeepRoom(std::uint64_t bytes) { kept_ = bytes; }
  /// Adds a regular file of exactly `source.size` bytes, mode 0600, whatever the source gives: more is not read, zeros
  /// stand for what is missing.
  /// @param name  Any length, any bytes but NUL. The folders in it get no entries of their own.
  WrittenEntry Add(const std::string& name, const EntrySource& source);
  /// Adds a regular file that holds `text`, as Add() does with a source of it.
  /// @param modified  Time of the last change, recorded in the archive.
  /// @param rules     As EntrySource::rules; borrowed until this returns.
  /// @param last      As EntrySource::last.
  WrittenEntry AddText(const std::string& name, std::string_view text, std::time_t modified,
                       const RedactionRules* rules = nullptr, bool last = false);
  /// SHA-256 of the content of each entry so far, as it lies in the archive, in the order of the entries: kSumDigits
  /// lower-case hex digits for each. Waits for those that are still being digested.
  [[nodiscard]] const std::string& Sums();
  /// Ends the archive and gives back the room that it did not need. It is complete once this has returned; nothing else
  /// may be called then.
  ArchiveSummary Close();

  /// Bytes of the archive's file so far. Threads compress, so that it may grow at any time.
  [[nodiscard]] std::uint64_t size() const;
  /// The most bytes that the archive's file can come to with what was added so far and `more` bytes of further content,
  /// its end included. The worst case: content that can't be compressed.
  [[nodiscard]] std::uint64_t SizeBound(std::uint64_t more) const;
  /// Bytes that are reserved on the device for the archive's growth.
  [[nodiscard]] std::uint64_t ReservedAhead() const;

 private:
  class Content;  // an entry's bytes on their way through the Redactor

  /// Reserves room for so many further bytes of content, and for the archive's end.
  /// @return false, with errno set, when there is none.
  bool TakeRoom(std::uint64_t more);
  /// The tar header, with which an entry begins; its size can't be changed then.
  void WriteHeader(const std::string& name, const EntrySource& source);
  /// Throws ArchiveFailed, with libarchive's reason, unless a call of it went well.
  void Check(int result, const char* what);

  std::unique_ptr<ZstdStream> zstd_;  // outlives archive_, which writes into it
  std::unique_ptr<archive, int (*)(archive*)> archive_;
  std::unique_ptr<archive_entry, void (*)(archive_entry*)> header_;  // used for all entries
  Progress& progress_;                                               // the caller's
  ReservedRoom room_;                                                // of the archive's file
  std::uint64_t kept_ = 0;                                           // for the last entry
  std::vector<char> buffer_;                                         // its part that is being read and masked
  ArchiveSummary summary_;                                           // so far; Close() completes it
};

}  // namespace TARVO::SupportForm
