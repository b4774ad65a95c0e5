#include "worker_connection.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "text_fields.h"

namespace DebugDatRun {
namespace {

constexpr unsigned kEstablishedState = 1;  // TCP_ESTABLISHED

/// Whether a descriptor's link leads to "socket:[INODE]".
bool IsSocket(std::string_view target, unsigned long& inode) {
  constexpr std::string_view kHead = "socket:[";
  if (target.substr(0, kHead.size()) != kHead || target.back() != ']') return false;
  return ReadNumber(target.substr(kHead.size(), target.size() - kHead.size() - 1), inode);
}

/// The inodes of the sockets that the process holds.
/// @return false where its descriptors are not shown.
bool ReadSockets(pid_t pid, std::vector<unsigned long>& inodes) {
  const std::string path = "/proc/" + std::to_string(pid) + "/fd";
  DIR* const folder = opendir(path.c_str());
  if (folder == nullptr) return false;
  bool is_shown = false;
  while (const dirent* entry = readdir(folder)) {
    std::array<char, 64> target = {};
    const std::string link = path + '/' + entry->d_name;
    if (readlink(link.c_str(), target.data(), target.size() - 1) < 0) continue;
    is_shown = true;
    unsigned long inode = 0;
    if (IsSocket(target.data(), inode)) inodes.push_back(inode);
  }
  closedir(folder);
  return is_shown;
}

/// Whether one of the established connections in a table of /proc/net is of that kind.
bool HasConnection(const char* table,
                   const std::function<bool(unsigned long inode, unsigned user)>& is_ours) {
  FILE* const file = fopen(table, "re");
  if (file == nullptr) return false;
  std::array<char, 512> line = {};
  bool found = false;
  while (!found && fgets(line.data(), static_cast<int>(line.size()), file) != nullptr) {
    // Slot, both addresses, state, queues, timer, retransmissions, user, timeout, inode. The first line has names.
    const std::vector<std::string_view> words = WordsOf(line.data());
    unsigned state = 0;
    unsigned user = 0;
    unsigned long inode = 0;
    found = words.size() > 9 && ReadNumber(words[3], state, 16) && ReadNumber(words[7], user) &&
            ReadNumber(words[9], inode) && state == kEstablishedState && is_ours(inode, user);
  }
  static_cast<void>(fclose(file));
  return found;
}

}  // namespace

Connection LookForConnection(pid_t worker) {
  std::vector<unsigned long> inodes;
  const bool are_shown = ReadSockets(worker, inodes);
  if (!are_shown && geteuid() == 0) return Connection::kUnknown;
  const auto is_ours = [&](unsigned long inode, unsigned user) {
    return are_shown ? std::find(inodes.begin(), inodes.end(), inode) != inodes.end() : user == geteuid();
  };
  // Of this program's own network, which the daemon shares.
  const bool found =
      HasConnection("/proc/self/net/tcp", is_ours) || HasConnection("/proc/self/net/tcp6", is_ours);
  return found ? Connection::kEstablished : Connection::kNone;
}

}  // namespace DebugDatRun
