/// What devices' requests over HTTP have in common.
#pragma once

#include <atomic>
#include <cstdint>

#include "archive_store.h"
#include "disk_room.h"
#include "disk_workers.h"
#include "dispatcher.h"
#include "event_log.h"
#include "metrics.h"
#include "store.h"

namespace TarvoOrvane::SupportService {

/// What requests work with. All of them share one object, in the threads of the HTTP library.
struct CssDesk {
  Dispatcher& dispatcher;        ///< Is told what came.
  const Store& store;            ///< Knows which token belongs to which ticket.
  const ArchiveStore& archives;  ///< Where archives go.
  DiskWorkers& disk;             ///< Waits until they are there.
  DiskRoom& room;                ///< Has to promise room before they come.
  Trust trust;                   ///< How devices are known.
  /// In bytes, with all that a form adds. May change at any time.
  const std::atomic<std::uint64_t>& largest_upload;
  LimitedEvents strangers;  ///< What anybody can cause becomes lines, as far as they are not too many.
  EventSink events;         ///< What devices with a ticket do.
  Metrics& metrics;         ///< Told of the limits that are met, and of refused uploads.
};

}  // namespace TarvoOrvane::SupportService
