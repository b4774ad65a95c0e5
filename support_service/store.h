/// What the service remembers: tickets, their events, the hashes of their tokens and the facts about their archives;
/// devices and accounts; and who did what.
///
/// Everything above is written against this interface, and tested with the real store and one in memory. One thread
/// writes; any thread reads, and sees what was written before, whole batches at a time.
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "identity.h"
#include "ticket.h"

namespace TarvoOrvane::SupportService {

/// What the store could not do. The text is fit for the operator: what happened, and what to do.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// An event with what it comes with.
struct Entry {
  Event event;
  Ticket ticket;                    ///< After the event. Its archives are not looked at.
  std::optional<SecretHash> token;  ///< Of a delivery: one more that is the ticket's.
  std::optional<Archive>
      archive;  ///< Of an upload: one more that the ticket has. Of a deletion: it, as it is now.
};

/// A device was connected.
struct DeviceSeen {
  std::string serial_number;
  WallTime time;
  std::string address;
};

/// An account that is no more. Its sessions are no more either.
struct UserRemoved {
  std::string name;
};

/// All sessions of an account end.
struct SessionsEnded {
  std::string user;
};

/// One session ends.
struct SessionEnded {
  SecretHash secret{};
};

/// An API token that is no more.
struct ApiTokenRemoved {
  std::string id;
};

/// Retention deletes nothing before that time.
struct RetentionHeld {
  WallTime until;
};

/// Retention looked at the archives at that time.
struct RetentionLooked {
  WallTime time;
};

/// All tickets' ends up to this event were told by the webhook, and no later one; nothing where there is no webhook.
struct WebhookPosition {
  std::optional<EventNumber> told;
};

/// One thing to remember. A device, an account and a session take the place of what there is of that serial number,
/// name and secret.
using Change =
    std::variant<Entry, EnrolledDevice, DeviceSeen, User, UserRemoved, ApiToken, ApiTokenRemoved, Session,
                 SessionEnded, SessionsEnded, AuditRecord, RetentionHeld, RetentionLooked, WebhookPosition>;

/// Which tickets are listed.
struct TicketFilter {
  std::optional<std::string> device;  ///< Its serial number.
  std::optional<TicketState> state;
  TicketNumber before = 0;  ///< Only those with a smaller number; 0 for the newest ones.
};

/// An archive's place among the files.
struct ArchiveName {
  std::string ticket_id;
  std::uint64_t version = 0;
  bool deleted = false;  ///< It is known, and its file is to be gone.
};

/// What the archives amount to that are not deleted.
struct ArchiveTotals {
  std::uint64_t count = 0;
  std::uint64_t bytes = 0;
};

/// An archive that is not deleted, of a ticket that is at its end.
struct KeptArchive {
  TicketNumber ticket = 0;
  std::string ticket_id;
  std::uint64_t version = 0;
  std::uint64_t size_bytes = 0;
  WallTime received;
};

/// How many archives are kept of a device.
struct DeviceArchives {
  std::string serial_number;
  std::uint64_t count = 0;
};

class Store {
 public:
  virtual ~Store() = default;

  /// Remembers the changes in their order, all of them or none. What was written survives any end of the process and a
  /// power cut once this returns. Only one thread calls it at a time.
  /// @param changes  The numbers of events and audit records go on from LastEvent() and LastAudit().
  /// @throws StoreError when they could not be written. None of them is remembered then.
  virtual void Write(const std::vector<Change>& changes) = 0;

  /// 0 before the first one.
  [[nodiscard]] virtual EventNumber LastEvent() const = 0;
  /// 0 before the first one.
  [[nodiscard]] virtual TicketNumber LastTicket() const = 0;
  /// 0 before the first one.
  [[nodiscard]] virtual std::uint64_t LastAudit() const = 0;

  // Each of these throws StoreError when the store can't be read.

  /// The tickets that are not at their end, oldest first.
  [[nodiscard]] virtual std::vector<Ticket> OpenTickets() const = 0;
  [[nodiscard]] virtual std::optional<Ticket> Find(TicketNumber number) const = 0;
  /// @param beginning  Of an id, or a whole one.
  /// @return The tickets whose id begins so, at most `limit` of them.
  [[nodiscard]] virtual std::vector<Ticket> FindById(const std::string& beginning,
                                                     std::size_t limit) const = 0;
  /// The ticket whose token has this hash.
  [[nodiscard]] virtual std::optional<Ticket> FindByToken(const SecretHash& hash) const = 0;
  /// The newest ones that the filter lets through, newest first, at most `limit` of them.
  [[nodiscard]] virtual std::vector<Ticket> List(const TicketFilter& filter, std::size_t limit) const = 0;
  /// A ticket's events behind the one of that number, oldest first, at most `limit` of them.
  [[nodiscard]] virtual std::vector<Event> EventsOf(TicketNumber ticket, EventNumber after,
                                                    std::size_t limit) const = 0;
  /// The events of all tickets behind the one of that number, oldest first, at most `limit` of them.
  [[nodiscard]] virtual std::vector<Event> EventsAfter(EventNumber after, std::size_t limit) const = 0;
  /// Every archive of every ticket.
  [[nodiscard]] virtual std::vector<ArchiveName> Archives() const = 0;
  /// Of all tickets, open ones too. They are kept up with each change, and not added up here.
  [[nodiscard]] virtual ArchiveTotals KeptTotals() const = 0;
  /// The oldest kept archives of tickets that are at their end, oldest first, at most `limit` of them.
  /// @param device  Only those of this one's tickets.
  /// @param before  Only those that came before that time.
  [[nodiscard]] virtual std::vector<KeptArchive> OldestArchives(const std::optional<std::string>& device,
                                                                WallTime before, std::size_t limit) const = 0;
  /// The devices of which more archives are kept than that, those with most first, at most `limit` of them.
  /// @param behind  Only those that come behind this one in that order; nothing for the first ones.
  [[nodiscard]] virtual std::vector<DeviceArchives> DevicesWithMoreArchives(
      std::uint64_t than, const std::optional<DeviceArchives>& behind, std::size_t limit) const = 0;
  /// How many archives are kept of the device.
  [[nodiscard]] virtual std::uint64_t KeptOfDevice(const std::string& serial_number) const = 0;
  /// What was written last of that; nothing as long as nothing was. A store of an earlier version that had archives
  /// is held for a day.
  [[nodiscard]] virtual std::optional<WallTime> RetentionHeldUntil() const = 0;
  /// What was written last of that; nothing as long as nothing was.
  [[nodiscard]] virtual std::optional<WallTime> RetentionLookedAt() const = 0;

  [[nodiscard]] virtual std::optional<EnrolledDevice> FindDevice(const std::string& serial_number) const = 0;
  /// By serial number, at most `limit` of them.
  /// @param beginning  Only those whose serial number begins so.
  /// @param after      Only those whose serial number comes behind this one; empty for the first ones.
  [[nodiscard]] virtual std::vector<EnrolledDevice> Devices(const std::string& beginning,
                                                            const std::string& after,
                                                            std::size_t limit) const = 0;
  [[nodiscard]] virtual std::optional<User> FindUser(const std::string& name) const = 0;
  /// By name.
  [[nodiscard]] virtual std::vector<User> Users() const = 0;
  /// The API token whose secret has this hash.
  [[nodiscard]] virtual std::optional<ApiToken> FindApiToken(const SecretHash& secret) const = 0;
  /// In the order of their creation.
  [[nodiscard]] virtual std::vector<ApiToken> ApiTokens() const = 0;
  [[nodiscard]] virtual std::optional<Session> FindSession(const SecretHash& secret) const = 0;
  /// The newest records with a smaller number than `before` (0 for the newest ones), newest first, at most `limit`.
  [[nodiscard]] virtual std::vector<AuditRecord> Audit(std::uint64_t before, std::size_t limit) const = 0;
  /// The one that was written last; nothing before the first one.
  [[nodiscard]] virtual std::optional<EventNumber> ToldByWebhook() const = 0;
};

}  // namespace TarvoOrvane::SupportService
