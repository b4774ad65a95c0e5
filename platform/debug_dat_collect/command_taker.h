#pragma once

#include <string>

#include "collection_limits.h"
#include "command.h"
#include "redaction_rules.h"
#include "unfinished_archive.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {

/// Runs the commands of a collection and takes their output into its archive, by way of a spool file: an entry's size
/// has to be known first. Lives in the collector, used in one thread.
class CommandTaker {
 public:
  /// @param paths      Borrowed, as all others.
  /// @param rules      What is masked; null where redaction is off.
  /// @param folder_fd  The task folder, for the spool.
  CommandTaker(const Paths& paths, const Limits& limits, const RedactionRules* rules, int folder_fd,
               UnfinishedArchive& archive)
      : paths_(paths), limits_(limits), rules_(rules), folder_fd_(folder_fd), archive_(archive) {}

  /// Runs a command to its end or its limits, and records its output, or in the manifest's errors why there is none.
  /// @return false where it was not run or gave no output, so that another one may stand in for it.
  /// @throws ArchiveFailed
  bool Take(const CommandEntry& entry);

 private:
  /// Puts the command's own limits, the time that is left and the room for spool and archive together.
  /// @param allowed  Bytes of output that the archive may take.
  [[nodiscard]] CommandRequest Request(const CommandEntry& entry, std::uint64_t allowed);
  /// A file without a name in the task folder, which goes with its descriptor. Invalid where there is no room for one;
  /// the manifest says so then.
  [[nodiscard]] UniqueFd OpenSpool(const std::string& where);
  /// Moves what the command wrote from the spool into the archive, and records it under the entry's `name`, or why
  /// there is none.
  /// @return As Take().
  bool TakeOutput(const std::string& name, const CommandRequest& request, const CommandResult& result,
                  int spool_fd);

  const Paths& paths_;           ///< For Paths::programs.
  const Limits& limits_;         ///< For Limits::least_bytes.
  const RedactionRules* rules_;  ///< Null where redaction is off.
  int folder_fd_;                ///< Where the spool is made.
  UnfinishedArchive& archive_;   ///< What all is taken into.
};

}  // namespace TARVO::SupportForm
