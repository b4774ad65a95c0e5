#include "log_socket.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "log_line.h"
#include "standard_error.h"

namespace DebugDatRun {

using TARVO::SupportForm::UniqueFd;

namespace {

constexpr int kLinesAtOnce = 64;
/// Whatever stands behind them in a datagram would not be shown.
constexpr std::size_t kReadBytes = 2 * kLongestLine;

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

/// Whether a program listens there, be it for datagrams or, which shows as EPROTOTYPE, for a stream.
bool HasListener(const std::string& path) {
  const sockaddr_un address = AddressOf(path);
  const UniqueFd probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ||
         errno == EPROTOTYPE;
}

/// Removes what a former listener has left: its socket, or a link to where its socket was.
/// @return Whether nothing is in the way.
bool RemoveStale(const std::string& path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) return true;
  if (!S_ISSOCK(status.st_mode) && !S_ISLNK(status.st_mode)) {
    Say(LOG_ERR, "%s is neither a socket nor a link: --log-to-stderr leaves it alone. Remove it",
        path.c_str());
    return false;
  }
  if (unlink(path.c_str()) == 0) return true;
  Say(LOG_ERR, "can't replace %s: %s", path.c_str(), strerror(errno));
  return false;
}

/// The sender's process; 0 where the kernel does not tell.
pid_t SenderOf(msghdr& message) {
  const cmsghdr* const header = CMSG_FIRSTHDR(&message);
  ucred credentials = {};
  if (header != nullptr && header->cmsg_type == SCM_CREDENTIALS) {
    memcpy(&credentials, CMSG_DATA(header), sizeof(credentials));
  }
  return credentials.pid;
}

/// @return false when nothing has come.
bool PassOneOn(int fd) {
  std::array<char, kReadBytes> text = {};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control = {};
  iovec vector = {text.data(), text.size()};
  msghdr message = {};
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  const ssize_t size = recvmsg(fd, &message, 0);
  if (size < 0) return false;
  const bool is_cut = (message.msg_flags & MSG_TRUNC) != 0;
  const LogLine line =
      ReadableLogLine({text.data(), static_cast<std::size_t>(size)}, SenderOf(message), is_cut);
  WriteLine(line.level, line.text);
  return true;
}

}  // namespace

bool LogSocket::Bind(const std::string& path) {
  if (HasListener(path)) {
    Say(LOG_ERR,
        "another program takes the log lines at %s already: --log-to-stderr is for a /dev of the daemon's "
        "own, as in a "
        "container. Leave it out, or stop that program",
        path.c_str());
    return false;
  }
  if (!RemoveStale(path)) return false;
  const sockaddr_un address = AddressOf(path);
  const int on = 1;
  UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  struct stat status = {};
  if (!fd.valid() || setsockopt(fd.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0 ||
      bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      chmod(path.c_str(), 0666) != 0 || lstat(path.c_str(), &status) != 0) {
    Say(LOG_ERR, "can't take log lines at %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  path_ = path;
  inode_ = status.st_ino;
  fd_ = std::move(fd);
  return true;
}

LogSocket::~LogSocket() {
  struct stat status = {};
  if (fd_.valid() && lstat(path_.c_str(), &status) == 0 && status.st_ino == inode_) unlink(path_.c_str());
}

void LogSocket::PassOn() const {
  for (int lines = 0; fd_.valid() && lines < kLinesAtOnce && PassOneOn(fd_.get()); ++lines) {
  }
}

}  // namespace DebugDatRun
