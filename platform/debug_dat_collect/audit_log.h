#pragma once

#include <json/value.h>

#include <cstdint>
#include <ctime>
#include <string>

#include "archive_writer.h"

namespace TARVO::SupportForm {

/// What the device's owner is told about one collection.
struct AuditRecord {
  std::time_t time = 0;  ///< When the archive was complete.
  std::string task_id;   ///< The task that made it for a ticket; empty for the command line.
  Json::Value
      app_list;  ///< What was asked for. Names of applications are recorded, anything else only counted.
  bool redaction = true;   ///< Whether secrets were masked.
  ArchiveSummary archive;  ///< What was made.
};

/// The record as one line of JSON, with its line end. Nothing in it can hold a token: what is no application's name
/// is not quoted. The collector makes one for each archive that is complete.
[[nodiscard]] std::string AuditLine(const AuditRecord& record);

/// Appends the line to the log file in one write, under a lock that all processes share. A log that would pass
/// `max_bytes` is kept as `path`.1 in the place of a former one, and a new one begun. Both have mode 0600.
/// @param wait_ms  For how long a lock that somebody else holds is waited for; each of us holds it for one write.
/// @throws std::runtime_error  When the line can't be written, the lock was not to be had, or something else lies in
///         the log's place. The text names the file. Nothing of the line is in the log then, unless the device is full.
void AppendAuditLine(const std::string& path, std::uint64_t max_bytes, const std::string& line,
                     unsigned wait_ms = 5'000);

}  // namespace TARVO::SupportForm
