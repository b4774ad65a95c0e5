/// How support_archive_reader ends: its exit status, by which the service knows what came of a look.
///
/// The service (archive_contents.h) starts the program with an open archive as its standard input and a pipe as its
/// standard output, and reads from that pipe to its end:
///
///     list AFTER LIMIT              a line of JSON for each entry behind the AFTERth, LIMIT of them at most
///     read NUMBER OFFSET LENGTH     the entry's line, then so many of its bytes as it has there
///     text NUMBER OFFSET LENGTH     the same as UTF-8. Its line has the members "begin" and "end" too
///     manifest                      the line of the manifest's entry, then its bytes: a JSON object
///
/// A line is there only where what follows it can be given. What is written before another end than kComplete is right
/// as far as it goes.
#pragma once

#include <cstdint>

namespace TarvoOrvane::ArchiveReader {

enum class ReaderEnd : int {
  kComplete = 0,      ///< All that was asked for. For a list: the archive has no more, or LIMIT was reached.
  kMisused = 2,       ///< The arguments are wrong.
  kNoSandbox = 3,     ///< It could not give up its rights, and so has read nothing.
  kOutputFailed = 4,  ///< Nobody reads what it writes.
  kInputFailed = 5,   ///< The system could not read the archive's file.
  kNoArchive = 10,    ///< It is no tar archive that zstd has compressed.
  kDamaged = 11,      ///< It is cut, or its content is not what was written.
  kTooManyEntries = 12,     ///< From here on: one of ReadLimits was met.
  kNameTooLong = 13,        ///< The name of an entry, or a link's target.
  kTooMuchContent = 14,     ///< All of it together.
  kTooMuchTime = 15,        ///< Of a processor.
  kTooMuchMemory = 16,      ///< For unpacking, or at all.
  kNoEntry = 20,            ///< It has no entry of this number.
  kNoContent = 21,          ///< That entry is no file.
  kBehindEnd = 22,          ///< That file ends before OFFSET.
  kNoManifest = 23,         ///< It has no entry "manifest.json".
  kManifestTooLarge = 24,   ///< See ReadLimits.
  kManifestIsNoObject = 25  ///< That is not JSON in UTF-8, or not an object.
};

/// Against archives that are made to cost as much as they can. debug_dat_collect makes archives of 4 GiB of content and
/// 100,000 entries at most.
struct ReadLimits {
  std::uint64_t entries = 1'000'000;
  std::uint64_t name_bytes = 4096;  ///< As much as the kernel takes for a path.
  /// Of all that is unpacked, headers included. Four times as much as the collector takes; even a slow processor unpacks
  /// it in the seconds below.
  std::uint64_t unpacked_bytes = std::uint64_t{16} << 30;
  std::uint64_t manifest_bytes = std::uint64_t{16} << 20;
  std::uint64_t text_bytes = std::uint64_t{16} << 20;  ///< The most that is asked for by `text`.
  double cpu_seconds = 60;
};

/// For the window that an archive was compressed with, in bytes as a power of 2. The collector's is far smaller.
inline constexpr int kWindowLog = 26;
/// Of the process's address space: the window, a manifest or a text while it grows, and as much again for libraries.
inline constexpr std::uint64_t kMemoryBytes = std::uint64_t{256} << 20;
/// The kernel ends a process that has used so much: the reader itself stops at ReadLimits::cpu_seconds.
inline constexpr std::uint64_t kLastCpuSeconds = 70;

}  // namespace TarvoOrvane::ArchiveReader
