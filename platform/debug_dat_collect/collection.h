#pragma once

#include <json/value.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "archive_writer.h"
#include "collection_limits.h"
#include "command.h"
#include "content_visit.h"
#include "file_entry.h"
#include "manifest.h"
#include "progress.h"
#include "redaction_rules.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {

/// What is asked of a collection.
struct CollectionRequest {
  std::string task_id;
  Json::Value app_list;  ///< The applications' names; what is wrong with them becomes lines in the manifest.
  /// Whether secrets are masked and what can't be checked is left out. Always so for what a ticket asks for.
  bool redact = true;
};

/// What a collection came to.
struct CollectionSummary {
  ArchiveSummary archive;
  std::uint64_t errors = 0;  ///< Lines under "errors" in the manifest: what was left out or went wrong.
};

/// Makes the content of one archive. Runs in the collector.
///
/// What can't be taken is a line in the manifest; only a failure to write the archive ends the collection.
class Collection final : private ContentVisitor {
 public:
  /// @param request     Borrowed.
  /// @param folder_fd   The task folder, for the progress file and the spool; borrowed.
  /// @param archive_fd  Where the archive goes; borrowed.
  Collection(const Paths& paths, const Limits& limits, const CollectionRequest& request, int folder_fd,
             int archive_fd);

  /// Writes the whole archive.
  /// @throws ArchiveFailed, or another std::exception, when it can't be made.
  CollectionSummary Run();
  /// Writes an archive of the manifest alone, which tells why there is nothing else.
  CollectionSummary RunWithout(const std::string& why);

 private:
  bool LoadRules();
  void TakeSystem(const SystemSource& source) override;
  void TakeFirst(const std::vector<CommandEntry>& commands) override;
  void BeginApplication(const std::string& app, const AppDescription& description) override;
  bool TakeFile(ContentFile file) override;
  void TakeCommand(const CommandEntry& command) override;
  void LeaveOut(const std::string& where, const std::string& why) override;
  void RefuseDescription(const std::string& where, const DescriptionError& error) override;
  bool HasTime(const std::string& where) override;

  void TakeRegularFile(ManifestEntry entry, const ContentFile& file);
  std::optional<FileEntry> TakePackedFile(const std::string& name, int fd, const struct stat& status,
                                          Packing packing);
  void TakeKernelFile(ManifestEntry entry, const ContentFile& file);

  bool TakeOutputOf(const CommandEntry& entry);
  bool TakeOutput(const std::string& name, const CommandRequest& request, const CommandResult& result,
                  int spool_fd);
  [[nodiscard]] UniqueFd OpenSpool(const std::string& where);
  void TakeText(ManifestEntry entry, const std::string& text);

  std::optional<std::uint64_t> Allowance(const std::string& where, std::uint64_t size, std::uint64_t least);
  std::uint64_t Room(std::uint64_t wanted);
  CollectionSummary Finish();
  bool TimeIsUp(const std::string& where);
  bool IsKernelFile(int fd, const struct stat& status);
  void Record(const ManifestEntry& entry);

  const Paths& paths_;
  const Limits& limits_;
  const CollectionRequest& request_;
  int folder_fd_;
  int archive_fd_;
  struct stat own_ = {};                         ///< The archive's file.
  std::int64_t deadline_ms_;                     ///< When the task's time is up, monotonic.
  std::unique_ptr<const RedactionRules> rules_;  ///< Null where redaction is off.
  Progress progress_;
  ArchiveWriter archive_;
  Manifest manifest_;
  std::string where_;               ///< The application being collected: "apps/NAME".
  std::uint64_t room_ = 0;          ///< Bytes of content for which there is space, as far as is known.
  std::uint64_t free_ = 0;          ///< Bytes that were free when the space was looked at.
  bool limit_is_less_ = false;      ///< There is room, but not under the process's file-size limit.
  std::uint64_t since_look_ = 0;    ///< Bytes added since the space was looked at.
  std::uint64_t unpacked_ = 0;      ///< Bytes that compressed files have cost.
  dev_t device_ = 0;                ///< The last file's device, and
  bool device_is_kernels_ = false;  ///< whether its files are made by the kernel as they are read.
};

/// Makes an archive in a folder: writes it under a temporary name and gives it its own, kArchiveFile, when it is
/// complete. The file is its owner's alone, mode 0600.
/// @param folder_fd  The task folder; borrowed.
/// @throws std::exception when it can't be made; nothing of it is left then.
CollectionSummary MakeArchive(const Paths& paths, const Limits& limits, int folder_fd,
                              const CollectionRequest& request);

}  // namespace TARVO::SupportForm
