#include "archive_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <set>
#include <stdexcept>
#include <system_error>

#include "private_files.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;

/// A folder that somebody made empty, or that a service has used, is closed to others; any other one
/// that is open to them is left alone, since it may be a shared place such as /tmp.
void TakeDataFolder(const fs::path& folder) {
  const fs::path parent = FolderOf(folder);
  fs::create_directories(parent);
  const bool is_new = !fs::exists(folder);
  MakePrivateFolder(folder);
  if (is_new) SyncFolder(parent);
  struct stat status {};
  if (stat(folder.c_str(), &status) == -1) ThrowErrno("cannot look at " + folder.string());
  if (!S_ISDIR(status.st_mode)) throw std::runtime_error(folder.string() + " is not a folder");
  if (status.st_uid != geteuid()) {
    throw std::runtime_error("the data folder " + folder.string() + " belongs to another user");
  }
  if ((status.st_mode & 0077) == 0) return;
  if (!fs::is_empty(folder) && !fs::exists(folder / kLock)) {
    throw std::runtime_error("the data folder " + folder.string() +
                             " is open to other users: name a new or empty folder, or close it with "
                             "chmod 700");
  }
  if (chmod(folder.c_str(), 0700) == -1) ThrowErrno("cannot close " + folder.string() + " to others");
}

/// What a restore has left unfinished is no data folder: a service would begin anew with what is there.
void RequireRestored(const fs::path& folder) {
  if (!fs::exists(folder / kRestoring)) return;
  throw std::runtime_error("a backup was not restored to its end in " + folder.string() +
                           ": empty the folder, and restore it again");
}

std::string NameOf(const std::string& ticket_id, std::uint64_t version) {
  return ticket_id + "-" + std::to_string(version) + ".dat";
}

/// A restore that fails removes its lock.
bool IsFileOf(int fd, const fs::path& path) {
  struct stat opened {};
  struct stat named {};
  return fstat(fd, &opened) == 0 && lstat(path.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

}  // namespace

int LockDataFolder(const fs::path& folder) {
  // O_NOFOLLOW: a link there would have been put by somebody else.
  const fs::path path = folder / kLock;
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd == -1) ThrowErrno("cannot open " + path.string());
  if (flock(fd, LOCK_EX | LOCK_NB) == 0 && IsFileOf(fd, path)) return fd;
  close(fd);
  throw std::runtime_error(
      "another support service uses the data folder " + folder.string() +
      ", or a backup is being restored to it: stop the service, wait for the restore, or "
      "choose another folder with --data");
}

IncomingArchive::IncomingArchive(const fs::path& folder) {
  std::string name = (folder / "XXXXXX").string();  // mkostemp() makes it 0600
  fd_ = mkostemp(name.data(), O_CLOEXEC);
  if (fd_ == -1) ThrowErrno("cannot make a file in " + folder.string());
  path_ = name;
}

IncomingArchive::~IncomingArchive() {
  close(fd_);
  if (!path_.empty()) unlink(path_.c_str());
}

void IncomingArchive::Write(std::string_view data) {
  WriteAll(fd_, data, path_);
  digest_.Add(data);
  size_bytes_ += data.size();
}

void IncomingArchive::Finish() {
  if (fsync(fd_) == -1) ThrowErrno("cannot sync " + path_.string());
  sha256_ = digest_.Hex();
}

ArchiveStore::ArchiveStore(const fs::path& data_folder) : folder_(data_folder) {
  TakeDataFolder(folder_);
  lock_fd_ = LockDataFolder(folder_);
  try {
    RequireRestored(folder_);
    MakePrivateFolder(folder_ / "incoming");
    MakePrivateFolder(folder_ / "archives");
    // The lock is ours, so nobody is still writing these.
    for (const auto& leftover : fs::directory_iterator(folder_ / "incoming")) fs::remove(leftover);
  } catch (...) {
    close(lock_fd_);
    throw;
  }
}

ArchiveStore::~ArchiveStore() { close(lock_fd_); }

std::unique_ptr<IncomingArchive> ArchiveStore::Begin() const {
  return std::make_unique<IncomingArchive>(folder_ / "incoming");
}

std::uint64_t ArchiveStore::Publish(IncomingArchive& archive, const std::string& ticket_id,
                                    std::uint64_t after) const {
  std::uint64_t version = after + 1;
  // Takes the place of no other file: two uploads of one ticket may come to this at once.
  while (link(archive.path_.c_str(), PathOf(ticket_id, version).c_str()) == -1) {
    if (errno != EEXIST) ThrowErrno("cannot name " + PathOf(ticket_id, version).string());
    ++version;
  }
  try {
    SyncFolder(folder_ / "archives");
  } catch (const std::system_error&) {
    unlink(PathOf(ticket_id, version).c_str());
    throw;
  }
  unlink(archive.path_.c_str());
  archive.path_.clear();  // it is no leftover any more
  return version;
}

fs::path ArchiveStore::PathOf(const std::string& ticket_id, std::uint64_t version) const {
  return folder_ / "archives" / NameOf(ticket_id, version);
}

void ArchiveStore::KeepOne(const std::string& ticket_id, std::uint64_t former, std::uint64_t repeated) const {
  if (fs::exists(PathOf(ticket_id, former))) return Remove(ticket_id, repeated);
  fs::rename(PathOf(ticket_id, repeated), PathOf(ticket_id, former));
  SyncFolder(folder_ / "archives");
}

void ArchiveStore::Remove(const std::string& ticket_id, std::uint64_t version) const {
  fs::remove(PathOf(ticket_id, version));
}

void ArchiveStore::Reconcile(const Store& store, const EventSink& events) const {
  std::set<std::string> unknown;
  for (const auto& file : fs::directory_iterator(folder_ / "archives")) {
    unknown.insert(file.path().filename().string());
  }
  for (const ArchiveName& archive : store.Archives()) {
    const bool is_there = unknown.erase(NameOf(archive.ticket_id, archive.version)) == 1;
    if (archive.deleted && is_there) Remove(archive.ticket_id, archive.version);
    if (archive.deleted || is_there) continue;
    events("ticket " + archive.ticket_id +
           ": its archive is missing: " + PathOf(archive.ticket_id, archive.version).string());
  }
  if (unknown.empty()) return;
  MakePrivateFolder(folder_ / "unknown");
  for (const std::string& name : unknown) {
    fs::rename(folder_ / "archives" / name, folder_ / "unknown" / name);
    events("archive " + Printable(name) + " put aside into " + (folder_ / "unknown").string() +
           ": the store does not know it. Its upload was not acknowledged, unless the store is an older one");
  }
}

}  // namespace TarvoOrvane::SupportService
