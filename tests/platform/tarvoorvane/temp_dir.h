#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace TarvoOrvane::Testing {

/// A folder of its own for one test, removed with everything in it.
class TempDir {
 public:
  TempDir() {
    umask(022);  // what others may write to is not trusted
    std::string name = std::filesystem::temp_directory_path() / "tarvoorvane_test_XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = name;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string File(const std::string& name) const { return path_ / name; }

  /// Writes a file and returns its path.
  std::string Write(const std::string& name, const std::string& text) const {
    std::ofstream(File(name), std::ios::binary) << text;
    return File(name);
  }

  std::string Read(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(File(name), std::ios::binary).rdbuf();
    return text.str();
  }

 private:
  std::filesystem::path path_;
};

}  // namespace TarvoOrvane::Testing
