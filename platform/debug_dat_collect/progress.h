#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace TARVO::SupportForm {

/// Tells how far a collection has come, in a small file beside the archive, kProgressFile, which "status" reads in the
/// daemon's process. Lives in the collector, in the thread that writes the archive. A file that can't be written is no
/// failure: the archive matters more.
class Progress {
 public:
  /// Writes the file for the first time, with zeros.
  /// @param folder_fd    The task folder; borrowed.
  /// @param interval_ms  The file is replaced at most this often, but for Write().
  Progress(int folder_fd, unsigned interval_ms);

  /// Counts content that went into the archive, before compression.
  void AddBytes(std::uint64_t count);
  /// Counts one finished entry, the manifest too.
  void AddFile();
  /// Writes the file now, though it be early: before a command that may take minutes, and at the end.
  void Write();

 private:
  /// Write(), unless less than an interval has passed since the last one.
  void WriteWhenDue();

  int folder_fd_;                   ///< Where the file is; the caller's.
  mode_t mode_;                     ///< Of the file: who may look into the folder may read it.
  std::int64_t interval_ms_;        ///< See the constructor.
  std::int64_t written_at_ms_ = 0;  ///< When the file was last replaced, monotonic.
  std::uint64_t bytes_ = 0;         ///< See AddBytes().
  std::uint64_t files_ = 0;         ///< See AddFile().
};

}  // namespace TARVO::SupportForm
