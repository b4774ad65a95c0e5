/// The store in memory, for tests of what is written against Store. A restart is to go on with the same object.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <vector>

#include "store.h"

namespace TarvoOrvane::SupportService {

class MemoryStore : public Store {
 public:
  /// From now on no Write() succeeds, or each does again. Any thread may call it.
  void FailWrites(bool fail) { fails_ = fail; }

  /// @throws StoreError also for what the store in a file refuses: a ticket, token or archive that is there already,
  ///         and an event of a ticket that was not created.
  void Write(const std::vector<Change>& changes) override;
  [[nodiscard]] EventNumber LastEvent() const override;
  [[nodiscard]] TicketNumber LastTicket() const override;
  [[nodiscard]] std::uint64_t LastAudit() const override;
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

 private:
  /// A ticket with all that belongs to it.
  struct Record {
    Ticket ticket;
    std::vector<Event> events;                  ///< In their order.
    std::map<std::uint64_t, Archive> archives;  ///< By version.
  };

  /// All that is remembered.
  struct Content {
    std::map<TicketNumber, Record> tickets;
    std::map<SecretHash, TicketNumber> tokens;
    std::map<std::string, EnrolledDevice> devices;
    std::map<std::string, User> users;
    std::map<std::string, ApiToken> api_tokens;
    std::map<SecretHash, Session> sessions;
    std::vector<AuditRecord> audit;
    std::optional<WallTime> retention_held;
    std::optional<WallTime> retention_looked;
    EventNumber last_event = 0;
    std::optional<EventNumber> webhook;
  };

  struct Writer;

  static Ticket TicketOf(const Record& record);
  template <typename Choice>
  std::vector<Ticket> TicketsThat(const Choice& choice, std::size_t limit) const;

  std::atomic<bool> fails_{false};
  mutable std::mutex mutex_;  ///< Guards all that follows.
  Content content_;
};

}  // namespace TarvoOrvane::SupportService
