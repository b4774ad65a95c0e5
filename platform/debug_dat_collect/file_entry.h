#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "archive_writer.h"
#include "unpacker.h"

namespace TARVO::SupportForm {

/// What is asked of a file's content before it goes into the archive.
struct FileCheck {
  /// What is masked in it. Null: redaction is off, only the values of "token" members are masked. Borrowed.
  const RedactionRules* rules = nullptr;
  /// Whether a file that is not text is taken all the same, though it can't be checked by the rules.
  bool binary_allowed = false;
  /// Whether a compressed file is to be unpacked: AddFile() takes nothing of one, but says that it is.
  bool unpacks = false;
};

/// A file in the archive.
struct FileEntry {
  std::uint64_t size = 0;          ///< As archived.
  std::uint64_t redacted = 0;      ///< Secrets masked in it.
  std::uint64_t masked_parts = 0;  ///< Of them, parts that were masked as a whole.
  std::vector<std::string> notes;  ///< What is not as it was on the disk, for people.
  int no_room = 0;                 ///< Not 0: it was cut for want of room, and this errno value says why.
  /// Why the archive does not have it, for people: its content can't be checked, or there is no more room. Empty
  /// when the archive does.
  std::string left_out;
  /// Not kNone: it is compressed, and the archive does not have it; MeasurePacked() and AddUnpacked() are to be asked.
  Packing packing = Packing::kNone;
};

/// What a compressed file may cost.
struct UnpackLimits {
  std::uint64_t packed_bytes = 0;    ///< One that is longer is not read.
  std::uint64_t unpacked_bytes = 0;  ///< One that unpacks to more is given up.
  std::int64_t deadline_ms = 0;      ///< When there is no more time, monotonic.
};

/// What a compressed file unpacks to.
struct PackedFile {
  Packing packing = Packing::kNone;
  std::uint64_t size = 0;  ///< Bytes that it unpacks to.
  std::uint64_t cost = 0;  ///< Bytes read and unpacked to find out, also where that failed.
  bool has_tail = false;   ///< Something behind the compressed bytes is something else.
  std::string left_out;    ///< Why it can't be taken, for people; empty when it can.
};

/// Reads `fd` from `offset` on, for EntrySource::read. The descriptor is borrowed; its own offset is neither used nor
/// moved.
[[nodiscard]] std::function<ssize_t(char*, std::size_t)> ReaderOf(int fd, std::uint64_t offset);

/// Adds a regular file to the archive, with the size that it had when it was opened: what grows afterwards is
/// cut there, what shrinks is filled up with zeros. With rules, a file that is not text is left out unless
/// `check` allows it: whether it is tells the beginning of what is taken of it.
/// @param fd         The file; borrowed.
/// @param status     Its state when it was opened.
/// @param max_bytes  Of a longer file the last bytes are taken: the recent lines of a log.
/// @throws ArchiveFailed
FileEntry AddFile(ArchiveWriter& archive, const std::string& name, int fd, const struct stat& status,
                  std::uint64_t max_bytes, const FileCheck& check = {});

/// Unpacks a compressed file for the first time, to learn its size, which an archive wants to know first, and whether
/// it is a text: what is not can't be taken. That it is damaged, too, shows before anything of it is in the archive.
/// @param fd       The file; borrowed.
/// @param status   Its state when it was opened.
/// @param packing  What its first bytes say, not kNone.
[[nodiscard]] PackedFile MeasurePacked(int fd, const struct stat& status, Packing packing,
                                       const UnpackLimits& limits);

/// Unpacks it for the second time, into the archive, as AddFile() adds a file of that size.
/// @param packed     What MeasurePacked() found, with nothing in `left_out`.
/// @param max_bytes  Of what it unpacks to; of more the last bytes are taken.
/// @param rules      Not null; borrowed.
/// @throws ArchiveFailed
FileEntry AddUnpacked(ArchiveWriter& archive, const std::string& name, int fd, const struct stat& status,
                      const PackedFile& packed, std::uint64_t max_bytes, const RedactionRules* rules,
                      const UnpackLimits& limits);

}  // namespace TARVO::SupportForm
