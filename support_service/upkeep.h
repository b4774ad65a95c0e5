/// What operators of the service look after, beside its devices and tickets.
#pragma once

#include <atomic>
#include <cstdint>

#include "backup_maker.h"
#include "disk_room.h"
#include "server_identity.h"

namespace TarvoOrvane::SupportService {

/// What became of the calls of the webhook. Its thread counts, any thread may read.
struct WebhookCounts {
  std::atomic<bool> is_on{false};         ///< There is a webhook.
  std::atomic<std::uint64_t> waiting{0};  ///< Ends of tickets that are to be told.
  /// Calls that were answered by success, since the service's start.
  std::atomic<std::uint64_t> delivered{0};
  std::atomic<std::uint64_t> failed{0};    ///< Calls that were not.
  std::atomic<std::uint64_t> given_up{0};  ///< Ends of tickets that are not tried any more.
};

struct Upkeep {
  BackupMaker& backups;
  const ServerIdentity& identity;
  const DiskRoom& room;
  const WebhookCounts& webhook;
};

}  // namespace TarvoOrvane::SupportService
