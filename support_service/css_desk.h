/// What the file server and its requests have in common.
#pragma once

#include <mutex>

#include "archive_store.h"
#include "event_log.h"
#include "ticket_book.h"

namespace TarvoOrvane::SupportService {

/// What requests work with. CssServer has the one object; all requests share it, in the threads of the HTTP library.
struct CssDesk {
  TicketBook& book;           ///< Knows which token belongs to which ticket, and is told what came.
  const ArchiveStore& store;  ///< Where archives and records go.
  EventSink events;           ///< Each request's beginning and end become lines.

  /// Held from the reading of a ticket's state to the writing of its record. An upload and a report of one ticket may
  /// come at once; without it one record would lack what the other has.
  std::mutex record_mutex;
};

}  // namespace TarvoOrvane::SupportService
