#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "archive_writer.h"
#include "collection_limits.h"

namespace TARVO::SupportForm {

/// What is asked of a collection.
struct CollectionRequest {
  std::string task_id;   ///< Stands in the manifest: the task's id, or who else asked.
  Json::Value app_list;  ///< The applications' names; what is wrong with them becomes lines in the manifest.
  /// Whether secrets are masked and what can't be checked is left out. Always so for what a ticket asks for.
  bool redact = true;
};

/// What a collection came to.
struct CollectionSummary {
  ArchiveSummary archive;    ///< What lies in the folder now.
  std::uint64_t errors = 0;  ///< Lines under "errors" in the manifest: what was left out or went wrong.
};

/// Makes an archive in a folder: writes it under a temporary name and gives it its own, kArchiveFile, when it is
/// complete. The file is its owner's alone, mode 0600. Runs in the collector, for a ticket or for the command line.
///
/// What can't be taken is a line in the manifest. Where the archive can't be written on, one of the manifest alone
/// takes its place, which says why.
/// @param folder_fd  The task folder, which also gets the progress file and the spool; borrowed.
/// @throws std::exception when it can't be made; nothing of it is left then.
CollectionSummary MakeArchive(const Paths& paths, const Limits& limits, int folder_fd,
                              const CollectionRequest& request);

}  // namespace TARVO::SupportForm
