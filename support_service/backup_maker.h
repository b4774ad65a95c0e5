/// Makes backups (backup_file.h) while the service works.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "archive_store.h"
#include "disk_room.h"
#include "event_log.h"
#include "http_exchange.h"
#include "sqlite_store.h"

namespace TarvoOrvane::SupportService {

class BackupPipe;

/// Makes one backup at a time, in a thread of its own: first a copy of the store, which holds up no writer, and then
/// the tar file, as fast as its reader takes it. Any thread may use it.
class BackupMaker {
 public:
  /// @param data_folder  Of the service. Its folder "incoming" has the copy of the store for a moment.
  /// @param room         Is asked for room for that copy.
  BackupMaker(const SqliteStore& store, const ArchiveStore& archives, std::filesystem::path data_folder,
              DiskRoom& room, EventSink events);
  /// Cancel(), and waits until the thread has ended.
  ~BackupMaker();
  BackupMaker(const BackupMaker&) = delete;
  BackupMaker& operator=(const BackupMaker&) = delete;

  /// Told once, as a rule in the maker's thread: the backup as a body, or why there is none. A body whose end is not
  /// reached ends its connection as a broken one.
  using Ready = std::function<void(std::shared_ptr<BodySource> body, const std::string& fault)>;

  /// Begins to make one. What the store has remembered before is in it.
  /// @return false when one is being made: nothing happens then.
  [[nodiscard]] bool Begin(bool with_archives, const Ready& ready);

  [[nodiscard]] bool IsBusy();

  /// Ends the one that is being made, and has later ones fail: the service ends.
  void Cancel();

 private:
  void Run(bool with_archives, const Ready& ready, const std::shared_ptr<BackupPipe>& pipe);
  [[nodiscard]] int CopyStore(StoreContents& contents) const;

  const SqliteStore& store_;
  const ArchiveStore& archives_;
  const std::filesystem::path folder_;
  DiskRoom& room_;
  const EventSink events_;
  std::atomic<bool> cancelled_{false};
  std::mutex mutex_;  ///< Guards what follows.
  bool is_busy_ = false;
  std::weak_ptr<BackupPipe> pipe_;
  std::thread thread_;
};

}  // namespace TarvoOrvane::SupportService
