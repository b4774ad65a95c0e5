#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "archive_writer.h"

namespace TARVO::SupportForm {

/// A file in the archive.
struct FileEntry {
  std::uint64_t size = 0;          ///< As archived.
  std::string sha256;              ///< As archived.
  std::vector<std::string> notes;  ///< What is not as it was on the disk, for people.
};

/// Reads `fd` from `offset` on, for EntrySource::read.
[[nodiscard]] std::function<ssize_t(char*, std::size_t)> ReaderOf(int fd, std::uint64_t offset);

/// Adds a regular file to the archive, with the size that it had when it was opened: what grows afterwards is
/// cut there, what shrinks is filled up with zeros.
/// @param fd         The file; borrowed.
/// @param status     Its state when it was opened.
/// @param max_bytes  Of a longer file the last bytes are taken: the recent lines of a log.
/// @throws ArchiveFailed
FileEntry AddFile(ArchiveWriter& archive, const std::string& name, int fd, const struct stat& status,
                  std::uint64_t max_bytes);

}  // namespace TARVO::SupportForm
