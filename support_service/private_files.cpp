#include "private_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;

/// A file that is being written under a name of its own. It is removed with the object, unless it was renamed.
class UnfinishedFile {
 public:
  explicit UnfinishedFile(fs::path path) : path_(std::move(path)) {
    unlink(path_.c_str());  // a process that was killed may have left it
    fd_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd_ == -1) ThrowErrno("cannot make " + path_.string());
  }
  ~UnfinishedFile() {
    close(fd_);
    if (!path_.empty()) unlink(path_.c_str());
  }
  UnfinishedFile(const UnfinishedFile&) = delete;
  UnfinishedFile& operator=(const UnfinishedFile&) = delete;

  void Write(std::string_view text) const {
    WriteAll(fd_, text, path_);
    if (fsync(fd_) == -1) ThrowErrno("cannot sync " + path_.string());
  }
  void Rename(const fs::path& name) {
    if (rename(path_.c_str(), name.c_str()) == -1) ThrowErrno("cannot replace " + name.string());
    path_.clear();
  }

 private:
  fs::path path_;  ///< Empty once renamed.
  int fd_ = -1;    ///< Open from the constructor to the destructor.
};

}  // namespace

void ThrowErrno(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

fs::path FolderOf(const fs::path& path) { return path.has_parent_path() ? path.parent_path() : "."; }

void MakePrivateFolder(const fs::path& folder) {
  if (mkdir(folder.c_str(), 0700) == -1 && errno != EEXIST) ThrowErrno("cannot make " + folder.string());
}

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

void ReplacePrivateFile(const fs::path& path, std::string_view text) {
  UnfinishedFile file(path.string() + ".new");
  file.Write(text);
  file.Rename(path);
  SyncFolder(FolderOf(path));
}

}  // namespace TarvoOrvane::SupportService
