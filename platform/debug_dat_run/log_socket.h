/// The socket to which syslog() sends, in the hands of this program.
#pragma once

#include <sys/types.h>

#include <string>

#include "unique_fd.h"

namespace DebugDatRun {

/// Where log lines arrive. Removes its file when it goes.
class LogSocket {
 public:
  LogSocket() = default;
  ~LogSocket();
  LogSocket(const LogSocket&) = delete;
  LogSocket& operator=(const LogSocket&) = delete;

  /// Binds the socket. One that no program listens at any more is replaced.
  /// @return false after it was said why not: the system's log has the place, or it can't be written to.
  [[nodiscard]] bool Bind(const std::string& path);

  /// Readable when a line is there; negative where the socket is not bound.
  [[nodiscard]] int fd() const { return fd_.get(); }

  /// Writes what has come to standard error, a line each. Returns after a bounded number of lines.
  void PassOn() const;

 private:
  std::string path_;
  ino_t inode_ = 0;  ///< Of the file that is this program's.
  TARVO::SupportForm::UniqueFd fd_;
};

}  // namespace DebugDatRun
