/// What of the system every archive holds, below "system/". The two lists here are all there is: the collection takes
/// what stands in them and the dry run names it, so that a new entry is one line in one of them.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "collection_limits.h"
#include "command.h"

namespace TARVO::SupportForm {

/// What a source of the system's gave.
struct SystemText {
  std::optional<std::string> text;  ///< The entry's content; nothing where there is none.
  std::string note;   ///< What is missing in it, for the entry's "notes"; empty when nothing is.
  std::string error;  ///< What went wrong, for the manifest's "errors"; empty when nothing did.
};

/// A text about the system that the collector makes itself.
struct SystemSource {
  std::string name;    ///< The entry's: "system/df".
  std::string origin;  ///< Where its content comes from, for people: a path, or the interface that is asked.
  std::function<SystemText()>
      read;  ///< Makes the content. Holds what it needs; does not throw but std::bad_alloc.
};

/// The texts about the system, in the archive's order.
[[nodiscard]] std::vector<SystemSource> SystemSources(const Paths& paths, const Limits& limits);

/// The commands that print the system's log, the best one first. The archive has the output of the first that gives
/// any, behind the texts.
[[nodiscard]] std::vector<CommandEntry> SystemLogs(const Limits& limits);

}  // namespace TARVO::SupportForm
