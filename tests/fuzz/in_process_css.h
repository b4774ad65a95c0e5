/// The support service's file server in this process, without threads and without the net: requests come over a
/// socket pair and are worked on while the caller waits.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "css_server.h"
#include "fuzz_support.h"
#include "ticket_book.h"

namespace fuzz {

class InProcessCss {
 public:
  InProcessCss();

  /// The token and the id of a ticket that was delivered to a device.
  [[nodiscard]] const std::string& token() const { return token_; }
  [[nodiscard]] const std::string& ticket_id() const { return ticket_id_; }

  /// Sends the pieces one after the other, says that nothing more comes, and lets the server do its work. Ends the
  /// process unless the server ends the connection, and leaves no files but the ticket's own two, and logs nothing
  /// but printable lines without the token (a refused path is quoted, whatever is in it).
  /// @return What the server answered.
  [[nodiscard]] std::string Send(const std::vector<std::string>& pieces);

  /// A POST for the ticket, in the pieces that it is to be sent in: the head, and the body cut at each 0x1E, which is
  /// left out.
  [[nodiscard]] std::vector<std::string> Post(const std::string& path, const std::string& content_type,
                                              std::string_view body) const;

  /// Posts a body for the ticket, which has to have an answer.
  /// @return whether it was taken.
  [[nodiscard]] bool Takes(const std::string& path, const std::string& content_type, std::string_view body);

  /// What is known of the ticket.
  [[nodiscard]] TarvoOrvane::SupportService::TicketView Ticket() const;

 private:
  void CheckFiles() const;
  void CheckEvent(const std::string& event) const;

  test_support::TemporaryFolder folder_;
  TarvoOrvane::SupportService::TicketBook book_;
  std::string ticket_id_;
  std::string token_;
  TarvoOrvane::SupportService::ArchiveStore store_;
  std::optional<TarvoOrvane::SupportService::CssServer> server_;
};

}  // namespace fuzz
