#include "scratch_folder.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "check.h"

namespace DebugDatPlatformTest {
namespace {

namespace fs = std::filesystem;

/// @param name  Ends in XXXXXX.
/// @return The folder's path; empty where it could not be made.
std::string MakeFolder(std::string name) { return mkdtemp(name.data()) == nullptr ? "" : name; }

}  // namespace

ScratchFolder::ScratchFolder() {
  std::error_code error;
  const fs::path parent = fs::temp_directory_path(error);
  if (!error) path_ = MakeFolder(parent / "debug_dat_platform_test.XXXXXX");
}

ScratchFolder::~ScratchFolder() {
  std::error_code ignored;
  if (!path_.empty()) fs::remove_all(path_, ignored);
}

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  file << text << std::flush;
  if (!file) throw CannotTell("can't write " + path);
}

std::string ScratchFolder::NewPath(const char* name) const {
  const std::string folder = path_.empty() ? "" : MakeFolder(path_ + "/XXXXXX");
  if (folder.empty()) throw CannotTell("there is no folder for temporary files");
  return folder + '/' + name;
}

}  // namespace DebugDatPlatformTest
