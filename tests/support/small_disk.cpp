#include "small_disk.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <utility>

namespace test_support {
namespace {

/// Writes the text in one piece, as the files below /proc want it.
bool WriteWhole(const char* file, const std::string& text) {
  std::ofstream stream(file);
  stream << text << std::flush;
  return stream.good();
}

}  // namespace

void LimitFileSize(rlim_t bytes) {
  const rlimit limit = {bytes, bytes};
  if (signal(SIGXFSZ, SIG_IGN) == SIG_ERR || setrlimit(RLIMIT_FSIZE, &limit) != 0) std::abort();
}

bool MountOwnTmpfs(const std::string& path, const std::string& options) {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  if (user != 0) {
    for (const auto& [file, text] : std::initializer_list<std::pair<const char*, std::string>>{
             {"/proc/self/setgroups", "deny"},
             {"/proc/self/uid_map", "0 " + std::to_string(user) + " 1"},
             {"/proc/self/gid_map", "0 " + std::to_string(group) + " 1"}}) {
      if (!WriteWhole(file, text)) return false;
    }
  }
  std::filesystem::create_directories(path);
  return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("none", path.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

bool MakeReadOnly(const std::string& path) {
  return mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
}

void FillDevice(const std::filesystem::path& folder) {
  const int fd = open((folder / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  std::string bytes(std::size_t{1} << 20, 'f');
  while (!bytes.empty()) {
    if (write(fd, bytes.data(), bytes.size()) <= 0) bytes.resize(bytes.size() / 2);
  }
  close(fd);
}

}  // namespace test_support
