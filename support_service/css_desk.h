/// What the file server and its requests have in common.
#pragma once

#include <mutex>

#include "archive_store.h"
#include "event_log.h"
#include "ticket_book.h"

namespace TarvoOrvane::SupportService {

/// What requests work with; shared by all of them, in the threads of the HTTP library.
struct CssDesk {
  TicketBook& book;
  const ArchiveStore& store;
  EventSink events;
  std::mutex record_mutex;  ///< Held from a record's reading to its writing, so that none is lost.
};

}  // namespace TarvoOrvane::SupportService
