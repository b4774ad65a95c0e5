#include "file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "failure.h"

namespace TarvoOrvane::Supportctl {

Descriptor::~Descriptor() {
  if (fd_ != -1) close(fd_);
}

void WriteAll(const Descriptor& file, std::string_view bytes, const std::filesystem::path& path) {
  while (!bytes.empty()) {
    const ssize_t count = write(file.get(), bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) FailWithErrno("can't write", path);
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

void Sync(const Descriptor& file, const std::filesystem::path& path) {
  // Some file systems know no such thing of a folder.
  if (fsync(file.get()) == -1 && errno != EINVAL) FailWithErrno("can't bring to disk", path);
}

void SyncFolder(const std::filesystem::path& folder) {
  const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (opened.get() == -1) FailWithErrno("can't open", folder);
  Sync(opened, folder);
}

void Rename(const std::filesystem::path& from, const std::filesystem::path& to) {
  if (rename(from.c_str(), to.c_str()) == -1) FailWithErrno("can't name a file", to);
}

void MakeFolder(const std::filesystem::path& folder) {
  if (folder.has_parent_path() && folder.parent_path() != folder && !std::filesystem::exists(folder)) {
    MakeFolder(folder.parent_path());
  }
  if (mkdir(folder.c_str(), 0700) == -1 && errno != EEXIST) FailWithErrno("can't make the folder", folder);
  if (!std::filesystem::is_directory(folder)) {
    throw Failure(ExitStatus::kFailed, folder.string() + " is no folder: name another one");
  }
}

void FailWithErrno(const std::string& what, const std::filesystem::path& path) {
  const std::string why = std::generic_category().message(errno);
  throw Failure(ExitStatus::kFailed, what + " " + path.string() + ": " + why);
}

}  // namespace TarvoOrvane::Supportctl
