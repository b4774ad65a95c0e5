#include "restore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>

#include "archive_store.h"
#include "backup_file.h"
#include "private_files.h"
#include "sqlite_store.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;

/// The folder that is restored to, and the one in it where things lie until all of them are there.
class RestoreFolder {
 public:
  explicit RestoreFolder(fs::path folder) : folder_(std::move(folder)), unfinished_(folder_ / kRestoring) {
    is_new_ = !fs::exists(folder_);
    if (!is_new_) RequireEmptyButForLock();
    if (is_new_) fs::create_directories(FolderOf(folder_));
    MakePrivateFolder(folder_);
    // A service that has taken the folder meanwhile goes on. One that comes later does not begin.
    lock_fd_ = LockDataFolder(folder_);
    try {
      RequireEmptyButForLock();
      MakePrivateFolder(unfinished_);
    } catch (...) {
      close(lock_fd_);
      throw;
    }
  }
  ~RestoreFolder() {
    if (!is_finished_) Clear();
    close(lock_fd_);
  }
  RestoreFolder(const RestoreFolder&) = delete;
  RestoreFolder& operator=(const RestoreFolder&) = delete;

  [[nodiscard]] const fs::path& unfinished() const { return unfinished_; }

  /// Gives everything its place. The store comes last, and `unfinished` goes when it is there.
  void Finish() {
    struct stat owner {};
    if (stat(folder_.c_str(), &owner) == -1) ThrowErrno("cannot look at " + folder_.string());
    std::set<fs::path> names;
    for (const auto& entry : fs::recursive_directory_iterator(unfinished_)) {
      if (lchown(entry.path().c_str(), owner.st_uid, owner.st_gid) == -1 && geteuid() == 0) {
        ThrowErrno("cannot give " + entry.path().string() + " to the folder's owner");
      }
      if (entry.is_directory()) SyncFolder(entry.path());
      if (entry.path().parent_path() == unfinished_) names.insert(entry.path().filename());
    }
    if (fchown(lock_fd_, owner.st_uid, owner.st_gid) == -1 && geteuid() == 0) {
      ThrowErrno("cannot give " + (folder_ / kLock).string() + " to the folder's owner");
    }
    if (chmod(folder_.c_str(), 0700) == -1) ThrowErrno("cannot close " + folder_.string() + " to others");
    names.erase(kBackupStore);
    is_finished_ = true;  // from here on a service that begins sees that this did not come to its end
    try {
      for (const fs::path& name : names) fs::rename(unfinished_ / name, folder_ / name);
      fs::rename(unfinished_ / kBackupStore, folder_ / kBackupStore);
      SyncFolder(folder_);
      fs::remove(unfinished_);
      SyncFolder(folder_);
      SyncFolder(FolderOf(folder_));
    } catch (const std::exception& fault) {
      throw std::runtime_error(std::string(fault.what()) + ". Empty the folder " + folder_.string() +
                               ", and restore the backup again");
    }
  }

 private:
  void RequireEmptyButForLock() const {
    for (const auto& entry : fs::directory_iterator(folder_)) {
      if (entry.path().filename() != kLock) RefuseFull();
    }
  }
  void Clear() const {
    std::error_code none;
    fs::remove_all(unfinished_, none);
    fs::remove(folder_ / kLock, none);
    if (is_new_) fs::remove(folder_, none);
  }
  [[noreturn]] void RefuseFull() const {
    throw std::runtime_error(folder_.string() +
                             " is not empty: a backup is restored to an empty folder. Stop the service, and "
                             "move away what is there");
  }

  const fs::path folder_;
  const fs::path unfinished_;
  bool is_new_ = false;
  int lock_fd_ = -1;  ///< Held to the end.
  bool is_finished_ = false;
};

/// Writes the members to files of mode 0600.
class MemberFiles {
 public:
  explicit MemberFiles(fs::path folder) : folder_(std::move(folder)) {}
  ~MemberFiles() {
    if (fd_ != -1) close(fd_);
  }
  MemberFiles(const MemberFiles&) = delete;
  MemberFiles& operator=(const MemberFiles&) = delete;

  void Begin(const std::string& name) {
    End();
    if (name == kBackupForm || name == kBackupFacts || name == kBackupSums) return;
    path_ = folder_ / name;
    MakePrivateFolder(FolderOf(path_));
    fd_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd_ == -1) ThrowErrno("cannot make " + path_.string());
  }
  void Add(std::string_view piece) const {
    if (fd_ != -1) WriteAll(fd_, piece, path_);
  }
  void End() {
    if (fd_ == -1) return;
    const bool is_synced = fsync(fd_) == 0;
    const int error = errno;
    close(std::exchange(fd_, -1));
    errno = error;
    if (!is_synced) ThrowErrno("cannot sync " + path_.string());
  }

 private:
  const fs::path folder_;
  fs::path path_;
  int fd_ = -1;  ///< Of the member that is being written; -1 between two, and for one that is not kept.
};

std::string Counted(std::uint64_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

/// For people.
std::string ReportOf(const fs::path& folder, const BackupFacts& facts, const StoreContents& contents) {
  std::string report = "restored to " + folder.string() + ": " + Counted(contents.tickets, "ticket") + ", " +
                       Counted(contents.devices, "device") + ", " + Counted(contents.users, "account") +
                       ", " + Counted(facts.archives, "archive") + "\n";
  report += "made at " + facts.created + " by version " + facts.service_version + "\n";
  if (facts.sums.count("authority/ca.key") == 0) report += "it has no authority of the service's own\n";
  for (const std::string& name : facts.missing) report += "missing archive " + name + "\n";
  if (!facts.with_archives && !contents.archives.empty()) {
    report += "it was made without archives: the store knows of " +
              Counted(contents.archives.size(), "archive") + " that are not there\n";
  }
  return report;
}

StoreContents ExamineStore(const fs::path& backup, const fs::path& store) {
  try {
    return SqliteStore::Examine(store, [] { return true; });
  } catch (const StoreError& fault) {
    throw BackupError("the store in " + backup.string() + " can't be used: " + fault.what());
  }
}

}  // namespace

std::string RestoreBackup(const fs::path& backup, const fs::path& data_folder) {
  // The folder may be a link, as that of a unit whose user has no fixed number.
  RestoreFolder folder(fs::weakly_canonical(data_folder));
  MemberFiles files(folder.unfinished());
  const BackupFacts facts = ReadBackup(backup, {[&files](const std::string& name) { files.Begin(name); },
                                                [&files](std::string_view piece) { files.Add(piece); }});
  files.End();
  const StoreContents contents = ExamineStore(backup, folder.unfinished() / kBackupStore);
  folder.Finish();
  return ReportOf(data_folder, facts, contents);
}

}  // namespace TarvoOrvane::SupportService
