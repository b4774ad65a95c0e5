#include "collection.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <limits>
#include <string_view>
#include <utility>

#include "file_util.h"
#include "task_folder.h"

namespace TARVO::SupportForm {
namespace {

/// How much is added before the free space is looked at again.
constexpr std::uint64_t kLookBytes = std::uint64_t{1} << 20;
/// What an entry costs besides its content, roughly: the tar header and the manifest's line.
constexpr std::uint64_t kEntryBytes = 2048;
/// Bytes at the beginning of a file that tell whether it is text.
constexpr std::size_t kHeadBytes = 8192;

/// A text of the maker's with the secrets in it masked.
std::string Redacted(std::string text, const RedactionRules* rules) {
  static_cast<void>(Redactor(rules).Process(text.data(), text.size(), true));
  return text;
}

/// Whether the next argument is this option's secret value.
bool AnnouncesSecret(const std::string& argument, const RedactionRules* rules) {
  return argument.rfind('-', 0) == 0 && Redacted(argument + " x", rules).back() == '*';
}

std::vector<std::string> RedactedArguments(const std::vector<std::string>& argv,
                                           const RedactionRules* rules) {
  std::vector<std::string> result;
  bool secret = false;
  for (const std::string& argument : argv) {
    result.push_back(secret ? std::string(argument.size(), '*') : Redacted(argument, rules));
    secret = AnnouncesSecret(argument, rules);
  }
  return result;
}

}  // namespace

Collection::Collection(const Paths& paths, const Limits& limits, const CollectionRequest& request,
                       int folder_fd, int archive_fd)
    : paths_(paths),
      limits_(limits),
      request_(request),
      folder_fd_(folder_fd),
      archive_fd_(archive_fd),
      deadline_ms_(MonotonicMs() + std::int64_t{limits.task_seconds} * 1000),
      progress_(folder_fd, limits.progress_interval_ms),
      archive_(archive_fd, limits.zstd_level, progress_),
      manifest_(request.task_id, request.app_list, request.redact, limits.manifest_errors) {
  static_cast<void>(fstat(archive_fd, &own_));
}

CollectionSummary Collection::Run() {
  if (LoadRules()) VisitContent(paths_, limits_, request_.app_list, *this);
  return Finish();
}

CollectionSummary Collection::RunWithout(const std::string& why) {
  manifest_.AddError("archive", "nothing could be kept of what was taken: " + why);
  return Finish();
}

CollectionSummary Collection::Finish() {
  archive_.AddText("manifest.json", manifest_.Text(archive_.Sums()), std::time(nullptr), nullptr, true);
  CollectionSummary summary{archive_.Close(), manifest_.errors()};
  progress_.Write();
  return summary;
}

/// Without rules nothing can be checked, so nothing is taken.
bool Collection::LoadRules() {
  if (!request_.redact) return true;
  try {
    rules_ = std::make_unique<RedactionRules>(paths_.redaction);
    return true;
  } catch (const RedactionError& error) {
    manifest_.AddError(
        "redaction",
        std::string("nothing is taken, because it can't be checked for secrets: ") + error.what());
    return false;
  }
}

void Collection::TakeSystem(const SystemSource& source) {
  const SystemText content = source.read();
  if (!content.error.empty()) manifest_.AddError(source.name, content.error);
  if (!content.text) return;
  ManifestEntry entry;
  if (!content.note.empty()) entry.notes.push_back(content.note);
  entry.name = source.name;
  entry.source = source.origin;
  TakeText(std::move(entry), *content.text);
}

void Collection::TakeFirst(const std::vector<CommandEntry>& commands) {
  for (const CommandEntry& entry : commands) {
    if (TakeOutputOf(entry)) return;
  }
}

void Collection::BeginApplication(const std::string& app, const AppDescription& description) {
  where_ = "apps/" + app;
  manifest_.AddApplication(app, Redacted(description.description, rules_.get()));
}

void Collection::TakeCommand(const CommandEntry& command) { TakeOutputOf(command); }

void Collection::LeaveOut(const std::string& where, const std::string& why) {
  manifest_.AddError(where, why);
}

void Collection::RefuseDescription(const std::string& where, const DescriptionError& error) {
  manifest_.AddError(where, Redacted(error.what(), rules_.get()));
}

bool Collection::HasTime(const std::string& where) { return !TimeIsUp(where); }

bool Collection::TakeFile(ContentFile file) {
  // A pattern may lead to the very archive that is being written.
  if (file.status.st_dev == own_.st_dev && file.status.st_ino == own_.st_ino) return true;
  if (TimeIsUp(where_ + ": " + file.source)) return false;
  ManifestEntry entry;
  entry.name = file.name;
  entry.source = file.source;
  if (IsKernelFile(file.fd.get(), file.status)) {
    TakeKernelFile(std::move(entry), file);
  } else {
    TakeRegularFile(std::move(entry), file);
  }
  return true;
}

void Collection::TakeRegularFile(ManifestEntry entry, const ContentFile& file) {
  const int fd = file.fd.get();
  const struct stat& status = file.status;
  const std::uint64_t size = std::min(static_cast<std::uint64_t>(status.st_size), limits_.file_bytes);
  const std::optional<std::uint64_t> allowed = Allowance(entry.name, size, limits_.least_bytes);
  if (!allowed) return;
  FileEntry taken =
      AddFile(archive_, entry.name, fd, status, *allowed, {rules_.get(), file.binary_allowed, true});
  if (taken.packing != Packing::kNone) {
    std::optional<FileEntry> unpacked = TakePackedFile(entry.name, fd, status, taken.packing);
    if (!unpacked) return;
    taken = std::move(*unpacked);
  }
  if (!taken.left_out.empty()) return manifest_.AddError(entry.name, "left out: " + taken.left_out);
  if (taken.no_room != 0)
    manifest_.AddError(entry.name, "cut for want of space: " + ErrorText(taken.no_room));
  entry.modified = status.st_mtime;
  entry.size = taken.size;
  entry.redacted = taken.redacted;
  entry.masked_parts = taken.masked_parts;
  entry.notes.insert(entry.notes.end(), taken.notes.begin(), taken.notes.end());
  Record(entry);
}

/// Unpacks a compressed file into the archive. Returns nothing where there is no room for what it unpacks to; the
/// manifest says so then.
std::optional<FileEntry> Collection::TakePackedFile(const std::string& name, int fd,
                                                    const struct stat& status, Packing packing) {
  const std::uint64_t left = limits_.unpacked_archive_bytes - unpacked_;
  const UnpackLimits unpack = {limits_.file_bytes, std::min(left, limits_.unpacked_file_bytes), deadline_ms_};
  const PackedFile packed = MeasurePacked(fd, status, packing, unpack);
  unpacked_ += std::min(packed.cost, left);
  if (!packed.left_out.empty()) {
    FileEntry none;
    none.left_out = packed.left_out;
    return none;
  }
  const std::uint64_t size = std::min(packed.size, limits_.file_bytes);
  const std::optional<std::uint64_t> allowed = Allowance(name, size, limits_.least_bytes);
  if (!allowed) return std::nullopt;
  return AddUnpacked(archive_, name, fd, status, packed, *allowed, rules_.get(), unpack);
}

/// A file of the kernel's tells its size only by being read.
void Collection::TakeKernelFile(ManifestEntry entry, const ContentFile& file) {
  std::string text;
  bool more = false;
  if (!ReadUpTo(file.fd.get(), limits_.kernel_file_bytes, text, more)) {
    entry.notes.push_back("could not be read to its end: " + ErrorText(errno));
  }
  if (more) entry.notes.push_back("cut at " + std::to_string(text.size()) + " bytes");
  if (rules_ && !file.binary_allowed && !LooksLikeText(std::string_view(text).substr(0, kHeadBytes))) {
    return manifest_.AddError(entry.name, "left out: not text, so it can't be checked for secrets");
  }
  TakeText(std::move(entry), text);
}

/// Runs a command and takes its output. Returns whether there was any.
bool Collection::TakeOutputOf(const CommandEntry& entry) {
  const std::string& name = entry.name;
  const CommandDescription& command = entry.command;
  if (TimeIsUp(name)) return false;
  const std::uint64_t wanted = command.output_limit_bytes;
  const std::optional<std::uint64_t> allowed = Allowance(name, wanted, limits_.least_bytes);
  if (!allowed) return false;
  CommandRequest request;
  request.argv = command.argv;
  request.programs = paths_.programs;
  request.time_limit_ms = std::min<std::int64_t>(std::int64_t{command.time_limit_seconds} * 1000,
                                                 std::max<std::int64_t>(deadline_ms_ - MonotonicMs(), 0));
  // The spool may take twice the limit, and the archive once more.
  request.output_limit = std::min({*allowed, Room(3 * wanted) / 3, FileSizeLimit() / 3});
  request.output = entry.output;
  progress_.Write();  // Nothing is counted while the command runs.
  const UniqueFd spool = OpenSpool(name);
  if (!spool.valid()) return false;
  const CommandResult result = RunCommand(request, spool.get());
  return TakeOutput(name, request, result, spool.get());
}

bool Collection::TakeOutput(const std::string& name, const CommandRequest& request,
                            const CommandResult& result, int spool_fd) {
  struct stat status = {};
  const bool empty = fstat(spool_fd, &status) != 0 || status.st_size == 0;
  if (result.end == CommandResult::End::kNotStored) {
    manifest_.AddError(name, "left out: " + result.Text());
    return true;
  }
  if (result.end == CommandResult::End::kNotStarted || (empty && request.output == Output::kEndNoErrors)) {
    manifest_.AddError(name,
                       Redacted(request.argv.front(), rules_.get()) + " gave no output: " + result.Text());
    return false;
  }
  FileEntry taken =
      AddFile(archive_, name, spool_fd, status, request.output_limit, {rules_.get(), false, false});
  if (!taken.left_out.empty()) {
    manifest_.AddError(name, "left out: " + taken.left_out);
    return true;
  }
  ManifestEntry entry;
  if (taken.no_room != 0) {
    manifest_.AddError(name, "cut for want of space: " + ErrorText(taken.no_room));
    entry.notes.push_back(taken.notes.back());
  }
  entry.name = name;
  entry.argv = RedactedArguments(request.argv, rules_.get());
  entry.result = result.Text();
  if (result.end == CommandResult::End::kExited) entry.exit_status = result.code;
  entry.size = taken.size;
  entry.redacted = taken.redacted;
  entry.masked_parts = taken.masked_parts;
  // The spool's length says nothing about the output's.
  if (result.begin_lost || taken.size < static_cast<std::uint64_t>(status.st_size)) {
    entry.notes.push_back("longer than the limit: its last " + std::to_string(taken.size) + " bytes");
  }
  Record(entry);
  return true;
}

/// A file without a name in the task folder, which goes with its descriptor. Invalid where there is no room for
/// one; the manifest says so then.
UniqueFd Collection::OpenSpool(const std::string& where) {
  UniqueFd fd(openat(folder_fd_, kSpoolFile, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd.valid() || unlinkat(folder_fd_, kSpoolFile, 0) != 0) {
    manifest_.AddError(where, "left out: there is no room for its output: " + ErrorText(errno));
    fd.Close();
  }
  return fd;
}

void Collection::TakeText(ManifestEntry entry, const std::string& text) {
  if (!Allowance(entry.name, text.size(), text.size())) return;
  const WrittenEntry written = archive_.AddText(entry.name, text, std::time(nullptr), rules_.get());
  if (written.no_room != 0) {
    const std::string what = written.left_out ? "left out" : "cut, with zeros at its end,";
    manifest_.AddError(entry.name, what + " for want of space: " + ErrorText(written.no_room));
  }
  if (written.left_out) return;
  entry.size = text.size();
  entry.redacted = written.redacted;
  entry.masked_parts = written.masked_parts;
  Record(entry);
}

/// How many bytes of one more entry may be taken.
/// @param where  The entry's name.
/// @param size   Its bytes.
/// @param least  Where fewer than these, and fewer than all, may be taken, nothing is, and the manifest says why.
std::optional<std::uint64_t> Collection::Allowance(const std::string& where, std::uint64_t size,
                                                   std::uint64_t least) {
  archive_.KeepRoom(manifest_.TextBytes() + kLookBytes);
  const std::uint64_t left = limits_.archive_bytes - manifest_.bytes();
  const std::uint64_t room = Room(size);
  if (manifest_.entries() >= limits_.archive_entries) {
    manifest_.AddError(where,
                       "left out: the archive has " + std::to_string(limits_.archive_entries) + " entries");
  } else if (left < std::min(size, least)) {
    manifest_.AddError(where, "left out: with its " + std::to_string(size) +
                                  " bytes the archive would pass " + std::to_string(limits_.archive_bytes));
  } else if (limit_is_less_ && (room < std::min(size, least) || room == 0)) {
    manifest_.AddError(where, "left out for want of space: the collection may write no file of more than " +
                                  std::to_string(FileSizeLimit()) + " bytes");
  } else if (room < std::min(size, least) || room == 0) {
    manifest_.AddError(where, "left out for want of space: " + std::to_string(free_) +
                                  " bytes are free on the device, and " + std::to_string(limits_.free_bytes) +
                                  " must remain");
  } else {
    return std::min({size, left, room});
  }
  return std::nullopt;
}

/// Bytes of content for which the archive's file system has space, whatever they compress to, without what must remain
/// free and what the manifest may need. Only where `wanted` bytes don't fit is the answer as of now.
std::uint64_t Collection::Room(std::uint64_t wanted) {
  if (wanted <= room_ && since_look_ < kLookBytes) return room_;
  since_look_ = 0;
  struct statvfs space = {};
  if (fstatvfs(archive_fd_, &space) != 0) return room_ = std::numeric_limits<std::uint64_t>::max() / 4;
  free_ = std::uint64_t{space.f_bavail} * space.f_frsize + archive_.ReservedAhead();
  const std::uint64_t size = archive_.size();  // before what is still to be added to it
  const std::uint64_t end = archive_.SizeBound(manifest_.TextBytes() + kLookBytes) + kLookBytes;
  const std::uint64_t taken = limits_.free_bytes + end - size;
  room_ = free_ > taken ? free_ - taken : 0;
  const std::uint64_t under_limit = FileSizeLimit() > end ? FileSizeLimit() - end : 0;
  limit_is_less_ = under_limit < room_;
  room_ = std::min(room_, under_limit);
  room_ -= room_ / 64;  // more than zstd adds to what it can't compress
  return room_;
}

bool Collection::TimeIsUp(const std::string& where) {
  if (MonotonicMs() < deadline_ms_) return false;
  manifest_.AddError(where, "left out, with all that follows: the task's " +
                                std::to_string(limits_.task_seconds) + " seconds are over");
  return true;
}

bool Collection::IsKernelFile(int fd, const struct stat& status) {
  if (status.st_dev != device_) {
    device_ = status.st_dev;
    device_is_kernels_ = IsKernelFileSystem(fd);
  }
  return device_is_kernels_;
}

void Collection::Record(const ManifestEntry& entry) {
  manifest_.AddEntry(entry);
  const std::uint64_t cost = entry.size + kEntryBytes;
  room_ -= std::min(room_, cost);
  since_look_ += cost;
}

CollectionSummary MakeArchive(const Paths& paths, const Limits& limits, int folder_fd,
                              const CollectionRequest& request) {
  UniqueFd fd(openat(folder_fd, kUnfinishedFile, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd.valid()) throw ArchiveFailed("the archive can't be created: " + ErrorText(errno));
  const auto run = [&] {
    try {
      return Collection(paths, limits, request, folder_fd, fd.get()).Run();
    } catch (const ArchiveFailed& failure) {
      // What is written goes, and the manifest may find room in its place.
      if (ftruncate(fd.get(), 0) != 0 || lseek(fd.get(), 0, SEEK_SET) != 0) throw;
      return Collection(paths, limits, request, folder_fd, fd.get()).RunWithout(failure.what());
    }
  };
  try {
    CollectionSummary summary = run();
    // A file system may tell only at the end that it had no room.
    if (close(fd.Release()) != 0 || renameat(folder_fd, kUnfinishedFile, folder_fd, kArchiveFile) != 0) {
      throw ArchiveFailed("the archive can't be completed: " + ErrorText(errno));
    }
    return summary;
  } catch (...) {
    unlinkat(folder_fd, kUnfinishedFile, 0);
    throw;
  }
}

}  // namespace TARVO::SupportForm
