/// What was received, as files:
///
///     DATA/lock                         held by the service that uses the folder, or by a restore
///     DATA/incoming/                    bodies that are still arriving; emptied at start
///     DATA/archives/TICKET-VERSION.dat  complete archives
///     DATA/unknown/                     archives of which the store did not know at the service's start
///
/// A file is complete and on disk before it gets its name here. It counts once the store knows of it. Folders are 0700,
/// files 0600.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "event_log.h"
#include "sha256.h"
#include "store.h"

namespace TarvoOrvane::SupportService {

/// Of the data folder: what a backup is restored to, until it is complete.
inline constexpr char kRestoring[] = "restoring";
/// Of the data folder: the file that is locked by who uses it.
inline constexpr char kLock[] = "lock";

/// Takes the data folder for this process. Who looks at what is in it does so afterwards.
/// @return A descriptor of DATA/lock. The lock ends when it is closed, or with the process.
/// @throws std::exception when another process has it. The text says what to do.
[[nodiscard]] int LockDataFolder(const std::filesystem::path& folder);

/// An archive that is being received. It lies in DATA/incoming and is removed with the object, unless it was given a
/// name. Used by one thread at a time.
class IncomingArchive {
 public:
  /// Makes an empty file of mode 0600.
  /// @param folder  DATA/incoming, on the same file system as the name that it gets in the end.
  /// @throws std::system_error when the file can't be made.
  explicit IncomingArchive(const std::filesystem::path& folder);
  ~IncomingArchive();
  IncomingArchive(const IncomingArchive&) = delete;
  IncomingArchive& operator=(const IncomingArchive&) = delete;

  /// Appends data. What was written before a failure stays in the file, and so the object is of no use any more.
  /// @throws std::system_error when the data can't be written, for instance because the disk is full.
  void Write(std::string_view data);

  /// Waits until all data is on disk. Called once, with no Write() after it.
  /// @throws std::system_error when the system can't bring it there.
  void Finish();

  /// How much was written, in bytes.
  [[nodiscard]] std::uint64_t size_bytes() const { return size_bytes_; }
  /// The hash of all data, in lower-case hex; empty before Finish().
  [[nodiscard]] const std::string& sha256() const { return sha256_; }

 private:
  friend class ArchiveStore;

  std::filesystem::path path_;  ///< Empty once published.
  int fd_ = -1;                 ///< Open from the constructor to the destructor.
  std::uint64_t size_bytes_ = 0;
  Sha256Digest digest_;  ///< Takes each piece as it is written.
  std::string sha256_;
};

/// The data folder, held by this process for as long as the object lives. Made at the service's start, before any
/// thread that uses it; any thread may call it. It begins as IncomingArchive does, because each holds one descriptor.
class ArchiveStore {
 public:
  /// Takes the data folder for this process, making it where it is missing, and removes what an earlier
  /// service left half received.
  /// @param data_folder  DATA above. The folders above it are made as well.
  /// @throws std::runtime_error when another service uses the folder, when it is open to other users, or when it can't
  ///         be used. The text says what to do.
  explicit ArchiveStore(const std::filesystem::path& data_folder);
  ~ArchiveStore();
  ArchiveStore(const ArchiveStore&) = delete;
  ArchiveStore& operator=(const ArchiveStore&) = delete;

  /// Starts to receive an archive; the caller owns it.
  /// @throws std::system_error when the file can't be made.
  [[nodiscard]] std::unique_ptr<IncomingArchive> Begin() const;

  /// Gives a finished archive its name. The name is on disk when this returns.
  /// @param archive  Finish() was called; from here on its file stays when it is destroyed.
  /// @param after    The version that the ticket has already; 0 for none.
  /// @return The archive's version, larger than that one. No other archive of the ticket has it.
  /// @throws std::system_error when the name can't be made.
  [[nodiscard]] std::uint64_t Publish(IncomingArchive& archive, const std::string& ticket_id,
                                      std::uint64_t after) const;

  /// Where a published archive lies.
  [[nodiscard]] std::filesystem::path PathOf(const std::string& ticket_id, std::uint64_t version) const;

  /// Makes sure of an archive of which the ticket has another version with the same content. That one's file takes the
  /// place of a former one that is missing, else it is deleted.
  /// @throws std::system_error when the file can't be moved or deleted.
  void KeepOne(const std::string& ticket_id, std::uint64_t former, std::uint64_t repeated) const;

  /// Deletes a published archive; one that is not there is no failure.
  /// @throws std::system_error when it can't be deleted.
  void Remove(const std::string& ticket_id, std::uint64_t version) const;

  /// Compares the files with what the store knows, before anything is served: puts aside what it does not know, tells
  /// of what is missing, and deletes what is known to be deleted. The store may be a backup, so nothing else is
  /// deleted.
  /// @param events  Takes a line for each difference.
  /// @throws StoreError or std::exception when one of them can't be read.
  void Reconcile(const Store& store, const EventSink& events) const;

 private:
  std::filesystem::path folder_;
  int lock_fd_ = -1;  ///< Of DATA/lock. The kernel drops the lock with the process, however it ends.
};

}  // namespace TarvoOrvane::SupportService
