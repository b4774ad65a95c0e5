/// What was received, as files:
///
///     DATA/lock                       held by the service that uses the folder
///     DATA/incoming/                  bodies that are still arriving; emptied at start
///     DATA/received/TICKET/debug.dat  the newest complete archive of a ticket
///     DATA/received/TICKET/ticket.json  what is known of it, without the token
///
/// A file is complete and on disk before it gets its name here. Folders are 0700, files 0600.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "ticket_book.h"

namespace TarvoOrvane::SupportService {

/// A file that is being received. It is removed again unless the store gives it a name. Used by one
/// thread at a time.
class IncomingArchive {
 public:
  /// @throw std::system_error  the file can't be made.
  explicit IncomingArchive(const std::filesystem::path& folder);
  ~IncomingArchive();
  IncomingArchive(const IncomingArchive&) = delete;
  IncomingArchive& operator=(const IncomingArchive&) = delete;

  /// Appends data. @throw std::system_error  it can't be written.
  void Write(std::string_view data);

  /// Waits until all data is on disk; no Write after this. @throw std::system_error
  void Finish();

  [[nodiscard]] std::uint64_t size_bytes() const { return size_bytes_; }
  [[nodiscard]] const std::string& sha256() const { return sha256_; }  ///< Empty before Finish().

 private:
  friend class ArchiveStore;

  std::filesystem::path path_;  ///< Empty once published.
  int fd_ = -1;
  std::uint64_t size_bytes_ = 0;
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> digest_;
  std::string sha256_;
};

class ArchiveStore {
 public:
  /// Takes the data folder for this process, making it where it is missing, and removes what an earlier
  /// service left half received.
  /// @throw std::runtime_error  the folder is used by another service, open to other users or unusable.
  explicit ArchiveStore(const std::filesystem::path& data_folder);
  ~ArchiveStore();
  ArchiveStore(const ArchiveStore&) = delete;
  ArchiveStore& operator=(const ArchiveStore&) = delete;

  [[nodiscard]] std::unique_ptr<IncomingArchive> Begin() const;

  /// Gives a finished archive its name; takes the place of the ticket's former one.
  /// @throw std::system_error
  void Publish(IncomingArchive& archive, const std::string& ticket_id) const;

  /// Writes the ticket's ticket.json anew. @throw std::system_error
  void WriteRecord(const TicketView& ticket) const;

 private:
  void GiveName(IncomingArchive& file, const std::string& ticket_id, const char* name) const;

  std::filesystem::path folder_;
  int lock_fd_ = -1;
};

}  // namespace TarvoOrvane::SupportService
