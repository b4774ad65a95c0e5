/// The store in memory, for tests of what is written against Store. A restart is to go on with the same object.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <vector>

#include "store.h"

namespace TarvoOrvane::SupportService {

class MemoryStore final : public Store {
 public:
  /// From now on no Write() succeeds, or each does again. Any thread may call it.
  void FailWrites(bool fail) { fails_ = fail; }

  /// @throws StoreError also for what the store in a file refuses: a ticket, token or archive that is there already,
  ///         and an event of a ticket that was not created.
  void Write(const std::vector<Entry>& entries) override;
  [[nodiscard]] EventNumber LastEvent() const override;
  [[nodiscard]] TicketNumber LastTicket() const override;
  [[nodiscard]] std::vector<Ticket> OpenTickets() const override;
  [[nodiscard]] std::optional<Ticket> Find(TicketNumber number) const override;
  [[nodiscard]] std::vector<Ticket> FindById(const std::string& beginning, std::size_t limit) const override;
  [[nodiscard]] std::optional<Ticket> FindByToken(const TokenHash& hash) const override;
  [[nodiscard]] std::vector<Ticket> List(const TicketFilter& filter, std::size_t limit) const override;
  [[nodiscard]] std::vector<Event> EventsOf(TicketNumber ticket, EventNumber after,
                                            std::size_t limit) const override;
  [[nodiscard]] std::vector<ArchiveName> Archives() const override;

 private:
  /// A ticket with all that belongs to it.
  struct Record {
    Ticket ticket;
    std::vector<Event> events;                  ///< In their order.
    std::map<std::uint64_t, Archive> archives;  ///< By version.
  };

  using Records = std::map<TicketNumber, Record>;

  static Ticket TicketOf(const Record& record);
  Record& RecordFor(const Entry& entry, Records& changed) const;
  template <typename Choice>
  std::vector<Ticket> TicketsThat(const Choice& choice, std::size_t limit) const;

  std::atomic<bool> fails_{false};
  mutable std::mutex mutex_;  ///< Guards all that follows.
  Records records_;
  std::map<TokenHash, TicketNumber> tokens_;
  EventNumber last_event_ = 0;
};

}  // namespace TarvoOrvane::SupportService
