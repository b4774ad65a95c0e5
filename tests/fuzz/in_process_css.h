/// The support service's file server in this process, without the net: requests come over a socket pair and are worked
/// on while the caller waits. Only the dispatcher has a thread of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "css_desk.h"
#include "fuzz_support.h"
#include "http_server.h"
#include "sqlite_store.h"

namespace fuzz {

class InProcessCss {
 public:
  InProcessCss();

  /// The token of a ticket that a device has accepted and that has no results yet. Makes such a one where the last one
  /// has some.
  [[nodiscard]] const std::string& Token();

  /// Sends the pieces one after the other, says that nothing more comes, and lets the server do its work. Ends the
  /// process unless the server ends the connection, and leaves no files but the ticket's archives, and logs nothing
  /// but printable lines without the token (a refused path is quoted, whatever is in it).
  /// @return What the server answered.
  [[nodiscard]] std::string Send(const std::vector<std::string>& pieces);

  /// A POST for the ticket, in the pieces that it is to be sent in: the head, and the body cut at each 0x1E, which is
  /// left out.
  [[nodiscard]] std::vector<std::string> Post(const std::string& path, const std::string& content_type,
                                              std::string_view body);

  /// Posts a body for the ticket, which has to have an answer.
  /// @return whether it was taken.
  [[nodiscard]] bool Takes(const std::string& path, const std::string& content_type, std::string_view body);

  /// What is known of the ticket whose token was handed out last.
  [[nodiscard]] TarvoOrvane::SupportService::Ticket Ticket() const;

  /// Waits until the dispatcher has done what was posted so far.
  void Settle();

 private:
  void EndTicket();
  void NextTicket();
  void CheckFiles() const;
  void CheckEvent(const std::string& event) const;

  test_support::TemporaryFolder folder_;
  TarvoOrvane::SupportService::TicketNumber ticket_ = 0;
  std::string token_;  ///< Of the last delivery; empty before the first.
  TarvoOrvane::SupportService::ArchiveStore archives_;
  TarvoOrvane::SupportService::SqliteStore store_;
  TarvoOrvane::SupportService::Metrics metrics_;
  std::atomic<std::uint64_t> largest_upload_{std::uint64_t{1} << 30};  ///< More than any input has.
  TarvoOrvane::SupportService::DiskRoom room_;
  TarvoOrvane::SupportService::Dispatcher dispatcher_;
  TarvoOrvane::SupportService::DiskWorkers disk_;
  std::optional<TarvoOrvane::SupportService::CssDesk> desk_;
  std::optional<TarvoOrvane::SupportService::HttpServer> server_;
};

}  // namespace fuzz
