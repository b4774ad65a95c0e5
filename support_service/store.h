/// What the service remembers: tickets, their events, the hashes of their tokens and the facts about their archives.
///
/// Everything above is written against this interface, and tested with the real store and one in memory. One thread
/// writes; any thread reads, and sees what was written before, whole batches at a time.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "ticket.h"

namespace TarvoOrvane::SupportService {

/// SHA-256 of a token. The token itself is written nowhere.
using TokenHash = std::array<unsigned char, 32>;

/// What the store could not do. The text is fit for the operator: what happened, and what to do.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// An event with what it comes with.
struct Entry {
  Event event;
  Ticket ticket;                   ///< After the event. Its archives are not looked at.
  std::optional<TokenHash> token;  ///< Of a delivery: one more that is the ticket's.
  std::optional<Archive> archive;  ///< Of an upload: one more that the ticket has.
};

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
};

class Store {
 public:
  virtual ~Store() = default;

  /// Remembers the entries, all of them or none. What was written survives any end of the process and a power cut once
  /// this returns. Only one thread calls it at a time.
  /// @param entries  Their events' numbers go on from LastEvent().
  /// @throws StoreError when they could not be written. None of them is remembered then.
  virtual void Write(const std::vector<Entry>& entries) = 0;

  /// 0 before the first one.
  [[nodiscard]] virtual EventNumber LastEvent() const = 0;
  /// 0 before the first one.
  [[nodiscard]] virtual TicketNumber LastTicket() const = 0;

  // Each of these throws StoreError when the store can't be read.

  /// The tickets that are not at their end, oldest first.
  [[nodiscard]] virtual std::vector<Ticket> OpenTickets() const = 0;
  [[nodiscard]] virtual std::optional<Ticket> Find(TicketNumber number) const = 0;
  /// @param beginning  Of an id, or a whole one.
  /// @return The tickets whose id begins so, at most `limit` of them.
  [[nodiscard]] virtual std::vector<Ticket> FindById(const std::string& beginning,
                                                     std::size_t limit) const = 0;
  /// The ticket whose token has this hash.
  [[nodiscard]] virtual std::optional<Ticket> FindByToken(const TokenHash& hash) const = 0;
  /// The newest ones that the filter lets through, newest first, at most `limit` of them.
  [[nodiscard]] virtual std::vector<Ticket> List(const TicketFilter& filter, std::size_t limit) const = 0;
  /// A ticket's events behind the one of that number, oldest first, at most `limit` of them.
  [[nodiscard]] virtual std::vector<Event> EventsOf(TicketNumber ticket, EventNumber after,
                                                    std::size_t limit) const = 0;
  /// Every archive of every ticket.
  [[nodiscard]] virtual std::vector<ArchiveName> Archives() const = 0;
};

}  // namespace TarvoOrvane::SupportService
