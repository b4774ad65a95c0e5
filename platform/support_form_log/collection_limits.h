/// Every limit and every place of the log collection, with the values that a device uses. Tests pass others.
/// docs/log-collection.md has the same as a table for the makers of descriptions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace TARVO::SupportForm {

/// The folders and files that the log collection works with.
struct Paths {
  /// Task folders, one per collection. Made when missing: 0700 itself, 0755 the folders above it.
  std::string state = "/var/lib/tarvo/support_form_log";
  /// Where collections are handed over to a collector that is a service of its own; see hand_over.h. There is no such
  /// collector where there is no such file.
  std::string socket = "/run/debug-dat-collect.socket";
  /// Application descriptions, NAME.json each.
  std::string descriptions = "/usr/tarvo/etc/support_form_log.d";
  /// Those that come with the collector, of which the folder above may hold links. The program sets its installation's.
  std::string ready_descriptions = "/usr/share/tarvo/descriptions";
  /// Further patterns of secrets that are masked; may be missing.
  std::string redaction = "/usr/tarvo/etc/support_form_log.redact";
  /// A line per collection: what left the device, or could have.
  std::string audit_log = "/var/log/debug_dat_collect.log";
  std::string proc = "/proc";                  ///< The kernel's process file system.
  std::string os_release = "/etc/os-release";  ///< Name and version of the system.
  /// Where a command without a slash in its name is looked up; also PATH of every command.
  std::string programs = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
};

/// Bytes of the file Paths::redaction; a longer one is refused as a whole.
inline constexpr std::size_t kPatternFileBytes = std::size_t{256} << 10;

/// Bytes of a task's list of applications, as JSON. A ticket's has at most 2047.
inline constexpr std::size_t kAppListBytes = std::size_t{1} << 20;

/// How much a collection takes and how long it may last.
struct Limits {
  /// Bytes taken of one file; of a longer one its last bytes are taken and the cut is noted.
  std::uint64_t file_bytes = std::uint64_t{256} << 20;
  /// Bytes taken of a file of a kernel file system (proc, sysfs, ...), whose size is known only once it is read.
  std::size_t kernel_file_bytes = std::size_t{4} << 20;
  /// Bytes that one compressed file may unpack to; one with more is left out. Bounds time.
  std::uint64_t unpacked_file_bytes = std::uint64_t{1} << 30;
  /// The same of all compressed files of an archive together, what is read of them counted, too.
  std::uint64_t unpacked_archive_bytes = std::uint64_t{4} << 30;
  /// Bytes of content per archive, before compression, the manifest not counted. Of a file that would pass it the
  /// end that fits is taken.
  std::uint64_t archive_bytes = std::uint64_t{4} << 30;
  /// Entries per archive, the manifest not counted. What would pass it is left out.
  std::uint64_t archive_entries = 100'000;
  /// Bytes that stay free on the file system of the archive, but for the manifest itself. Of a file whose
  /// content, taken as incompressible, would pass it the end that fits is taken.
  std::uint64_t free_bytes = std::uint64_t{64} << 20;
  /// Where the two limits above leave less room than this, a longer file or a command is left out altogether.
  std::uint64_t least_bytes = std::uint64_t{64} << 10;
  /// Error lines per manifest; further ones are only counted.
  unsigned manifest_errors = 1'000;
  /// Levels of folders that are walked below a folder which a pattern of a description matches.
  unsigned folder_depth = 16;
  /// Names looked at in one folder, and half of those in it and the folders above it together; the others are left
  /// out. Bounds memory where some user fills folders.
  std::size_t folder_names = 200'000;
  /// Names met per application, whether taken or not; the search ends there.
  std::size_t app_names = 1'000'000;
  /// Bytes of these names with their folders; the search ends there, too. Every name may come to stand in the
  /// manifest, which is made in memory.
  std::size_t app_name_bytes = std::size_t{16} << 20;
  /// Symbolic links followed on the way along one pattern, as many as the kernel's own limit.
  unsigned links = 40;
  /// Bytes of an application's description file.
  std::size_t description_bytes = std::size_t{1} << 20;
  /// Bytes taken of a command's output where its description names no other limit. A command that writes more is
  /// ended and the cut noted.
  std::uint64_t output_bytes = std::uint64_t{16} << 20;
  std::uint64_t output_bytes_max = std::uint64_t{256}
                                   << 20;  ///< The highest one that a description may name.
  unsigned command_seconds = 10;           ///< A command's time limit where its description names none.
  unsigned command_seconds_max = 300;      ///< The highest time limit that a description may name.
  unsigned system_command_seconds = 30;    ///< Time limit of journalctl and dmesg.
  unsigned journal_lines = 5'000;          ///< The newest journal entries taken, of a unit or of the system.
  unsigned journal_lines_max = 1'000'000;  ///< The most that a description may name.
  std::uint64_t journal_bytes = std::uint64_t{4} << 20;  ///< Bytes taken of them; the end is taken.
  unsigned journal_hours_max = 24 * 366;  ///< The longest time back that a description may name.
  /// Seconds after which a task takes nothing more and finishes its archive. Below the 1200 s for which the
  /// daemon waits, by the time that the last command may still take to be ended and the archive to be closed.
  unsigned task_seconds = 1080;
  /// Seconds after which a task that hangs, for instance in a file that gives no data, is ended. A command of it that
  /// still runs is ended with it.
  unsigned task_seconds_hard = 1190;
  /// Bytes of the audit log; one that would pass them is kept under a second name, in the place of a former one.
  std::uint64_t audit_bytes = std::uint64_t{1} << 20;
  unsigned status_wait_ms = 5'000;  ///< How long "status" waits for a task to end.
  unsigned prepare_wait_ms =
      10'000;  ///< How long "collect" waits for another "collect" to get its task going.
  /// How long the collector waits for what whoever has connected asks of it. They send it at once.
  unsigned request_wait_ms = 10'000;
  /// How long "collect" waits for the collector's answer: for prepare_wait_ms, and until a busy device has started a
  /// program. Below the time for which anybody would go on waiting.
  unsigned hand_over_wait_ms = 30'000;
  /// Task folders that may lie there when a collection is handed over, leftovers that can be removed not counted. The
  /// daemon has one at a time. Bounds what a caller can pile up that was taken over by an attacker.
  std::size_t handed_over_tasks = 16;
  unsigned progress_interval_ms = 1000;  ///< The progress file is not replaced more often.
  /// Level of the archive's compression. Negative: faster than the library's usual ones.
  int zstd_level = -2;
};

}  // namespace TARVO::SupportForm
