/// What a maker's description file tells of an application, as values. The collector takes what they name;
/// debug_dat_check and the dry run tell the maker what is wrong with the file. docs/log-collection.md has its format.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "collection_limits.h"

namespace TARVO::SupportForm {

/// Files of an application: all that one pattern matches.
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

/// There is no usable description; the text tells what is wrong and where: the file, then each member that is not as it
/// has to be, up to twenty.
class DescriptionError : public std::runtime_error {
 public:
  explicit DescriptionError(const std::string& text, int error = 0)
      : std::runtime_error(text), error_(error) {}

  /// Why the file can't be read, an errno value; 0 where something else is wrong with it.
  [[nodiscard]] int error() const { return error_; }

 private:
  int error_;
};

/// Whether `name` may name an application: a letter or digit, then up to 63 of letters, digits, '.', '_',
/// '-'. Such a name is safe as a file name, too.
[[nodiscard]] bool IsAppName(std::string_view name);

/// The words for something that was asked for and is no application's name; they quote it as JSON, whatever it is.
[[nodiscard]] std::string NotAnAppName(const Json::Value& asked);

/// Reads the description NAME.json of the application `name`, which IsAppName(). Afresh at each call, so that a changed
/// file counts from the next task on.
/// @throws DescriptionError when there is none, others could have changed it, or anything in it is not as it has to
///         be: a misspelt member must not lead to an archive that silently lacks something.
[[nodiscard]] AppDescription LoadAppDescription(const Paths& paths, const Limits& limits,
                                                const std::string& name);

/// The command that prints a unit's part of the journal, the newest entry last. A nameless unit: all of the journal.
/// @param limits  For the time that it may take: journalctl is no command of the maker's.
[[nodiscard]] CommandDescription JournalCommand(const UnitDescription& unit, const Limits& limits);

}  // namespace TARVO::SupportForm
