#include "backup_maker.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <map>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "backup_file.h"
#include "private_files.h"
#include "sha256.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {

namespace fs = std::filesystem;

/// Bytes on their way from the maker's thread to the thread of the server that sends them. Both hold it.
class BackupPipe {
 public:
  /// Waits until there is room.
  /// @return false when nobody takes it any more.
  bool Put(std::string_view bytes) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return is_closed_ || waiting_bytes_ < kMostWaitingBytes; });
    if (is_closed_) return false;
    pieces_.emplace_back(bytes);
    waiting_bytes_ += bytes.size();
    WakeReader(lock);
    return true;
  }
  /// All of it was put.
  void Finish() {
    std::unique_lock<std::mutex> lock(mutex_);
    is_complete_ = true;
    WakeReader(lock);
  }
  /// Nobody takes or puts any more.
  void Close() {
    std::unique_lock<std::mutex> lock(mutex_);
    is_closed_ = true;
    changed_.notify_all();
    WakeReader(lock);
  }
  /// As BodySource::Next().
  std::optional<std::string> Take(const std::function<void()>& wake) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (pieces_.empty() && is_complete_) return std::nullopt;
    if (is_closed_) throw std::runtime_error("the backup was not finished");
    if (pieces_.empty()) {
      wake_ = wake;
      return "";
    }
    std::string piece = std::move(pieces_.front());
    pieces_.pop_front();
    waiting_bytes_ -= piece.size();
    changed_.notify_all();
    return piece;
  }

 private:
  static constexpr std::size_t kMostWaitingBytes = std::size_t{1} << 20;

  void WakeReader(std::unique_lock<std::mutex>& lock) {
    const auto wake = std::exchange(wake_, {});
    lock.unlock();
    if (wake) wake();
  }

  std::mutex mutex_;  ///< Guards what follows.
  std::condition_variable changed_;
  std::deque<std::string> pieces_;
  std::size_t waiting_bytes_ = 0;
  bool is_complete_ = false;
  bool is_closed_ = false;
  std::function<void()> wake_;
};

namespace {

constexpr std::size_t kPieceBytes = std::size_t{256} * 1024;

/// The pipe's other end.
class BackupBody final : public BodySource {
 public:
  explicit BackupBody(std::shared_ptr<BackupPipe> pipe) : pipe_(std::move(pipe)) {}
  ~BackupBody() override { pipe_->Close(); }
  BackupBody(const BackupBody&) = delete;
  BackupBody& operator=(const BackupBody&) = delete;
  std::optional<std::string> Next(const std::function<void()>& wake) override { return pipe_->Take(wake); }

 private:
  const std::shared_ptr<BackupPipe> pipe_;
};

class OpenFile {
 public:
  explicit OpenFile(int fd) : fd_(fd) {}
  ~OpenFile() {
    if (fd_ != -1) close(fd_);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  [[nodiscard]] int fd() const { return fd_; }

 private:
  const int fd_;
};

/// The tar file as it is written.
class BackupTar {
 public:
  explicit BackupTar(BackupPipe& pipe) : tar_(archive_write_new(), archive_write_free) {
    if (!tar_) throw std::bad_alloc();
    archive_write_set_format_pax_restricted(tar_.get());
    archive_write_set_bytes_per_block(tar_.get(), kPieceBytes);
    archive_write_set_bytes_in_last_block(tar_.get(), 1);
    Check(archive_write_open(tar_.get(), &pipe, nullptr, &Write, nullptr));
  }

  struct Added {
    std::string sha256;  ///< Of what was added.
    std::string fault;   ///< Why zeros are in the place of what could not be read; empty where all could be.
  };

  /// @param fd  Of a file, which is read from its beginning.
  Added TryToAddFile(const std::string& name, int fd) {
    struct stat status {};
    if (fstat(fd, &status) == -1) ThrowErrno("cannot read " + name);
    auto left = static_cast<std::uint64_t>(status.st_size);
    Begin(name, left, status.st_mtime);
    Sha256Digest hash;
    std::vector<char> block(kPieceBytes);
    std::string fault;
    while (left > 0) {
      auto count = static_cast<ssize_t>(std::min<std::uint64_t>(left, block.size()));
      if (fault.empty()) count = read(fd, block.data(), static_cast<std::size_t>(count));
      if (count == -1 && errno == EINTR) continue;
      if (count <= 0) {
        fault = count == 0 ? "it became shorter while it was read"
                           : "it can't be read: " + std::generic_category().message(errno);
        // The tar's reader was told how long it is.
        std::fill(block.begin(), block.end(), '\0');
        continue;
      }
      const std::string_view piece(block.data(), static_cast<std::size_t>(count));
      hash.Add(piece);
      Append(piece);
      left -= piece.size();
    }
    return {Note(name, hash), fault};
  }

  /// A file without which the backup is of no use.
  void AddFile(const std::string& name, int fd) {
    const Added added = TryToAddFile(name, fd);
    if (!added.fault.empty()) throw std::runtime_error(name + ": " + added.fault);
  }

  std::string AddText(const std::string& name, const std::string& text) {
    Begin(name, text.size(), time(nullptr));
    Append(text);
    Sha256Digest hash;
    hash.Add(text);
    return Note(name, hash);
  }

  void Finish() {
    std::string sums;
    for (const auto& [name, sum] : sums_) sums.append(sum).append("  ").append(name).append("\n");
    AddText(kBackupSums, sums);
    Check(archive_write_close(tar_.get()));
  }

 private:
  static la_ssize_t Write(archive* tar, void* pipe, const void* data, std::size_t size) {
    if (static_cast<BackupPipe*>(pipe)->Put({static_cast<const char*>(data), size})) {
      return static_cast<la_ssize_t>(size);
    }
    archive_set_error(tar, EPIPE, "nobody takes it any more");
    return -1;
  }

  void Check(int result) const {
    if (result == ARCHIVE_OK) return;
    const char* why = archive_error_string(tar_.get());
    throw std::runtime_error(why == nullptr ? "it can't be written" : why);
  }
  void Begin(const std::string& name, std::uint64_t size, time_t changed) {
    const std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(),
                                                                         archive_entry_free);
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(size));
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), 0600);
    archive_entry_set_mtime(entry.get(), changed, 0);
    Check(archive_write_header(tar_.get(), entry.get()));
  }
  void Append(std::string_view piece) {
    if (archive_write_data(tar_.get(), piece.data(), piece.size()) < 0) Check(ARCHIVE_FATAL);
  }
  std::string Note(const std::string& name, Sha256Digest& hash) {
    std::string sum = hash.Hex();
    sums_[name] = sum;
    return sum;
  }

  std::map<std::string, std::string> sums_;
  std::unique_ptr<archive, int (*)(archive*)> tar_;
};

/// What the authority and the certificates consist of. A file with another ending is not finished.
void AddPrivateFiles(BackupTar& tar, const fs::path& folder, const std::string& name) {
  if (!fs::exists(folder / name)) return;
  std::vector<fs::path> files;
  for (const auto& file : fs::directory_iterator(folder / name)) {
    const fs::path extension = file.path().extension();
    if (file.is_regular_file() && (extension == ".pem" || extension == ".key")) files.push_back(file.path());
  }
  std::sort(files.begin(), files.end());
  for (const fs::path& path : files) {
    const OpenFile file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (file.fd() == -1) ThrowErrno("cannot read " + path.string());
    tar.AddFile(name + "/" + path.filename().string(), file.fd());
  }
}

/// @return Names of archives that the store knows of, and that are not there as it knows them.
std::vector<std::string> AddArchives(BackupTar& tar, const ArchiveStore& archives,
                                     const StoreContents& contents) {
  std::vector<std::string> missing;
  for (const StoredArchive& archive : contents.archives) {
    const fs::path path = archives.PathOf(archive.ticket_id, archive.version);
    const std::string name = path.filename().string();
    const OpenFile file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (file.fd() == -1) {
      missing.push_back(name + (errno == ENOENT
                                    ? ": there is no such file, or it was deleted since"
                                    : ": it can't be read: " + std::generic_category().message(errno)));
      continue;
    }
    const BackupTar::Added added = tar.TryToAddFile("archives/" + name, file.fd());
    if (!added.fault.empty()) {
      missing.push_back(name + ": " + added.fault + ". Zeros are in the place of the rest");
    } else if (added.sha256 != archive.sha256) {
      missing.push_back(name + ": its content is not what the device has sent");
    }
  }
  return missing;
}

std::string FactsText(bool with_archives, const std::vector<std::string>& missing) {
  Json::Value facts(Json::objectValue);
  facts["service_version"] = DDT_VERSION;
  facts["created"] = TimeText(std::chrono::system_clock::now());
  facts["with_archives"] = with_archives;
  facts["missing"] = Json::Value(Json::arrayValue);
  for (const std::string& name : missing) facts["missing"].append(name);
  return CompactJson(facts) + "\n";
}

}  // namespace

BackupMaker::BackupMaker(const SqliteStore& store, const ArchiveStore& archives, fs::path data_folder,
                         DiskRoom& room, EventSink events)
    : store_(store),
      archives_(archives),
      folder_(std::move(data_folder)),
      room_(room),
      events_(std::move(events)) {}

BackupMaker::~BackupMaker() {
  Cancel();
  if (thread_.joinable()) thread_.join();
}

bool BackupMaker::Begin(bool with_archives, const Ready& ready) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (is_busy_) return false;
  is_busy_ = true;
  if (thread_.joinable()) thread_.join();  // it has ended, but for its last few steps
  const auto pipe = std::make_shared<BackupPipe>();
  pipe_ = pipe;
  try {
    thread_ = std::thread([this, with_archives, ready, pipe] { Run(with_archives, ready, pipe); });
  } catch (const std::system_error& failure) {
    is_busy_ = false;
    lock.unlock();
    ready(nullptr, std::string("no thread can be started: ") + failure.what());
  }
  return true;
}

bool BackupMaker::IsBusy() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return is_busy_;
}

void BackupMaker::Cancel() {
  cancelled_ = true;
  std::shared_ptr<BackupPipe> pipe;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    pipe = pipe_.lock();
  }
  if (pipe) pipe->Close();
}

/// @param contents  Gets what is in the copy.
/// @return The copy, open for reading; it has no name any more.
/// @throws std::exception when there is none, also because of Cancel().
int BackupMaker::CopyStore(StoreContents& contents) const {
  const auto goes_on = [this] { return !cancelled_; };
  const fs::path copy = folder_ / "incoming" / "backup.db";
  RoomReservation reservation(room_);
  if (!reservation.Add(store_.SizeBytes())) {
    throw std::runtime_error("the disk has no room for a copy of the store, which has " +
                             std::to_string(store_.SizeBytes()) + " bytes. Make room on it");
  }
  try {
    store_.CopyTo(copy, goes_on);
    contents = SqliteStore::Examine(copy, goes_on);
    if (cancelled_) throw std::runtime_error("the service shuts down");
    const int fd = open(copy.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) ThrowErrno("cannot read " + copy.string());
    unlink(copy.c_str());
    return fd;
  } catch (...) {
    unlink(copy.c_str());
    throw;
  }
}

void BackupMaker::Run(bool with_archives, const Ready& ready, const std::shared_ptr<BackupPipe>& pipe) {
  const auto set_idle = [this] {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_busy_ = false;
  };
  auto body = std::make_shared<BackupBody>(pipe);
  StoreContents contents;
  std::unique_ptr<OpenFile> store;
  try {
    store = std::make_unique<OpenFile>(CopyStore(contents));
  } catch (const std::exception& failure) {
    set_idle();
    return ready(nullptr, failure.what());
  }
  ready(std::exchange(body, nullptr), "");
  try {
    BackupTar tar(*pipe);
    tar.AddText(kBackupForm, std::to_string(kOwnBackupForm) + "\n");
    tar.AddFile(kBackupStore, store->fd());
    AddPrivateFiles(tar, folder_, "authority");
    AddPrivateFiles(tar, folder_, "server");
    std::vector<std::string> missing;
    if (with_archives) missing = AddArchives(tar, archives_, contents);
    tar.AddText(kBackupFacts, FactsText(with_archives, missing));
    tar.Finish();
    store
        .reset();  // it has no name: its blocks are freed here, which takes its time. The next Begin() waits no more
    set_idle();
    pipe->Finish();
  } catch (const std::exception& failure) {
    events_(std::string("a backup was not finished: ") + failure.what());
    store.reset();
    set_idle();
    pipe->Close();
  }
}

}  // namespace TarvoOrvane::SupportService
