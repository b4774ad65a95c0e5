/// supportctl backup.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <ctime>

#include "backup_file.h"
#include "file.h"
#include "session.h"

namespace TarvoOrvane::Supportctl {
namespace {

namespace fs = std::filesystem;

/// The copy of a large store comes first, and nothing is sent meanwhile.
constexpr std::chrono::minutes kLongestSilence{30};

/// "support-service-20261123T130507Z.tar"
std::string NameOfNow() {
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm parts{};
  gmtime_r(&now, &parts);
  std::array<char, 64> name{};
  static_cast<void>(std::strftime(name.data(), name.size(), "support-service-%Y%m%dT%H%M%SZ.tar", &parts));
  return name.data();
}

/// A file of mode 0600 that becomes the backup. It goes with the object, unless it was finished.
class UnfinishedBackup {
 public:
  explicit UnfinishedBackup(fs::path name)
      : name_(std::move(name)),
        path_(name_.string() + ".part-XXXXXX"),
        file_(mkostemp(path_.data(), O_CLOEXEC)) {
    if (file_.get() == -1) FailWithErrno("can't write", path_);
  }
  ~UnfinishedBackup() {
    if (!is_finished_) unlink(path_.c_str());
  }
  UnfinishedBackup(const UnfinishedBackup&) = delete;
  UnfinishedBackup& operator=(const UnfinishedBackup&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  void Append(std::string_view bytes) { WriteAll(file_, bytes, path_); }
  void Finish() {
    Sync(file_, path_);
    Rename(path_, name_);
    is_finished_ = true;
    SyncFolder(name_.has_parent_path() ? name_.parent_path() : ".");
  }

 private:
  const fs::path name_;
  std::string path_;
  const Descriptor file_;
  bool is_finished_ = false;
};

Json::Value JsonOf(const fs::path& file, const SupportService::BackupFacts& facts) {
  Json::Value value(Json::objectValue);
  value["file"] = file.string();
  value["created"] = facts.created;
  value["size_bytes"] = Json::UInt64{facts.size_bytes};
  value["archives"] = Json::UInt64{facts.archives};
  value["missing"] = Json::Value(Json::arrayValue);
  for (const std::string& name : facts.missing) value["missing"].append(name);
  return value;
}

}  // namespace

ExitStatus MakeBackup(Session& session) {
  fs::path name = session.options.backup;
  if (fs::is_directory(name)) name /= NameOfNow();
  UnfinishedBackup file(name);
  ProgressLine progress(session.console);
  std::uint64_t size = 0;
  const char* path = session.options.without_archives ? "/backup?archives=false" : "/backup";
  Transfer transfer(session.api.service(), "GET", path, {}, [&](std::string_view bytes) {
    file.Append(bytes);
    size += bytes.size();
    progress.Show("backup: " + SizeText(size));
  });
  transfer.LimitSilence(kLongestSilence);
  transfer.Run();
  progress.Show("backup: checked");
  // As it lies on the disk now.
  SupportService::BackupFacts facts;
  try {
    facts = SupportService::ReadBackup(file.path(), {});
  } catch (const SupportService::BackupError& fault) {
    throw Failure(ExitStatus::kFailed, std::string("the backup can't be used: ") + fault.what());
  }
  file.Finish();
  progress.Show("");
  for (const std::string& missing : facts.missing) {
    session.console.err << "missing: " << Safe(missing) << "\n";
  }
  return PrintDone(session, JsonOf(name, facts),
                   Safe(name.string()) + ": " + SizeText(facts.size_bytes) + ", " +
                       std::to_string(facts.archives) + (facts.archives == 1 ? " archive" : " archives"));
}

}  // namespace TarvoOrvane::Supportctl
