/// A folder of its own for a test, and files as texts.
#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace test_support {

/// The file's content; empty when it can't be read.
[[nodiscard]] inline std::string ReadFile(const std::filesystem::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

/// Makes the folders above it too.
/// @throws std::runtime_error when it can't be written.
inline void WriteFile(const std::filesystem::path& path, std::string_view text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  file << text << std::flush;
  if (!file) throw std::runtime_error("can't write " + path.string());
}

/// The permissions of a file or folder.
/// @throws std::runtime_error when there is none.
[[nodiscard]] inline unsigned ModeOf(const std::filesystem::path& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) == -1) throw std::runtime_error("there is no " + path.string());
  return status.st_mode & 07777U;
}

/// A new folder below the system's for temporary files, removed with everything in it.
class TemporaryFolder {
 public:
  /// Gives the process the usual umask: what others may write to the programs do not trust.
  /// @throws std::runtime_error when there is no room for it.
  TemporaryFolder() {
    umask(022);
    std::string name = std::filesystem::temp_directory_path() / "ddt_test.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
    path_ = name;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  [[nodiscard]] std::string File(const std::string& name) const { return path_ / name; }

  /// Writes a file in the folder and returns its path.
  std::string Write(const std::string& name, std::string_view text) const {
    WriteFile(path_ / name, text);
    return File(name);
  }
  [[nodiscard]] std::string Read(const std::string& name) const { return ReadFile(path_ / name); }

 private:
  std::filesystem::path path_;
};

}  // namespace test_support
