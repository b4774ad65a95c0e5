/// The service's limits: how they are called, and those that nobody can change.
#pragma once

#include <cstddef>

namespace TarvoOrvane::SupportService {

/// What is limited. Each has a name in the metrics and in the API, which says its unit.
enum class Limit {
  kUploadBytes,
  kFreeBytes,
  kStreams,
  kSilentStreams,
  kConnectionsPerAddress,
  kQueuedTicketsPerDevice,
  kOpenTickets,
  kArchives,
  kArchiveBytes,
  kArchiveDays,
  kArchivesPerDevice,
  kArchivesPerTicket,
  kNoteCharacters,
  kTicketBytes,
  kReasonBytes,
  kReportBytes,
  kFormTextBytes,
  kRequestBytes
};

/// Every limit, in the order of the enumeration.
inline constexpr Limit kLimits[] = {Limit::kUploadBytes,
                                    Limit::kFreeBytes,
                                    Limit::kStreams,
                                    Limit::kSilentStreams,
                                    Limit::kConnectionsPerAddress,
                                    Limit::kQueuedTicketsPerDevice,
                                    Limit::kOpenTickets,
                                    Limit::kArchives,
                                    Limit::kArchiveBytes,
                                    Limit::kArchiveDays,
                                    Limit::kArchivesPerDevice,
                                    Limit::kArchivesPerTicket,
                                    Limit::kNoteCharacters,
                                    Limit::kTicketBytes,
                                    Limit::kReasonBytes,
                                    Limit::kReportBytes,
                                    Limit::kFormTextBytes,
                                    Limit::kRequestBytes};

/// "upload_bytes" and so on.
[[nodiscard]] constexpr const char* ToText(Limit limit) {
  switch (limit) {
    case Limit::kUploadBytes:
      return "upload_bytes";
    case Limit::kFreeBytes:
      return "free_bytes";
    case Limit::kStreams:
      return "streams";
    case Limit::kSilentStreams:
      return "silent_streams";
    case Limit::kConnectionsPerAddress:
      return "connections_per_address";
    case Limit::kQueuedTicketsPerDevice:
      return "queued_tickets_per_device";
    case Limit::kOpenTickets:
      return "open_tickets";
    case Limit::kArchives:
      return "archives";
    case Limit::kArchiveBytes:
      return "archive_bytes";
    case Limit::kArchiveDays:
      return "archive_days";
    case Limit::kArchivesPerDevice:
      return "archives_per_device";
    case Limit::kArchivesPerTicket:
      return "archives_per_ticket";
    case Limit::kNoteCharacters:
      return "note_characters";
    case Limit::kTicketBytes:
      return "ticket_bytes";
    case Limit::kReasonBytes:
      return "reason_bytes";
    case Limit::kReportBytes:
      return "report_bytes";
    case Limit::kFormTextBytes:
      return "form_text_bytes";
    case Limit::kRequestBytes:
      return "request_bytes";
  }
  return "unknown";
}

/// Of a ticket's note.
inline constexpr std::size_t kMaxNoteCharacters = 1000;
/// Of a ticket with its token and applications: what the daemon's pipe to its main process takes.
inline constexpr std::size_t kMaxTicketBytes = 2047;
/// Of the reason that a device gives with an answer. What is longer is cut.
inline constexpr std::size_t kMaxReasonBytes = 512;
/// Of a device's report; one has less than a hundredth of it.
inline constexpr std::size_t kMaxReportBytes = std::size_t{64} * 1024;
/// Of all text parts of an upload's form together: far more than a serial number and the longest list of applications.
inline constexpr std::size_t kMaxFormTextBytes = std::size_t{64} * 1024;
/// Of a request's body to the API: a note and a long list of applications fit in.
inline constexpr std::size_t kMaxRequestBytes = std::size_t{64} * 1024;

}  // namespace TarvoOrvane::SupportService
