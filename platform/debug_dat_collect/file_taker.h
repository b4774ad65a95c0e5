#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>

#include "collection_limits.h"
#include "content_visit.h"
#include "file_entry.h"
#include "manifest.h"
#include "redaction_rules.h"
#include "unfinished_archive.h"

namespace TARVO::SupportForm {

/// Takes the files of a collection into its archive, each as its kind wants it: one of the kernel's is read into
/// memory, a compressed one is unpacked, the end of any other is streamed. Lives in the collector, used in one thread.
class FileTaker {
 public:
  /// @param limits   Borrowed.
  /// @param rules    What is masked; null where redaction is off. Borrowed.
  /// @param archive  Borrowed.
  FileTaker(const Limits& limits, const RedactionRules* rules, UnfinishedArchive& archive)
      : limits_(limits), rules_(rules), archive_(archive) {}

  /// Takes what of a file may and can be taken, and records it, or in the manifest's errors why not.
  /// @throws ArchiveFailed
  void Take(const ContentFile& file);

 private:
  /// A file of known size: its end that fits is streamed into the archive, or, of a compressed one, of what it unpacks
  /// to.
  void TakeRegular(ManifestEntry entry, const ContentFile& file);
  /// Unpacks a compressed file into the archive, within what all compressed files of it may cost together.
  /// @return nothing where there is no room for what it unpacks to; the manifest says so then.
  std::optional<FileEntry> TakePacked(const ContentFile& file, Packing packing);
  /// A file that tells its size only by being read: into memory, up to Limits::kernel_file_bytes.
  void TakeKernel(ManifestEntry entry, const ContentFile& file);
  /// Whether the kernel makes the file as it is read. It is asked once for files of one device in a row, as most are.
  bool IsKernels(const ContentFile& file);

  const Limits& limits_;         ///< The constructor's, as the next two.
  const RedactionRules* rules_;  ///< Null where redaction is off.
  UnfinishedArchive& archive_;
  std::uint64_t unpacked_ = 0;  ///< Bytes that compressed files have cost, of Limits::unpacked_archive_bytes.
  dev_t device_ = 0;            ///< The last file's device, and
  bool device_is_kernels_ = false;  ///< whether its files are made by the kernel as they are read.
};

}  // namespace TARVO::SupportForm
