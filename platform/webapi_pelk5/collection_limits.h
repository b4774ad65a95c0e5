/// Every limit and every place of the log collection, with the values that a device uses. Tests pass others.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace TARVO::SupportForm {

/// The folders and files that the log collection works with.
struct Paths {
  /// Task folders, one per collection. Made when missing: 0700 itself, 0755 the folders above it.
  std::string state = "/var/lib/tarvo/support_form_log";
  /// Application descriptions, NAME.json each.
  std::string descriptions = "/usr/tarvo/etc/support_form_log.d";
  std::string proc = "/proc";                  ///< The kernel's process file system.
  std::string os_release = "/etc/os-release";  ///< Name and version of the system.
  /// Where a command without a slash in its name is looked up; also PATH of every command.
  std::string programs = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
};

/// How much a collection takes and how long it may last.
struct Limits {
  /// Bytes taken of one file; of a longer one its last bytes are taken and the cut is noted.
  std::uint64_t file_bytes = std::uint64_t{256} << 20;
  /// Bytes taken of a file of a kernel file system (proc, sysfs, ...), whose size is known only once it is read.
  std::size_t kernel_file_bytes = std::size_t{4} << 20;
  /// Bytes of content per archive, before compression, the manifest not counted. What would pass it is left out.
  std::uint64_t archive_bytes = std::uint64_t{4} << 30;
  /// Entries per archive, the manifest not counted. What would pass it is left out.
  std::uint64_t archive_entries = 100'000;
  /// Error lines per manifest; further ones are only counted.
  unsigned manifest_errors = 1'000;
  /// Levels of folders that are walked below a folder which a pattern of a description matches.
  unsigned folder_depth = 16;
  /// Bytes of an application's description file.
  std::size_t description_bytes = std::size_t{1} << 20;
  /// Bytes taken of a command's output; a command that writes more is ended and the cut noted.
  std::uint64_t output_bytes = std::uint64_t{16} << 20;
  unsigned command_seconds = 10;         ///< A command's time limit where its description names none.
  unsigned command_seconds_max = 300;    ///< The highest time limit that a description may name.
  unsigned system_command_seconds = 30;  ///< Time limit of journalctl and dmesg.
  /// Seconds after which a task takes nothing more and finishes its archive. Below the 1200 s for which the
  /// daemon waits, by the time that the last command may still take to be ended and the archive to be closed.
  unsigned task_seconds = 1080;
  /// Seconds after which the kernel ends a task that hangs, for instance in a file that gives no data.
  unsigned task_seconds_hard = 1190;
  unsigned status_wait_ms = 5'000;  ///< How long "status" waits for a task to end.
  unsigned prepare_wait_ms =
      10'000;  ///< How long "collect" waits for another "collect" to get its task going.
  unsigned progress_interval_ms = 100;  ///< The progress file is not replaced more often.
  int zstd_level = 1;                   ///< Level of the archive's compression.
};

}  // namespace TARVO::SupportForm
