/// A ticket book with its store and its clock, worked on as the dispatcher does, one batch after the other.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "memory_store.h"
#include "sqlite_store.h"
#include "temporary_folder.h"
#include "ticket_book.h"

namespace TarvoOrvane::SupportService {

/// What a book's tests run against.
enum class StoreKind { kMemory, kSqlite };

/// For the names of tests.
inline std::string NameOf(StoreKind kind) { return kind == StoreKind::kMemory ? "Memory" : "Sqlite"; }

/// A device that may get in.
inline EnrolledDevice Enrolled(const std::string& serial_number) {
  EnrolledDevice device;
  device.serial_number = serial_number;
  return device;
}

/// "SN0" to "SN9" are enrolled.
class BookRig {
 public:
  /// @param trust  Whom the book believes.
  explicit BookRig(StoreKind kind, Trust trust = Trust::kAllowList) {
    settings_.trust = trust;
    if (kind == StoreKind::kMemory) {
      store_ = std::make_unique<MemoryStore>();
    } else {
      store_ = std::make_unique<SqliteStore>(folder_.path() / "tickets.db");
    }
    for (int i = 0; i <= 9; ++i) store_->Write({Enrolled("SN" + std::to_string(i))});
    Restart();
  }

  [[nodiscard]] TicketBook& book() { return *book_; }
  [[nodiscard]] const Metrics& metrics() const { return metrics_; }
  /// For the next book, or SetSettings().
  [[nodiscard]] TicketBook::Settings& settings() { return settings_; }
  [[nodiscard]] Store& store() { return *store_; }
  [[nodiscard]] const Moment& now() const { return now_; }

  /// The process ends, and another one begins with the same store.
  void Restart() {
    book_ = std::make_unique<TicketBook>(
        settings_, *store_, [this](const std::string& line) { lines_.push_back(line); }, metrics_,
        [this] { return now_; });
    Turn();
  }

  void Pass(std::chrono::milliseconds time) {
    now_.steady += time;
    now_.wall += time;
  }
  /// Somebody sets the clock, back or forward.
  void SetWallClock(std::chrono::milliseconds by) { now_.wall += by; }

  /// One batch: what is due is done and remembered.
  Work Turn() {
    book_->Advance();
    const std::vector<Change> changes = book_->TakeChanges();
    entries_.clear();
    for (const Change& change : changes) {
      if (const auto* entry = std::get_if<Entry>(&change)) entries_.push_back(*entry);
    }
    if (!changes.empty()) store_->Write(changes);
    book_->Settle();
    return book_->TakeWork();
  }

  /// What happened in the last batch.
  [[nodiscard]] const std::vector<Entry>& entries() const { return entries_; }
  /// The lines about streams.
  [[nodiscard]] const std::vector<std::string>& lines() const { return lines_; }

  [[nodiscard]] std::vector<DeviceView> Devices() const { return book_->Connected("", "", 1000); }

  StreamId Connect(const std::string& serial_number,
                   const std::optional<std::string>& certificate_name = {}) {
    book_->OpenStream(++last_stream_, "peer of " + serial_number);
    book_->Hello(last_stream_, serial_number, 1, certificate_name);
    return last_stream_;
  }
  /// A stream that says nothing yet.
  StreamId Open() {
    book_->OpenStream(++last_stream_, "peer");
    return last_stream_;
  }

  [[nodiscard]] Ticket Get(TicketNumber number) const { return store_->Find(number).value(); }
  [[nodiscard]] TicketState StateOf(TicketNumber number) const { return Get(number).state; }

  /// Everything that happened to a ticket.
  [[nodiscard]] std::vector<Event> EventsOf(TicketNumber number) const {
    return store_->EventsOf(number, 0, 100'000);
  }

 private:
  test_support::TemporaryFolder folder_;
  TicketBook::Settings settings_;
  Metrics metrics_;
  // A time of its own: nothing depends on the machine's.
  Moment now_{std::chrono::steady_clock::time_point(std::chrono::hours(1000)),
              WallTime(std::chrono::hours(24 * 365 * 50))};
  std::unique_ptr<Store> store_;
  std::unique_ptr<TicketBook> book_;
  std::vector<Entry> entries_;
  std::vector<std::string> lines_;
  StreamId last_stream_ = 0;
};

}  // namespace TarvoOrvane::SupportService
