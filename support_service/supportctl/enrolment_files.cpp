#include "enrolment_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "api_client.h"
#include "failure.h"
#include "file.h"

namespace TarvoOrvane::Supportctl {
namespace {

namespace fs = std::filesystem;

bool Exists(const fs::path& path) { return fs::symlink_status(path).type() != fs::file_type::not_found; }

/// Files under temporary names, which get their own names together.
class FileSet {
 public:
  explicit FileSet(fs::path folder) : folder_(std::move(folder)) {}
  /// Takes back what did not come to its end.
  ~FileSet() {
    for (auto rename = renames_.rbegin(); rename != renames_.rend(); ++rename) {
      static_cast<void>(::rename(rename->second.c_str(), rename->first.c_str()));
    }
    for (const fs::path& path : temporary_) static_cast<void>(unlink(path.c_str()));
  }
  FileSet(const FileSet&) = delete;
  FileSet& operator=(const FileSet&) = delete;

  void Add(const char* name, mode_t mode, const std::string& text) {
    std::string path = folder_ / ("." + std::string(name) + ".XXXXXX");
    const Descriptor file(mkostemp(path.data(), O_CLOEXEC));  // it has mode 0600 at first
    if (file.get() == -1) FailWithErrno("can't make a file in", folder_);
    temporary_.emplace_back(path);
    files_.emplace_back(path, folder_ / name);
    WriteAll(file, text, folder_ / name);
    if (fchmod(file.get(), mode) == -1) FailWithErrno("can't set the mode of", folder_ / name);
    Sync(file, folder_ / name);
  }

  void Finish() {
    for (const auto& [temporary, name] : files_) {
      if (Exists(name)) Move(name, temporary.string() + ".former");
      Move(temporary, name);
    }
    SyncFolder(folder_);
    for (const auto& [from, to] : renames_) {
      if (to.extension() == ".former") temporary_.push_back(to);
    }
    renames_.clear();
  }

 private:
  void Move(const fs::path& from, const fs::path& to) {
    Rename(from, to);
    renames_.emplace_back(from, to);
  }

  const fs::path folder_;
  std::vector<fs::path> temporary_;                     ///< Removed at the end.
  std::vector<std::pair<fs::path, fs::path>> files_;    ///< From, to.
  std::vector<std::pair<fs::path, fs::path>> renames_;  ///< Done, and to be undone unless all are.
};

}  // namespace

void PrepareEnrolmentFolder(const fs::path& folder, bool renew) {
  MakeFolder(folder);
  for (const EnrolmentFile& file : kEnrolmentFiles) {
    const fs::path path = folder / file.name;
    if (fs::is_directory(path)) {
      throw Failure(ExitStatus::kFailed, path.string() + " is a folder: move it away, or name another place");
    }
    if (!renew && Exists(path)) {
      throw Failure(ExitStatus::kFailed,
                    path.string() + " is there already: name another folder, or overwrite it with --renew");
    }
  }
  if (access(folder.c_str(), W_OK | X_OK) == -1) FailWithErrno("can't write to", folder);
}

std::vector<EnrolmentFile> WriteEnrolment(const fs::path& folder, const Json::Value& enrolment) {
  std::vector<EnrolmentFile> written;
  FileSet files(folder);
  for (const EnrolmentFile& file : kEnrolmentFiles) {
    const std::string text = OptionalTextOf(enrolment, file.member);
    if (text.empty()) continue;
    files.Add(file.name, file.mode, text);
    written.push_back(file);
  }
  files.Finish();
  return written;
}

}  // namespace TarvoOrvane::Supportctl
