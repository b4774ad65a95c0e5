#include "archive_store.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void ThrowErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void MakePrivateFolder(const fs::path& folder) {
  if (mkdir(folder.c_str(), 0700) == -1 && errno != EEXIST) ThrowErrno("cannot make " + folder.string());
}

/// Brings a folder's names to disk: a file that is synced may lose its name by a power cut.
void SyncFolder(const fs::path& folder) {
  const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool synced = fd != -1 && fsync(fd) == 0;
  const int error = errno;
  if (fd != -1) close(fd);
  errno = error;
  if (!synced) ThrowErrno("cannot sync " + folder.string());
}

void WriteAll(int fd, std::string_view data, const fs::path& path) {
  while (!data.empty()) {
    const ssize_t count = write(fd, data.data(), data.size());
    if (count == -1 && errno == EINTR) continue;
    if (count == -1) ThrowErrno("cannot write " + path.string());
    data.remove_prefix(static_cast<std::size_t>(count));
  }
}

/// A folder that somebody made empty, or that a service has used, is closed to others; any other one
/// that is open to them is left alone, since it may be a shared place such as /tmp.
void TakeDataFolder(const fs::path& folder) {
  if (folder.has_parent_path()) fs::create_directories(folder.parent_path());
  MakePrivateFolder(folder);
  struct stat status {};
  if (stat(folder.c_str(), &status) == -1) ThrowErrno("cannot look at " + folder.string());
  if (!S_ISDIR(status.st_mode)) throw std::runtime_error(folder.string() + " is not a folder");
  if (status.st_uid != geteuid()) {
    throw std::runtime_error("the data folder " + folder.string() + " belongs to another user");
  }
  if ((status.st_mode & 0077) == 0) return;
  if (!fs::is_empty(folder) && !fs::exists(folder / "lock")) {
    throw std::runtime_error("the data folder " + folder.string() +
                             " is open to other users: name a new or empty folder, or close it with "
                             "chmod 700");
  }
  if (chmod(folder.c_str(), 0700) == -1) ThrowErrno("cannot close " + folder.string() + " to others");
}

int LockFolder(const fs::path& folder) {
  // O_NOFOLLOW: a link there would have been put by somebody else.
  const fs::path path = folder / "lock";
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd == -1) ThrowErrno("cannot open " + path.string());
  if (flock(fd, LOCK_EX | LOCK_NB) == 0) return fd;
  close(fd);
  throw std::runtime_error("another support service uses the data folder " + folder.string() +
                           ": stop it or choose another folder with --data");
}

Json::Value NamesJson(const std::vector<std::string>& names) {
  Json::Value list(Json::arrayValue);
  for (const std::string& name : names) list.append(name);
  return list;
}

Json::Value RecordOf(const TicketView& ticket) {
  Json::Value record(Json::objectValue);
  record["ticket_id"] = ticket.id;
  record["device"] = ticket.device;
  record["apps"] = NamesJson(ticket.apps);
  record["created"] = TimeText(ticket.created);
  if (ticket.upload) {
    record["uploaded"] = TimeText(ticket.upload->time);
    record["size"] = Json::UInt64(ticket.upload->size_bytes);
    record["sha256"] = ticket.upload->sha256;
    record["serial_number"] = ticket.upload->serial_number;
    record["uploaded_apps"] = NamesJson(ticket.upload->apps);
  }
  if (ticket.report) {
    record["reported"] = TimeText(ticket.report->time);
    record["status"] = ticket.report->status;
    record["report_serial_number"] = ticket.report->serial_number;
  }
  return record;
}

}  // namespace

IncomingArchive::IncomingArchive(const fs::path& folder) : digest_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
  if (!digest_ || EVP_DigestInit_ex(digest_.get(), EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("cannot compute SHA-256");
  }
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
  if (EVP_DigestUpdate(digest_.get(), data.data(), data.size()) != 1) {
    throw std::runtime_error("cannot compute SHA-256");
  }
  size_bytes_ += data.size();
}

void IncomingArchive::Finish() {
  if (fsync(fd_) == -1) ThrowErrno("cannot sync " + path_.string());
  std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(digest_.get(), hash.data(), &length) != 1) {
    throw std::runtime_error("cannot compute SHA-256");
  }
  sha256_ = HexText(hash.data(), length);
}

ArchiveStore::ArchiveStore(const fs::path& data_folder) : folder_(data_folder) {
  TakeDataFolder(folder_);
  lock_fd_ = LockFolder(folder_);
  try {
    MakePrivateFolder(folder_ / "incoming");
    MakePrivateFolder(folder_ / "received");
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

void ArchiveStore::Publish(IncomingArchive& archive, const std::string& ticket_id) const {
  GiveName(archive, ticket_id, "debug.dat");
}

void ArchiveStore::WriteRecord(const TicketView& ticket) const {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  IncomingArchive file(folder_ / "incoming");
  file.Write(Json::writeString(writer, RecordOf(ticket)) + "\n");
  file.Finish();
  GiveName(file, ticket.id, "ticket.json");
}

void ArchiveStore::GiveName(IncomingArchive& file, const std::string& ticket_id, const char* name) const {
  const fs::path received = folder_ / "received";
  const fs::path folder = received / ticket_id;
  MakePrivateFolder(folder);
  // One step: whoever looks there finds the former file or this one, whole.
  fs::rename(file.path_, folder / name);
  file.path_.clear();  // it is no leftover any more
  SyncFolder(folder);
  SyncFolder(received);
}

}  // namespace TarvoOrvane::SupportService
