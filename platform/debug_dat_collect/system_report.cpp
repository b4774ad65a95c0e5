#include "system_report.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <ifaddrs.h>
#include <mntent.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "file_util.h"

namespace TARVO::SupportForm {
namespace {

constexpr std::size_t kProcFileBytes = 65536;
constexpr std::size_t kMountLineBytes = 8192;

/// The text of a small file; empty when it can't be read.
std::string ReadSmall(const std::string& path) {
  std::string text;
  bool more = false;
  static_cast<void>(ReadFileUpTo(path, kProcFileBytes, text, more));
  return text;
}

/// The rest of the line behind `key` in the lines "key value"; empty when there is none.
std::string LineValue(const std::string& text, const std::string& key) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(0, key.size(), key) != 0) continue;
    const std::size_t begin = line.find_first_not_of(" \t", key.size());
    return begin == std::string::npos ? std::string() : line.substr(begin);
  }
  return {};
}

std::string FirstWord(const std::string& text) { return text.substr(0, text.find_first_of(" \t\n")); }

/// Lines of which the longest are cut as far as is needed for all of them to fit: so many short ones tell more than
/// a few long ones.
class BoundedLines {
 public:
  explicit BoundedLines(std::size_t max_bytes) : max_bytes_(max_bytes) {}

  /// @param line  Without its end.
  void Add(std::string line) {
    if (lines_.size() >= max_bytes_ / kLeastLineBytes) {
      ++left_out_;
      return;
    }
    if (longest_ != 0 && line.size() > longest_) line.resize(longest_);
    line.shrink_to_fit();
    bytes_ += line.size() + 1;
    lines_.push_back(std::move(line));
    if (bytes_ > 2 * max_bytes_) Cut();
  }

  BoundedText Text() {
    if (bytes_ > max_bytes_) Cut();
    BoundedText result;
    result.text.reserve(bytes_);
    for (const std::string& line : lines_) result.text.append(line).push_back('\n');
    if (longest_ != 0) {
      result.note = "longer than " + std::to_string(max_bytes_) + " bytes: the longest lines are cut at " +
                    std::to_string(longest_) + " bytes";
    }
    if (left_out_ > 0) {
      result.note +=
          (result.note.empty() ? "" : ", and ") + std::to_string(left_out_) + " lines are left out";
    }
    return result;
  }

 private:
  /// Of lines of this length there is room for all that are kept.
  static constexpr std::size_t kLeastLineBytes = 64;

  [[nodiscard]] std::size_t BytesWith(std::size_t longest) const {
    std::size_t bytes = 0;
    for (const std::string& line : lines_) bytes += std::min(line.size(), longest) + 1;
    return bytes;
  }

  void Cut() {
    std::size_t fits = 0;
    std::size_t too_long = 2 * max_bytes_;
    while (fits + 1 < too_long) {
      const std::size_t middle = fits + (too_long - fits) / 2;
      (BytesWith(middle) <= max_bytes_ ? fits : too_long) = middle;
    }
    longest_ = fits;
    for (std::string& line : lines_) {
      if (line.size() <= longest_) continue;
      line.resize(longest_);
      line.shrink_to_fit();
    }
    bytes_ = BytesWith(longest_);
  }

  std::size_t max_bytes_;
  std::vector<std::string> lines_;
  std::size_t bytes_ = 0;     ///< Of the lines with their ends.
  std::size_t longest_ = 0;   ///< Longer ones are cut; 0: none was.
  std::size_t left_out_ = 0;  ///< Lines for which there was no room at all.
};

bool MayHang(const std::string& type) {
  static const std::set<std::string> kTypes = {"nfs",   "nfs4", "cifs",   "smb3",    "smbfs",     "9p",
                                               "ceph",  "afs",  "coda",   "ncpfs",   "glusterfs", "lustre",
                                               "ocfs2", "gfs2", "autofs", "virtiofs"};
  return kTypes.count(type) != 0 || type.compare(0, 4, "fuse") == 0;
}

void DiskLine(const mntent& mount, BoundedLines& lines) {
  std::ostringstream out;
  struct statvfs space = {};
  if (MayHang(mount.mnt_type)) {
    out << mount.mnt_dir << ' ' << mount.mnt_type << " not asked";
    return lines.Add(out.str());
  }
  if (statvfs(mount.mnt_dir, &space) != 0 || space.f_blocks == 0) return;
  const auto kib = [&](std::uint64_t blocks) { return blocks * space.f_frsize / 1024; };
  out << mount.mnt_fsname << ' ' << mount.mnt_type << ' ' << kib(space.f_blocks) << ' '
      << kib(space.f_blocks - space.f_bfree) << ' ' << kib(space.f_bavail) << ' ' << space.f_files << ' '
      << space.f_ffree << ' ' << mount.mnt_dir;
  lines.Add(out.str());
}

/// One process; nothing when it has ended meanwhile.
void ProcessLine(const std::string& folder, BoundedLines& lines) {
  const std::string stat = ReadSmall(folder + "/stat");
  const std::string status = ReadSmall(folder + "/status");
  // The name stands in parentheses and may itself hold some, and blanks.
  const std::size_t open = stat.find('(');
  const std::size_t close = stat.rfind(')');
  if (open == std::string::npos || close == std::string::npos) return;
  std::istringstream rest(stat.substr(close + 1));
  std::string state;
  std::string parent;
  rest >> state >> parent;
  std::string skipped;
  for (int field = 5; field < 22; ++field) rest >> skipped;
  std::string start;
  rest >> start;
  std::string command = ReadSmall(folder + "/cmdline");
  std::replace(command.begin(), command.end(), '\0', ' ');
  std::replace(command.begin(), command.end(), '\n', ' ');
  if (command.empty()) command = "[" + stat.substr(open + 1, close - open - 1) + "]";
  const std::string memory = FirstWord(LineValue(status, "VmRSS:"));
  std::ostringstream out;
  out << FirstWord(stat) << ' ' << parent << ' ' << FirstWord(LineValue(status, "Uid:")) << ' ' << state
      << ' ' << (memory.empty() ? "0" : memory) << ' ' << start << ' ' << command;
  lines.Add(out.str());
}

std::vector<unsigned long> ProcessIds(const std::string& proc) {
  std::vector<unsigned long> ids;
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(proc.c_str()), &closedir);
  if (!stream) return ids;
  while (const dirent* entry = readdir(stream.get())) {
    const std::string name = entry->d_name;
    if (name.size() < 10 && name.find_first_not_of("0123456789") == std::string::npos) {
      ids.push_back(std::stoul(name));
    }
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

/// Counts the leading one bits of a network mask.
int PrefixLength(const unsigned char* bytes, std::size_t count) {
  int length = 0;
  for (std::size_t i = 0; i < count; ++i) length += __builtin_popcount(bytes[i]);
  return length;
}

template <typename SockAddr>
const SockAddr* As(const sockaddr* address) {
  return static_cast<const SockAddr*>(static_cast<const void*>(address));
}

template <typename Addr>
std::string InternetAddress(const char* label, int family, const Addr& address, const Addr* mask) {
  std::array<char, INET6_ADDRSTRLEN> text = {};
  inet_ntop(family, &address, text.data(), text.size());
  std::string line = std::string(label) + text.data();
  const auto* bytes = static_cast<const unsigned char*>(static_cast<const void*>(mask));
  if (bytes != nullptr) line += "/" + std::to_string(PrefixLength(bytes, sizeof(Addr)));
  return line;
}

std::string LinkAddress(const sockaddr_ll& link) {
  std::string line = "link";
  for (unsigned i = 0; i < link.sll_halen && i < sizeof(link.sll_addr); ++i) {
    line += (i == 0 ? " " : ":") + HexText(&link.sll_addr[i], 1);
  }
  return line;
}

std::string AddressText(const ifaddrs& item) {
  switch (item.ifa_addr == nullptr ? AF_UNSPEC : item.ifa_addr->sa_family) {
    case AF_INET:
      return InternetAddress("inet ", AF_INET, As<sockaddr_in>(item.ifa_addr)->sin_addr,
                             item.ifa_netmask ? &As<sockaddr_in>(item.ifa_netmask)->sin_addr : nullptr);
    case AF_INET6:
      return InternetAddress("inet6 ", AF_INET6, As<sockaddr_in6>(item.ifa_addr)->sin6_addr,
                             item.ifa_netmask ? &As<sockaddr_in6>(item.ifa_netmask)->sin6_addr : nullptr);
    case AF_PACKET:
      return LinkAddress(*As<sockaddr_ll>(item.ifa_addr));
    default:
      return {};
  }
}

}  // namespace

std::string HostName() {
  utsname name = {};
  uname(&name);
  return name.nodename;
}

std::string UnameText() {
  utsname name = {};
  uname(&name);
  std::ostringstream out;
  out << name.sysname << ' ' << name.nodename << ' ' << name.release << ' ' << name.version << ' '
      << name.machine << '\n';
  return out.str();
}

std::string UptimeText(const std::string& proc) {
  return "seconds up: " + FirstWord(ReadSmall(proc + "/uptime")) + "\nload: " + ReadSmall(proc + "/loadavg") +
         "time: " + IsoTime(std::time(nullptr)) + "\n";
}

BoundedText DiskText(const std::string& proc, std::size_t max_bytes) {
  BoundedLines lines(max_bytes);
  lines.Add("FILESYSTEM TYPE SIZE_KIB USED_KIB AVAILABLE_KIB INODES INODES_FREE MOUNTED_ON");
  const std::unique_ptr<FILE, int (*)(FILE*)> mounts(setmntent((proc + "/self/mounts").c_str(), "re"),
                                                     &endmntent);
  mntent mount = {};
  std::vector<char> buffer(kMountLineBytes);
  while (mounts &&
         getmntent_r(mounts.get(), &mount, buffer.data(), static_cast<int>(buffer.size())) != nullptr) {
    DiskLine(mount, lines);
  }
  return lines.Text();
}

BoundedText ProcessText(const std::string& proc, std::size_t max_bytes) {
  BoundedLines lines(max_bytes);
  lines.Add("PID PPID UID STATE RSS_KIB START_TICKS COMMAND");
  for (const unsigned long id : ProcessIds(proc)) ProcessLine(proc + "/" + std::to_string(id), lines);
  return lines.Text();
}

std::string NetworkText() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return {};
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> release(list, &freeifaddrs);
  std::map<std::string, std::string> interfaces;  // Name to lines.
  for (const ifaddrs* item = list; item != nullptr; item = item->ifa_next) {
    std::string& lines = interfaces[item->ifa_name];
    if (lines.empty()) {
      lines = std::string(item->ifa_name) + ((item->ifa_flags & IFF_UP) != 0 ? " up" : " down") +
              ((item->ifa_flags & IFF_RUNNING) != 0 ? " running\n" : "\n");
    }
    const std::string address = AddressText(*item);
    if (!address.empty()) lines += "    " + address + "\n";
  }
  std::string text;
  for (const auto& [name, lines] : interfaces) text += lines;
  return text;
}

}  // namespace TARVO::SupportForm
