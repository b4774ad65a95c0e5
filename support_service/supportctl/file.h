/// Files that are complete once they have their names.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace TarvoOrvane::Supportctl {

/// Owns a descriptor.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor();
  Descriptor(Descriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor& operator=(Descriptor&&) = delete;

  [[nodiscard]] int get() const { return fd_; }

 private:
  int fd_;
};

/// Writes all of it.
/// @param path  For the text of a failure, which each of these throws as a Failure: what can't be done, and why.
void WriteAll(const Descriptor& file, std::string_view bytes, const std::filesystem::path& path);

/// Brings to disk what was written to the file, or which names are in the folder.
void Sync(const Descriptor& file, const std::filesystem::path& path);
void SyncFolder(const std::filesystem::path& folder);

void Rename(const std::filesystem::path& from, const std::filesystem::path& to);

/// Makes the folder with mode 0700, and those above it, where it is missing.
void MakeFolder(const std::filesystem::path& folder);

/// Ends the program: what can't be done to the path, and why errno says so.
[[noreturn]] void FailWithErrno(const std::string& what, const std::filesystem::path& path);

}  // namespace TarvoOrvane::Supportctl
