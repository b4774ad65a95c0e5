/// What a service manager is told, by the protocol of sd_notify(3): text in datagrams to the socket that NOTIFY_SOCKET
/// names.
#pragma once

#include <string>

#include "unique_fd.h"

namespace DebugDatRun {

class ServiceManager {
 public:
  /// Takes NOTIFY_SOCKET out of the environment: the daemon has nothing to tell.
  ServiceManager();

  /// Whether there is one that wants to be told.
  [[nodiscard]] bool is_there() const { return fd_.valid(); }

  /// The service works.
  void TellReady(const std::string& status) const { Tell("READY=1\nSTATUS=" + status); }
  /// The one line that people see. Nothing is sent when it is the same as before.
  void TellStatus(const std::string& status);
  /// It was asked to read its configuration again; TellReady() says that this is done.
  void TellReloading() const;
  /// It ends.
  /// @param seconds  How long that may take; the manager's own limit may be shorter.
  void TellStopping(const std::string& status, long seconds) const;
  /// It needs more time to start.
  void TellStarting(const std::string& status, long seconds) const;

 private:
  void Tell(const std::string& text) const;

  TARVO::SupportForm::UniqueFd fd_;
  std::string status_;  ///< What TellStatus() told last.
};

}  // namespace DebugDatRun
