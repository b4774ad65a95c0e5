#include "program_path.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <vector>

namespace TARVO::SupportForm {
namespace {

std::vector<std::string> Folders(const std::string& folders) {
  std::vector<std::string> list;
  std::istringstream stream(folders);
  for (std::string folder; std::getline(stream, folder, ':');) list.push_back(folder);
  return list;
}

}  // namespace

std::string TrustedFolders(const std::string& folders) {
  std::string trusted;
  for (const std::string& folder : Folders(folders)) {
    if (!OpenTrusted(folder, O_PATH | O_DIRECTORY).fd.valid()) continue;
    trusted += (trusted.empty() ? "" : ":") + folder;
  }
  return trusted;
}

// posix_spawnp() would search the caller's own PATH.
ProgramPath FindProgram(const std::string& name, const std::string& folders) {
  if (name.find('/') != std::string::npos) return {name, OpenTrusted(name, O_PATH).distrust};
  ProgramPath found;
  for (const std::string& folder : Folders(folders)) {
    const std::string path = std::string(folder).append("/").append(name);
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || access(path.c_str(), X_OK) != 0) {
      continue;
    }
    const Distrust distrust = OpenTrusted(path, O_PATH).distrust;
    if (!distrust) return {path, {}};
    if (!found.distrust) found.distrust = distrust;
  }
  return found;
}

}  // namespace TARVO::SupportForm
