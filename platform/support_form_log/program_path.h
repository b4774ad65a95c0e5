/// Where a command's program lies, by rules of its own: the collector runs what they find, and debug_dat_check tells
/// whether they find it.
#pragma once

#include <string>

#include "trusted_path.h"

namespace TARVO::SupportForm {

/// What the look-up of a program found.
struct ProgramPath {
  std::string path;   ///< Empty when there is none that may be run.
  Distrust distrust;  ///< Set when the only ones are such as others can change.
};

/// The program as given with a slash in it, be it there or not; otherwise in the first of the folders that holds one
/// which others can't change.
/// @param folders  Separated by colons. The caller's own PATH is not looked at.
[[nodiscard]] ProgramPath FindProgram(const std::string& name, const std::string& folders);

/// The folders in which nobody else can put programs, separated by colons as well.
[[nodiscard]] std::string TrustedFolders(const std::string& folders);

}  // namespace TARVO::SupportForm
