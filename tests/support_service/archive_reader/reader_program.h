/// The program support_archive_reader, run on an archive.
#pragma once

#include <string>
#include <vector>

#include "made_archive.h"
#include "reader_end.h"

namespace TarvoOrvane::ArchiveReader {

/// What came of it.
struct ReaderResult {
  int status = -1;  ///< Its exit status; 128 and the signal's number when a signal ended it.
  std::string output;
  std::uint64_t peak_bytes = 0;  ///< The most memory that it had.

  [[nodiscard]] ReaderEnd end() const { return static_cast<ReaderEnd>(status); }
  /// The output's lines.
  [[nodiscard]] std::vector<std::string> lines() const;
  /// The names in its lines.
  [[nodiscard]] std::vector<std::string> names() const;
  /// What stands behind its first line.
  [[nodiscard]] std::string content() const;
};

/// Runs the program, and reads its output to the end.
/// @param input  A descriptor, which is read from its beginning where it is a file.
/// @param kept   So much of the output is kept.
ReaderResult RunReader(const std::vector<std::string>& arguments, int input,
                       std::size_t kept = std::size_t{64} << 20);
/// The same for an archive in memory.
ReaderResult RunReader(const std::vector<std::string>& arguments, const std::string& archive);

/// A file without a name.
class ArchiveFile {
 public:
  explicit ArchiveFile(const std::string& content = "");
  ~ArchiveFile();
  ArchiveFile(const ArchiveFile&) = delete;
  ArchiveFile& operator=(const ArchiveFile&) = delete;

  void Append(const std::string& content) const;
  [[nodiscard]] int fd() const { return fd_; }

 private:
  const int fd_;
};

}  // namespace TarvoOrvane::ArchiveReader
