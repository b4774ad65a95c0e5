/// The store in a file: an SQLite database of mode 0600, in WAL mode, with FILE-wal and FILE-shm beside it while it is
/// open. All SQL stands in sqlite_store.cpp.
///
/// One connection writes. Each thread that reads takes one of those that only read, so that it never waits for the
/// writer, nor the writer for it.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "store.h"

namespace TarvoOrvane::SupportService {

class SqliteConnection;

/// An archive that a copy of the store knows of, and that was not deleted.
struct StoredArchive {
  std::string ticket_id;
  std::uint64_t version = 0;
  std::string sha256;  ///< Lower-case hex.
};

/// What is in a copy of the store.
struct StoreContents {
  std::uint64_t tickets = 0;
  std::uint64_t devices = 0;
  std::uint64_t users = 0;
  std::vector<StoredArchive> archives;
};

class SqliteStore : public Store {
 public:
  /// Opens the file, makes it where it is missing, and brings what an older version wrote to the present form.
  /// @param file  In a folder that exists. No other process uses it.
  /// @throws StoreError when it can't be used: a newer version wrote it, it is something else, it is damaged.
  explicit SqliteStore(const std::filesystem::path& file);
  ~SqliteStore() override;
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  void Write(const std::vector<Change>& changes) override;
  [[nodiscard]] EventNumber LastEvent() const override { return last_event_; }
  [[nodiscard]] TicketNumber LastTicket() const override { return last_ticket_; }
  [[nodiscard]] std::uint64_t LastAudit() const override { return last_audit_; }
  [[nodiscard]] std::vector<Ticket> OpenTickets() const override;
  [[nodiscard]] std::optional<Ticket> Find(TicketNumber number) const override;
  [[nodiscard]] std::vector<Ticket> FindById(const std::string& beginning, std::size_t limit) const override;
  [[nodiscard]] std::optional<Ticket> FindByToken(const SecretHash& hash) const override;
  [[nodiscard]] std::vector<Ticket> List(const TicketFilter& filter, std::size_t limit) const override;
  [[nodiscard]] std::vector<Event> EventsOf(TicketNumber ticket, EventNumber after,
                                            std::size_t limit) const override;
  [[nodiscard]] std::vector<Event> EventsAfter(EventNumber after, std::size_t limit) const override;
  [[nodiscard]] std::vector<ArchiveName> Archives() const override;
  [[nodiscard]] ArchiveTotals KeptTotals() const override;
  [[nodiscard]] std::vector<KeptArchive> OldestArchives(const std::optional<std::string>& device,
                                                        WallTime before, std::size_t limit) const override;
  [[nodiscard]] std::vector<DeviceArchives> DevicesWithMoreArchives(
      std::uint64_t than, const std::optional<DeviceArchives>& behind, std::size_t limit) const override;
  [[nodiscard]] std::uint64_t KeptOfDevice(const std::string& serial_number) const override;
  [[nodiscard]] std::optional<WallTime> RetentionHeldUntil() const override;
  [[nodiscard]] std::optional<WallTime> RetentionLookedAt() const override;
  [[nodiscard]] std::optional<EnrolledDevice> FindDevice(const std::string& serial_number) const override;
  [[nodiscard]] std::vector<EnrolledDevice> Devices(const std::string& beginning, const std::string& after,
                                                    std::size_t limit) const override;
  [[nodiscard]] std::optional<User> FindUser(const std::string& name) const override;
  [[nodiscard]] std::vector<User> Users() const override;
  [[nodiscard]] std::optional<ApiToken> FindApiToken(const SecretHash& secret) const override;
  [[nodiscard]] std::vector<ApiToken> ApiTokens() const override;
  [[nodiscard]] std::optional<Session> FindSession(const SecretHash& secret) const override;
  [[nodiscard]] std::vector<AuditRecord> Audit(std::uint64_t before, std::size_t limit) const override;
  [[nodiscard]] std::optional<EventNumber> ToldByWebhook() const override;

  /// Writes a copy of the store as it is at one moment. Takes as long as the disk does, and holds up neither the writer
  /// nor readers. Not for a thread that serves connections.
  /// @param file     Takes the place of one that is there; mode 0600. Where this fails, part of it may be there.
  /// @param goes_on  Asked now and then; false ends it with a StoreError.
  /// @throws StoreError when it can't be read or written.
  void CopyTo(const std::filesystem::path& file, const std::function<bool()>& goes_on) const;

  /// What the store takes on the disk.
  [[nodiscard]] std::uint64_t SizeBytes() const;

  /// Looks at the whole of a file that CopyTo() has written, and that nobody uses.
  /// @param goes_on  As for CopyTo(). The check of the pages of one table comes to its end first.
  /// @throws StoreError when it is damaged, of another program or of a newer version.
  [[nodiscard]] static StoreContents Examine(const std::filesystem::path& file,
                                             const std::function<bool()>& goes_on);

  /// The statements of which none may look at a whole table, for the test of that.
  [[nodiscard]] static std::vector<std::string> Statements();

 private:
  class Reader;

  template <typename Question>
  auto Read(const Question& question) const;

  const std::filesystem::path file_;
  std::unique_ptr<SqliteConnection> writer_;
  mutable std::mutex mutex_;                                     ///< Guards `idle_`.
  mutable std::vector<std::unique_ptr<SqliteConnection>> idle_;  ///< Open to read, and used by no thread now.
  std::atomic<EventNumber> last_event_{0};
  std::atomic<TicketNumber> last_ticket_{0};
  std::atomic<std::uint64_t> last_audit_{0};
};

}  // namespace TarvoOrvane::SupportService
