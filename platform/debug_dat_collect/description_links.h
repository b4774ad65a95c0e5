/// The descriptions that come with the collector, and which of them count on this device: those to which a link lies in
/// the folder of descriptions. Whatever else lies there is the operator's own, and is never touched.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "collection_limits.h"

namespace TARVO::SupportForm {

/// Whether a description counts on this device.
enum class DescriptionState {
  kEnabled,     ///< A ready one, linked to.
  kAvailable,   ///< A ready one, not linked to.
  kOwn,         ///< A file or a link of the operator's.
  kBrokenLink,  ///< A link whose target is gone, whoever made it: nothing is taken for that name.
};

/// A description as --list shows it.
struct ListedDescription {
  std::string name;  ///< An application's.
  DescriptionState state = DescriptionState::kBrokenLink;
  std::string text;  ///< What it says of itself, or why it can't be used.
};

/// Looks at the descriptions of this device and at the ready ones, in the order of their names. Names that no
/// application can have are passed over: debug_dat_check tells of them.
/// @throws std::runtime_error  When a folder is there and can't be read.
[[nodiscard]] std::vector<ListedDescription> ListDescriptions(const Paths& paths, const Limits& limits);

/// Makes the ready description `name` count: makes the link, and the folder for it where there is none. A link to that of
/// a former installation, which is gone, is replaced.
/// @return false when it did count.
/// @throws std::runtime_error  When there is no such ready description, it can't be used, something of the operator's
///         has its name, or the link can't be made.
bool EnableDescription(const Paths& paths, const Limits& limits, const std::string& name);

/// Removes the link to the ready description `name`, also where its target is gone.
/// @return false when there is none.
/// @throws std::runtime_error  When there is no such ready description either, something of the operator's has its
///         name, or the link can't be removed.
bool DisableDescription(const Paths& paths, const std::string& name);

/// Prints what ListDescriptions() finds, a line each: the state, the name, the text.
void PrintDescriptions(const Paths& paths, const Limits& limits, std::ostream& out);

/// Enables or disables each of `names` and says so on `out`, a line each. A failure is a line on `err`, and the others
/// go on.
/// @return whether all went well.
[[nodiscard]] bool ChangeDescriptions(const Paths& paths, const Limits& limits,
                                      const std::vector<std::string>& names, bool enable, std::ostream& out,
                                      std::ostream& err);

}  // namespace TARVO::SupportForm
