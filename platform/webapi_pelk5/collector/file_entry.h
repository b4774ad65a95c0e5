#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "archive_writer.h"

namespace TARVO::SupportForm {

/// What is asked of a file's content before it goes into the archive.
struct FileCheck {
  /// What is masked in it. Null: redaction is off, only the values of "token" members are masked. Borrowed.
  const RedactionRules* rules = nullptr;
  /// Whether a file that is not text is taken all the same, though it can't be checked by the rules.
  bool binary_allowed = false;
};

/// A file in the archive.
struct FileEntry {
  std::uint64_t size = 0;          ///< As archived.
  std::uint64_t redacted = 0;      ///< Secrets masked in it.
  std::vector<std::string> notes;  ///< What is not as it was on the disk, for people.
  /// Why the archive does not have it, for people: its content can't be checked. Empty when the archive does.
  std::string left_out;
};

/// Reads `fd` from `offset` on, for EntrySource::read.
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

}  // namespace TARVO::SupportForm
