#include "collection.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>
#include <vector>

#include "command_taker.h"
#include "content_visit.h"
#include "file_taker.h"
#include "file_util.h"
#include "redaction_rules.h"
#include "redactor.h"
#include "task_folder.h"
#include "unfinished_archive.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {
namespace {

/// Takes what the visit gives it.
class Collection final : public ContentVisitor {
 public:
  /// @param rules  Null where redaction is off.
  Collection(const Paths& paths, const Limits& limits, const RedactionRules* rules, int folder_fd,
             UnfinishedArchive& archive)
      : rules_(rules),
        archive_(archive),
        files_(limits, rules, archive),
        commands_(paths, limits, rules, folder_fd, archive) {}

  void TakeSystem(const SystemSource& source) override {
    const SystemText content = source.read();
    if (!content.error.empty()) archive_.manifest().AddError(source.name, content.error);
    if (!content.text) return;
    ManifestEntry entry;
    if (!content.note.empty()) entry.notes.push_back(content.note);
    entry.name = source.name;
    entry.source = source.origin;
    archive_.TakeText(std::move(entry), *content.text, rules_);
  }

  void TakeFirst(const std::vector<CommandEntry>& commands) override {
    for (const CommandEntry& entry : commands) {
      if (commands_.Take(entry)) return;
    }
  }

  void BeginApplication(const std::string& app, const AppDescription& description) override {
    where_ = "apps/" + app;
    archive_.manifest().AddApplication(app, Redacted(description.description, rules_));
  }

  bool TakeFile(ContentFile file) override {
    // A pattern may lead to the very archive that is being written.
    if (archive_.IsItself(file.status)) return true;
    if (archive_.TimeIsUp(where_ + ": " + file.source)) return false;
    files_.Take(file);
    return true;
  }

  void TakeCommand(const CommandEntry& command) override { commands_.Take(command); }

  void LeaveOut(const std::string& where, const std::string& why) override {
    archive_.manifest().AddError(where, why);
  }

  void RefuseDescription(const std::string& where, const DescriptionError& error) override {
    archive_.manifest().AddError(where, Redacted(error.what(), rules_));
  }

  bool HasTime(const std::string& where) override { return !archive_.TimeIsUp(where); }

 private:
  const RedactionRules* rules_;
  UnfinishedArchive& archive_;
  FileTaker files_;
  CommandTaker commands_;
  std::string where_;  ///< The application being collected: "apps/NAME".
};

/// Where one archive is made, and of what.
struct Job {
  const Paths& paths;
  const Limits& limits;
  const CollectionRequest& request;
  int folder_fd;
  int archive_fd;
};

UnfinishedArchive Begin(const Job& job) {
  const CollectionRequest& request = job.request;
  return {job.limits, Manifest(request.task_id, request.app_list, request.redact, job.limits.manifest_errors),
          job.folder_fd, job.archive_fd};
}

CollectionSummary Finish(UnfinishedArchive& archive) {
  const ArchiveSummary summary = archive.Finish();
  return {summary, archive.manifest().errors()};
}

/// An archive of all that is asked for.
CollectionSummary Collect(const Job& job) {
  UnfinishedArchive archive = Begin(job);
  std::unique_ptr<const RedactionRules> rules;
  try {
    if (job.request.redact) rules = std::make_unique<RedactionRules>(job.paths.redaction);
  } catch (const RedactionError& error) {
    archive.manifest().AddError(
        "redaction",
        std::string("nothing is taken, because it can't be checked for secrets: ") + error.what());
    return Finish(archive);
  }
  Collection collection(job.paths, job.limits, rules.get(), job.folder_fd, archive);
  VisitContent(job.paths, job.limits, job.request.app_list, collection);
  return Finish(archive);
}

/// An archive of the manifest alone, which tells why there is nothing else.
CollectionSummary CollectNothing(const Job& job, const std::string& why) {
  UnfinishedArchive archive = Begin(job);
  archive.manifest().AddError("archive", "nothing could be kept of what was taken: " + why);
  return Finish(archive);
}

CollectionSummary CollectOrSayWhyNot(const Job& job) {
  try {
    return Collect(job);
  } catch (const ArchiveFailed& failure) {
    // What is written goes, and the manifest may find room in its place.
    if (ftruncate(job.archive_fd, 0) != 0 || lseek(job.archive_fd, 0, SEEK_SET) != 0) throw;
    return CollectNothing(job, failure.what());
  }
}

}  // namespace

CollectionSummary MakeArchive(const Paths& paths, const Limits& limits, int folder_fd,
                              const CollectionRequest& request) {
  UniqueFd fd(openat(folder_fd, kUnfinishedFile, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd.valid()) throw ArchiveFailed("the archive can't be created: " + ErrorText(errno));
  try {
    CollectionSummary summary = CollectOrSayWhyNot({paths, limits, request, folder_fd, fd.get()});
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
