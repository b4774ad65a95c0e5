/// Files for the checks. The process that starts the checks owns them, so that nothing is left of them where a library
/// crashes or hangs.
#pragma once

#include <string>

namespace DebugDatPlatformTest {

class ScratchFolder {
 public:
  /// Made below the folder for temporary files. Where that can't be, only the checks that ask for a file are skipped.
  ScratchFolder();
  /// Removes all that is in it.
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  /// A path at which nothing is, in a new folder. For a check, in its child process.
  /// @throws CannotTell where there is no folder.
  [[nodiscard]] std::string NewPath(const char* name) const;

 private:
  std::string path_;  ///< Empty where it could not be made.
};

/// Replaces what is in the file.
/// @throws CannotTell where that fails.
void WriteText(const std::string& path, const std::string& text);

}  // namespace DebugDatPlatformTest
