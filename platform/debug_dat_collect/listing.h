#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "collection_limits.h"

namespace TARVO::SupportForm {

/// An entry that an archive would have.
struct ListedEntry {
  std::string name;                   ///< As in the archive.
  std::optional<std::uint64_t> size;  ///< Bytes that would be taken, where that can be told beforehand.
  std::string origin;                 ///< For people: the file's path, or the command with its arguments.
};

/// What an archive would hold. For the program's --dry-run, by which makers try their descriptions.
struct Listing {
  std::vector<ListedEntry>
      entries;  ///< In the archive's order; the manifest, always the last, not among them.
  std::vector<std::string> left_out;  ///< "where: why", as under "errors" in the manifest.
};

/// Tells what a collection for these applications would take now, without running or reading anything but the
/// descriptions and the folders' lists. What only the content tells is not told: a file that is no text and so would
/// be left out, an output's size, the space that the archive would need.
/// @param app_list  The applications' names, a JSON array; what is wrong with them is told in `left_out`.
[[nodiscard]] Listing ListArchive(const Paths& paths, const Limits& limits, const Json::Value& app_list);

}  // namespace TARVO::SupportForm
