#include "unfinished_archive.h"

#include <sys/statvfs.h>

#include <ctime>
#include <utility>

#include "file_util.h"
#include "reserved_room.h"

namespace TARVO::SupportForm {

UnfinishedArchive::UnfinishedArchive(const Limits& limits, Manifest manifest, int folder_fd, int archive_fd)
    : limits_(limits),
      archive_fd_(archive_fd),
      deadline_ms_(MonotonicMs() + std::int64_t{limits.task_seconds} * 1000),
      progress_(folder_fd, limits.progress_interval_ms),
      writer_(archive_fd, limits.zstd_level, progress_),
      manifest_(std::move(manifest)),
      budget_(limits, [this] { return LookAtDevice(); }) {
  static_cast<void>(fstat(archive_fd, &own_));
}

bool UnfinishedArchive::TimeIsUp(const std::string& where) {
  if (MonotonicMs() < deadline_ms_) return false;
  manifest_.AddError(where, "left out, with all that follows: the task's " +
                                std::to_string(limits_.task_seconds) + " seconds are over");
  return true;
}

bool UnfinishedArchive::IsItself(const struct stat& status) const {
  return status.st_dev == own_.st_dev && status.st_ino == own_.st_ino;
}

std::optional<std::uint64_t> UnfinishedArchive::Allow(const std::string& where, std::uint64_t size,
                                                      std::uint64_t least) {
  writer_.KeepRoom(manifest_.TextBytes() + kLookBytes);
  const Allowance allowance = budget_.Allow(size, least);
  if (!allowance.bytes) manifest_.AddError(where, allowance.why);
  return allowance.bytes;
}

void UnfinishedArchive::Record(ManifestEntry entry, const FileEntry& taken) {
  if (!taken.left_out.empty()) return manifest_.AddError(entry.name, "left out: " + taken.left_out);
  if (taken.no_room != 0) {
    manifest_.AddError(entry.name, "cut for want of space: " + ErrorText(taken.no_room));
  }
  entry.size = taken.size;
  entry.redacted = taken.redacted;
  entry.masked_parts = taken.masked_parts;
  Count(entry);
}

void UnfinishedArchive::TakeText(ManifestEntry entry, const std::string& text, const RedactionRules* rules) {
  if (!Allow(entry.name, text.size(), text.size())) return;
  const WrittenEntry written = writer_.AddText(entry.name, text, std::time(nullptr), rules);
  if (written.no_room != 0) {
    const std::string what = written.left_out ? "left out" : "cut, with zeros at its end,";
    manifest_.AddError(entry.name, what + " for want of space: " + ErrorText(written.no_room));
  }
  if (written.left_out) return;
  entry.size = text.size();
  entry.redacted = written.redacted;
  entry.masked_parts = written.masked_parts;
  Count(entry);
}

ArchiveSummary UnfinishedArchive::Finish() {
  writer_.AddText("manifest.json", manifest_.Text(writer_.Sums()), std::time(nullptr), nullptr, true);
  ArchiveSummary summary = writer_.Close();
  progress_.Write();
  return summary;
}

std::optional<DeviceSpace> UnfinishedArchive::LookAtDevice() const {
  struct statvfs space = {};
  if (fstatvfs(archive_fd_, &space) != 0) return std::nullopt;
  DeviceSpace seen;
  seen.free = std::uint64_t{space.f_bavail} * space.f_frsize + writer_.ReservedAhead();
  seen.archive_size = writer_.size();  // first: what is written meanwhile is kept room for twice, not never
  seen.archive_end = writer_.SizeBound(manifest_.TextBytes() + kLookBytes) + kLookBytes;
  seen.file_size_limit = FileSizeLimit();
  return seen;
}

void UnfinishedArchive::Count(const ManifestEntry& entry) {
  manifest_.AddEntry(entry);
  budget_.Add(entry.size);
}

}  // namespace TARVO::SupportForm
