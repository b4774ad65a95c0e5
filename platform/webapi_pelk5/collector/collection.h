#pragma once

#include <json/value.h>

#include <cstdint>
#include <set>
#include <string>

#include "app_description.h"
#include "archive_writer.h"
#include "collection_limits.h"
#include "command.h"
#include "file_visit.h"
#include "manifest.h"
#include "progress.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {

/// Makes the content of one archive. Runs in the task process.
///
/// What can't be taken is a line in the manifest; only a failure to write the archive ends the collection.
class Collection final : private FileVisitor {
 public:
  /// @param folder_fd   The task folder, for the progress file and the spool; borrowed.
  /// @param archive_fd  Where the archive goes; borrowed.
  Collection(const Paths& paths, const Limits& limits, int folder_fd, int archive_fd,
             const std::string& task_id, const Json::Value& app_list);

  /// Writes the whole archive.
  /// @throws ArchiveFailed, or another std::exception, when it can't be made.
  void Run();

 private:
  void TakeSystem();
  void TakeSystemFile(const std::string& name, const std::string& path);
  void TakeSystemText(const std::string& name, const std::string& source, const std::string& text);
  void TakeSystemLog();
  bool TakeSystemCommand(const std::string& name, const CommandDescription& command);

  void TakeApplication(const Json::Value& asked);
  void TakeAppCommand(std::size_t number, const CommandDescription& command);
  bool TakeFile(const std::string& path, UniqueFd fd, const struct stat& status) override;
  bool LeaveOut(const std::string& path, const std::string& why) override;
  void TakeRegularFile(Json::Value entry, int fd, const struct stat& status);
  void TakeKernelFile(Json::Value entry, int fd);

  CommandResult Run(const CommandDescription& command, bool with_errors, int spool_fd);
  UniqueFd OpenSpool() const;
  void TakeSpool(Json::Value entry, int spool_fd);
  void TakeText(Json::Value entry, const std::string& text);
  bool HasRoom(const std::string& where, std::uint64_t bytes);
  bool TimeIsUp(const std::string& where);
  bool IsOwnArchive(const struct stat& status) const;
  void Record(Json::Value entry, std::uint64_t size, const std::string& sha256);

  const Paths& paths_;
  const Limits& limits_;
  int folder_fd_;
  int archive_fd_;
  Json::Value app_list_;
  std::int64_t deadline_ms_;  ///< When the task's time is up, monotonic.
  Progress progress_;
  ArchiveWriter archive_;
  Manifest manifest_;
  std::set<std::string> apps_;   ///< Applications collected so far.
  std::string app_;              ///< The application being collected.
  std::set<std::string> names_;  ///< Names of the entries so far.
  std::set<std::string> seen_;   ///< Files of the application met so far: its patterns may overlap.
};

/// Makes the archive of a task: writes it under a temporary name and gives it its own when it is complete.
/// @param folder_fd  The task folder; borrowed.
/// @throws std::exception when it can't be made; nothing of it is left then.
void MakeArchive(const Paths& paths, const Limits& limits, int folder_fd, const std::string& task_id,
                 const Json::Value& app_list);

/// `path` as it stands in archive and manifest: as it is where it is plain UTF-8 text; otherwise with each
/// byte that is not, each control character, quote, backslash and percent sign as %XX.
[[nodiscard]] std::string PrintablePath(const std::string& path);

}  // namespace TARVO::SupportForm
