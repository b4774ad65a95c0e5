#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "collection_limits.h"

namespace TARVO::SupportForm {

/// A command of an application.
struct CommandDescription {
  std::vector<std::string> argv;    ///< At least one; never given to a shell.
  unsigned time_limit_seconds = 0;  ///< From 1.
};

/// What one application's archive part is made of, as its description file tells.
struct AppDescription {
  std::string description;                   ///< For people; may be empty.
  std::vector<std::string> paths;            ///< Absolute shell patterns.
  std::vector<CommandDescription> commands;  ///< Run in this order.
};

/// There is no usable description; the text tells what is wrong and where.
class DescriptionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Whether `name` may name an application: a letter or digit, then up to 63 of letters, digits, '.', '_',
/// '-'. Such a name is safe as a file name, too.
[[nodiscard]] bool IsAppName(std::string_view name);

/// Reads the description NAME.json of the application `name`, which IsAppName().
/// @throws DescriptionError when there is none, or anything in it is not as it has to be: a misspelt member must
///         not lead to an archive that silently lacks something.
[[nodiscard]] AppDescription LoadAppDescription(const Paths& paths, const Limits& limits,
                                                const std::string& name);

}  // namespace TARVO::SupportForm
