/// A listener at /dev/log for a private /dev: what the daemon's processes send to syslog, each line with
/// the process that sent it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// Which of the daemon's processes sent a line.
enum class SyslogRole {
  kSupervisor,  ///< The process that the pid file names.
  kWorker,      ///< The first process of the supervisor's children or session that sent a line.
  kChild,       ///< A later one: a transmission child.
  kOther,       ///< A process of another kind, or one that ended before it could be looked at.
};

/// @return "supervisor", "worker", "child" or "other".
const char* SyslogRoleName(SyslogRole role);

/// One datagram.
struct SyslogLine {
  pid_t pid = 0;  ///< Who sent it, as the kernel says.
  SyslogRole role = SyslogRole::kOther;
  int level = 0;      ///< A syslog priority without its facility.
  std::string ident;  ///< The program's name, as the sender gives it.
  std::string text;   ///< As the program gave it to syslog().
};

/// Splits "<12>Nov 21 10:00:00 ident[7]: text" into level, ident and text; where a part is missing the rest
/// is text.
SyslogLine ParseSyslogDatagram(const std::string& datagram);

/// Binds the socket and collects lines until it is destroyed. A thread of its own empties the socket as
/// fast as it fills: a sender blocks once ten datagrams wait.
class SyslogListener {
 public:
  /// From the constructor's return on no line is lost.
  /// @param socket_path  Where syslog() sends to; a leftover socket is replaced.
  /// @param pid_file     The supervisor's.
  /// @throws std::system_error when the socket can't be bound.
  explicit SyslogListener(const std::string& socket_path = "/dev/log",
                          std::string pid_file = "/var/run/kestrix_debug_dat_transmitter.pid");
  ~SyslogListener();
  SyslogListener(const SyslogListener&) = delete;
  SyslogListener& operator=(const SyslogListener&) = delete;

  /// All lines so far, in the order of their arrival.
  [[nodiscard]] std::vector<SyslogLine> Lines() const;

  /// Waits until `condition` holds for the lines so far.
  /// @return false when it did not within `limit`.
  [[nodiscard]] bool WaitUntil(const std::function<bool(const std::vector<SyslogLine>&)>& condition,
                               std::chrono::milliseconds limit) const;

 private:
  void Collect();
  SyslogRole RoleOf(pid_t pid);

  std::string pid_file_;
  int socket_ = -1;
  int stop_event_ = -1;
  pid_t supervisor_ = 0;               ///< The last one seen in the pid file; only the thread's.
  bool worker_known_ = false;          ///< Whether that supervisor's worker was seen; only the thread's.
  std::map<pid_t, SyslogRole> roles_;  ///< A process keeps its role; only the thread's.
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::vector<SyslogLine> lines_;
  std::thread thread_;
};
