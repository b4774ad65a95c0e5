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

using Words = std::vector<std::string_view>;

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

/// Whether a line of one of the tables in /proc/PID/net fits. Where the worker's is not shown, this program's own
/// network is looked at.
bool HasLine(pid_t worker, const std::string& table, const std::function<bool(const Words&)>& fits) {
  FILE* file = fopen(("/proc/" + std::to_string(worker) + "/net/" + table).c_str(), "re");
  if (file == nullptr) file = fopen(("/proc/self/net/" + table).c_str(), "re");
  if (file == nullptr) return false;
  std::array<char, 512> line = {};
  bool found = false;
  while (!found && fgets(line.data(), static_cast<int>(line.size()), file) != nullptr) {
    found = fits(WordsOf(line.data()));
  }
  static_cast<void>(fclose(file));
  return found;
}

/// What a line of the tables "tcp" and "tcp6" tells of an established connection: slot, both addresses, state, queues,
/// timer, retransmissions, user, timeout, inode.
/// @return false for all other lines. The first has the columns' names.
bool IsTcpConnection(const Words& words, unsigned long& inode, unsigned& user) {
  constexpr std::string_view kEstablishedState = "01";
  return words.size() > 9 && words[3] == kEstablishedState && ReadNumber(words[7], user) &&
         ReadNumber(words[9], inode);
}

/// The same of the table "unix": address, references, protocol, flags, type, state, inode, and a path that the one
/// that connected does not have.
bool IsUnixConnection(const Words& words, unsigned long& inode) {
  constexpr std::string_view kStream = "0001";  // not SOCK_DGRAM, as the system's log has it
  constexpr std::string_view kConnected = "03";
  return words.size() > 6 && words[4] == kStream && words[5] == kConnected && ReadNumber(words[6], inode);
}

}  // namespace

Connection LookForConnection(pid_t worker) {
  std::vector<unsigned long> inodes;
  const bool are_shown = ReadSockets(worker, inodes);
  if (!are_shown && geteuid() == 0) return Connection::kUnknown;
  const auto is_held = [&](unsigned long inode) {
    return std::find(inodes.begin(), inodes.end(), inode) != inodes.end();
  };
  const auto is_tcp = [&](const Words& words) {
    unsigned long inode = 0;
    unsigned user = 0;
    return IsTcpConnection(words, inode, user) && (are_shown ? is_held(inode) : user == geteuid());
  };
  const auto is_unix = [&](const Words& words) {
    unsigned long inode = 0;
    return IsUnixConnection(words, inode) && is_held(inode);
  };
  if (HasLine(worker, "tcp", is_tcp) || HasLine(worker, "tcp6", is_tcp)) return Connection::kEstablished;
  return HasLine(worker, "unix", is_unix) ? Connection::kUnixSocket : Connection::kNone;
}

}  // namespace DebugDatRun
