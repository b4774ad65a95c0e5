#include "syslog_listener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <regex>
#include <system_error>
#include <utility>

namespace {

constexpr std::size_t kLargestDatagram = std::size_t{256} * 1024;

int BindDatagramSocket(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  unlink(path.c_str());
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0 ||
      bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::system_error(errno, std::generic_category(), "can't listen at " + path);
  }
  return fd;
}

/// @param sender  Receives the sender's process id.
/// @return false when nothing could be read.
bool ReceiveDatagram(int fd, std::vector<char>& buffer, std::string& datagram, pid_t& sender) {
  iovec vector = {buffer.data(), buffer.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))] = {};
  msghdr message = {};
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t size = recvmsg(fd, &message, 0);
  if (size < 0) {
    return false;
  }
  datagram.assign(buffer.data(), static_cast<std::size_t>(size));
  const cmsghdr* header = CMSG_FIRSTHDR(&message);
  if (header != nullptr && header->cmsg_type == SCM_CREDENTIALS) {
    ucred credentials = {};
    memcpy(&credentials, CMSG_DATA(header), sizeof(credentials));
    sender = credentials.pid;
  }
  return true;
}

pid_t ReadPid(const std::string& path) {
  pid_t pid = 0;
  std::ifstream(path) >> pid;
  return pid;
}

/// @return 0 when the process has gone.
pid_t ParentOf(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string word; status >> word;) {
    if (word == "PPid:") {
      pid_t parent = 0;
      status >> parent;
      return parent;
    }
  }
  return 0;
}

}  // namespace

const char* SyslogRoleName(SyslogRole role) {
  switch (role) {  // and no table: the compiler tells which one has no name yet
    case SyslogRole::kSupervisor:
      return "supervisor";
    case SyslogRole::kWorker:
      return "worker";
    case SyslogRole::kChild:
      return "child";
    case SyslogRole::kOther:
      break;
  }
  return "other";
}

SyslogLine ParseSyslogDatagram(const std::string& datagram) {
  static const std::regex kHead(
      R"(^<(\d+)>(?:[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d )?(?:([^\s:\[]+)(?:\[\d+\])?: )?)");
  SyslogLine line;
  std::smatch head;
  // A long text must not meet the regular expression: its matcher goes one call deeper per character.
  const std::string start = datagram.substr(0, 128);
  if (!std::regex_search(start, head, kHead)) {
    line.text = datagram;
    return line;
  }
  line.level = LOG_PRI(std::stoi(head[1].str()));
  line.ident = head[2].str();
  line.text = datagram.substr(static_cast<std::size_t>(head.length(0)));
  return line;
}

SyslogListener::SyslogListener(const std::string& socket_path, std::string pid_file)
    : pid_file_(std::move(pid_file)),
      socket_(BindDatagramSocket(socket_path)),
      stop_event_(eventfd(0, EFD_CLOEXEC)),
      thread_([this] { Collect(); }) {}

SyslogListener::~SyslogListener() {
  eventfd_write(stop_event_, 1);
  thread_.join();
  close(stop_event_);
  close(socket_);
}

std::vector<SyslogLine> SyslogListener::Lines() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

bool SyslogListener::WaitUntil(const std::function<bool(const std::vector<SyslogLine>&)>& condition,
                               std::chrono::milliseconds limit) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return arrived_.wait_for(lock, limit, [&] { return condition(lines_); });
}

void SyslogListener::Collect() {
  std::vector<char> buffer(kLargestDatagram);
  pollfd fds[] = {{socket_, POLLIN, 0}, {stop_event_, POLLIN, 0}};
  while (true) {
    if (poll(fds, 2, -1) < 0 && errno != EINTR) {
      return;
    }
    if ((fds[1].revents & POLLIN) != 0) {
      return;
    }
    std::string datagram;
    pid_t sender = 0;
    if ((fds[0].revents & POLLIN) == 0 || !ReceiveDatagram(socket_, buffer, datagram, sender)) {
      continue;
    }
    SyslogLine line = ParseSyslogDatagram(datagram);
    line.pid = sender;
    line.role = RoleOf(sender);
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(std::move(line));
    arrived_.notify_all();
  }
}

SyslogRole SyslogListener::RoleOf(pid_t pid) {
  const pid_t supervisor = ReadPid(pid_file_);
  if (supervisor > 0 && supervisor != supervisor_) {
    supervisor_ = supervisor;
    worker_known_ = false;
    roles_[supervisor] = SyslogRole::kSupervisor;
  }
  const auto known = roles_.find(pid);
  if (known != roles_.end()) {
    return known->second;
  }
  // The session tells of a child whose supervisor is gone: a daemon leads a session of its own.
  if (supervisor_ == 0 || (ParentOf(pid) != supervisor_ && getsid(pid) != supervisor_)) {
    return SyslogRole::kOther;
  }
  // The worker logs as soon as it runs; there is a transmission child only after it has handed a ticket over.
  const SyslogRole role = worker_known_ ? SyslogRole::kChild : SyslogRole::kWorker;
  worker_known_ = true;
  return roles_[pid] = role;
}
