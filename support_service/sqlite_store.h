/// The store in a file: an SQLite database of mode 0600, in WAL mode, with FILE-wal and FILE-shm beside it while it is
/// open. All SQL stands in sqlite_store.cpp.
///
/// One connection writes. Each thread that reads takes one of those that only read, so that it never waits for the
/// writer, nor the writer for it.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "store.h"

namespace TarvoOrvane::SupportService {

class SqliteConnection;

class SqliteStore final : public Store {
 public:
  /// Opens the file, makes it where it is missing, and brings what an older version wrote to the present form.
  /// @param file  In a folder that exists. No other process uses it.
  /// @throws StoreError when it can't be used: a newer version wrote it, it is something else, it is damaged.
  explicit SqliteStore(const std::filesystem::path& file);
  ~SqliteStore() override;
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  void Write(const std::vector<Entry>& entries) override;
  [[nodiscard]] EventNumber LastEvent() const override { return last_event_; }
  [[nodiscard]] TicketNumber LastTicket() const override { return last_ticket_; }
  [[nodiscard]] std::vector<Ticket> OpenTickets() const override;
  [[nodiscard]] std::optional<Ticket> Find(TicketNumber number) const override;
  [[nodiscard]] std::vector<Ticket> FindById(const std::string& beginning, std::size_t limit) const override;
  [[nodiscard]] std::optional<Ticket> FindByToken(const TokenHash& hash) const override;
  [[nodiscard]] std::vector<Ticket> List(const TicketFilter& filter, std::size_t limit) const override;
  [[nodiscard]] std::vector<Event> EventsOf(TicketNumber ticket, EventNumber after,
                                            std::size_t limit) const override;
  [[nodiscard]] std::vector<ArchiveName> Archives() const override;

  /// Every statement that the running service uses, for the test that none of them looks at a whole table.
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
};

}  // namespace TarvoOrvane::SupportService
