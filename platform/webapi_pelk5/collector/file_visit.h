#pragma once

#include <sys/stat.h>

#include <string>

#include "unique_fd.h"

namespace TARVO::SupportForm {

/// Receives what a pattern yields. Each operation returns false to end the visit.
class FileVisitor {
 public:
  virtual ~FileVisitor() = default;

  /// A regular file, open for reading.
  /// @param status  Its state when it was opened.
  virtual bool TakeFile(const std::string& path, UniqueFd fd, const struct stat& status) = 0;

  /// Something that is left out.
  /// @param why  For people: "a symbolic link, not followed".
  virtual bool LeaveOut(const std::string& path, const std::string& why) = 0;
};

/// Gives every file that the shell pattern matches to `visitor`, in the order of their names. Folders that
/// match are walked. Symbolic links at a match or below it are not followed; special files are not opened.
/// @param depth  Levels of folders that are walked, that of the matching folder included.
void VisitMatches(const std::string& pattern, unsigned depth, FileVisitor& visitor);

}  // namespace TARVO::SupportForm
