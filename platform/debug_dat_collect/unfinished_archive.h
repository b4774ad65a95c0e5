#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

#include "archive_writer.h"
#include "collection_limits.h"
#include "file_entry.h"
#include "manifest.h"
#include "progress.h"
#include "redaction_rules.h"
#include "space_budget.h"

namespace TARVO::SupportForm {

/// The archive while it is being made, with its manifest, its budget of space and its time: what takes entries into it
/// goes through here, so that the manifest tells of every entry and of everything that is left out. Lives in the
/// collector, used in one thread.
///
/// An entry is taken in three steps: Allow() says how much of it, the writer gets it, Record() counts it. `where` is an
/// entry's name, or what else a line under "errors" is about.
class UnfinishedArchive {
 public:
  /// Its time begins here.
  /// @param limits      Borrowed.
  /// @param folder_fd   The task folder, for the progress file; borrowed.
  /// @param archive_fd  Where the archive goes; borrowed.
  UnfinishedArchive(const Limits& limits, Manifest manifest, int folder_fd, int archive_fd);
  UnfinishedArchive(const UnfinishedArchive&) = delete;
  UnfinishedArchive& operator=(const UnfinishedArchive&) = delete;

  [[nodiscard]] ArchiveWriter& writer() { return writer_; }
  [[nodiscard]] Manifest& manifest() { return manifest_; }
  /// When nothing more is taken, in milliseconds of MonotonicMs().
  [[nodiscard]] std::int64_t deadline_ms() const { return deadline_ms_; }

  /// Whether that is so by now; the manifest then says that what `where` names is left out.
  [[nodiscard]] bool TimeIsUp(const std::string& where);
  /// Whether `status` is that of the archive's own file.
  [[nodiscard]] bool IsItself(const struct stat& status) const;

  /// How many of an entry's `size` bytes may be taken; nothing where it is left out, and the manifest says so.
  /// @param least  See SpaceBudget::Allow().
  [[nodiscard]] std::optional<std::uint64_t> Allow(const std::string& where, std::uint64_t size,
                                                   std::uint64_t least);
  /// See SpaceBudget::RoomFor().
  [[nodiscard]] std::uint64_t RoomFor(std::uint64_t wanted) { return budget_.RoomFor(wanted); }

  /// Records what AddFile() or AddUnpacked() made of an entry: in the manifest's entries if the archive has it, and
  /// under its errors what of it is missing.
  /// @param entry  All but size and counts of secrets, which come from `taken`.
  void Record(ManifestEntry entry, const FileEntry& taken);
  /// Takes a whole text as an entry, or none of it, and records it.
  /// @param entry  All but size and counts of secrets.
  /// @param rules  What is masked in it, as for EntrySource::rules; borrowed.
  /// @throws ArchiveFailed
  void TakeText(ManifestEntry entry, const std::string& text, const RedactionRules* rules);

  /// Brings the progress file up to date, before something that lasts.
  void WriteProgress() { progress_.Write(); }

  /// Adds the manifest and completes the archive. To be called last.
  /// @throws ArchiveFailed
  ArchiveSummary Finish();

 private:
  [[nodiscard]] std::optional<DeviceSpace> LookAtDevice() const;
  void Count(const ManifestEntry& entry);

  const Limits& limits_;
  int archive_fd_;
  struct stat own_ = {};  ///< Of the archive's file.
  std::int64_t deadline_ms_;
  Progress progress_;
  ArchiveWriter writer_;
  Manifest manifest_;
  SpaceBudget budget_;
};

}  // namespace TARVO::SupportForm
