#pragma once

#include <json/value.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "collection_limits.h"

namespace TARVO::SupportForm {

/// Files of an application.
struct PathDescription {
  std::string pattern;  ///< An absolute shell pattern.
  /// Whether files there that are not text may be taken though they can't be checked for secrets: the maker
  /// vouches for them.
  bool binary = false;
};

/// A command of an application.
struct CommandDescription {
  std::vector<std::string> argv;         ///< At least one; never given to a shell.
  unsigned time_limit_seconds = 0;       ///< From 1.
  std::uint64_t output_limit_bytes = 0;  ///< From 1.
};

/// A unit's part of the journal.
struct UnitDescription {
  std::string unit;                      ///< Name or pattern, as journalctl takes it.
  unsigned lines = 0;                    ///< How many of the newest entries; from 1.
  std::uint64_t output_limit_bytes = 0;  ///< From 1; the last bytes are taken.
  unsigned since_hours = 0;              ///< How far back; 0: as far as there are lines.
};

/// What one application's archive part is made of, as its description file tells.
struct AppDescription {
  std::string description;                   ///< For people; may be empty.
  std::vector<PathDescription> paths;        ///< Taken in this order.
  std::vector<CommandDescription> commands;  ///< Run in this order.
  std::vector<UnitDescription> units;        ///< Asked for in this order.
};

/// There is no usable description; the text tells what is wrong and where.
class DescriptionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Whether `name` may name an application: a letter or digit, then up to 63 of letters, digits, '.', '_',
/// '-'. Such a name is safe as a file name, too.
[[nodiscard]] bool IsAppName(std::string_view name);

/// For people, of something asked for that is no application's name.
[[nodiscard]] std::string NotAnAppName(const Json::Value& asked);

/// Reads the description NAME.json of the application `name`, which IsAppName().
/// @throws DescriptionError when there is none, others could have changed it, or anything in it is not as it has to
///         be: a misspelt member must not lead to an archive that silently lacks something.
[[nodiscard]] AppDescription LoadAppDescription(const Paths& paths, const Limits& limits,
                                                const std::string& name);

/// The command that prints a unit's part of the journal, the newest entry last. A nameless unit: all of the journal.
[[nodiscard]] CommandDescription JournalCommand(const UnitDescription& unit, const Limits& limits);

}  // namespace TARVO::SupportForm
