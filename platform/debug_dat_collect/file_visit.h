/// Finds the files that the pattern of a description stands for.
///
/// Every folder is opened by its bare name in the folder above, which is held open, and so is every file: whatever
/// other users rename or replace meanwhile, nothing leads out of the folders that were walked. Links are followed
/// only where a pattern names them letter by letter and nobody but root, or the user who runs this, could have put
/// them there: the link and every folder on the way to it belong to one of the two, and no one else may write to
/// those folders.
#pragma once

#include <sys/stat.h>

#include <string>

#include "collection_limits.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {

/// Receives what a pattern yields. Each operation returns false to end the visit.
class FileVisitor {
 public:
  virtual ~FileVisitor() = default;

  /// A regular file, open for reading, which is the visitor's from now on.
  /// @param path    As the pattern has it; links that were followed are not resolved in it.
  /// @param status  Its state when it was opened.
  virtual bool TakeFile(const std::string& path, UniqueFd fd, const struct stat& status) = 0;

  /// Something that is left out.
  /// @param why  For people: "a symbolic link, not followed".
  virtual bool LeaveOut(const std::string& path, const std::string& why) = 0;
};

/// Gives every file that the absolute shell pattern matches to `visitor`, in the order of their names; as in a
/// shell, a wildcard matches no leading dot. Folders that match are walked, hidden names included. Special files are
/// not opened. A folder that is met below itself, as a mount may make it, is left out. So is, where others may write
/// to the folder, a file with several names: one of them may have been given to a file of somebody else's. Whatever
/// can't be opened or read is left out with the system's text; nothing is thrown but by the visitor. Runs in the
/// collector, for one pattern after the other.
/// @param limits  folder_depth, folder_names and links count.
void VisitMatches(const std::string& pattern, const Limits& limits, FileVisitor& visitor);

}  // namespace TARVO::SupportForm
