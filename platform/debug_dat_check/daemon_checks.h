/// Checks of the running daemon, from outside: its pid file, what /proc shows of its processes, and its log. Nothing is
/// said to it.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "check.h"
#include "collection_limits.h"
#include "logger.h"
#include "process.h"

namespace DebugDatCheck {

/// The daemon's processes, as they were found.
struct DaemonProcesses {
  bool has_pid_file = false;
  int pid_file_error =
      0;  ///< Why it can't be read though it may be there, an errno value; nothing else is set then.
  std::optional<DebugDatRun::ProcessFacts> supervisor;  ///< That the pid file names.
  std::optional<DebugDatRun::ProcessFacts> worker;      ///< Its first child, where it runs.
  /// Running ones that do not belong to that supervisor. A second worker of the device is one.
  std::vector<DebugDatRun::ProcessFacts> strays;
};

/// @param pid_file  The daemon's.
/// @param all       Every process there is, zombies included.
[[nodiscard]] DaemonProcesses FindDaemon(const std::string& pid_file,
                                         const std::vector<DebugDatRun::ProcessFacts>& all);

/// The same, of this device. Processes in containers are not looked at, nor those of users who do not run the daemon.
[[nodiscard]] DaemonProcesses FindDaemon(const std::string& pid_file);

/// A user by number, and the user's group.
struct UserIds {
  uid_t user = 0;
  gid_t group = 0;
  std::vector<gid_t> groups;  ///< The others.
};

/// Whom the process runs as; nothing where it has gone.
[[nodiscard]] std::optional<UserIds> UserOf(pid_t process);

/// Tells whether the daemon runs as a whole, alone and from the installed files. That it does not run at all, and has
/// left no pid file either, is a warning: somebody may be setting the device up.
[[nodiscard]] Check CheckDaemon(const DaemonProcesses& daemon);

/// Looks at the socket of a device whose daemon is not root: the collector, which has to be, is started through it.
[[nodiscard]] Check CheckCollectorSocket(const std::string& path);

/// A ticket, as the daemon's log tells of it.
struct LoggedTicket {
  std::string time;  ///< When it came, as the log has it.
  std::string end;   ///< What came of it, for people.
};

/// The last ticket of a log, of which each line begins with its time.
[[nodiscard]] std::optional<LoggedTicket> LastTicketIn(std::string_view log);

/// One line that answers "is it working": the processes, the connection, since when, the last ticket and its end.
/// @param configuration  The daemon's: a connection of a unix socket counts where the notification address is one.
/// @param logger         Where the daemon's log may lie in place of the system's journal.
/// @param paths          For the program that reads the journal.
/// @return kOk where the daemon runs and has a connection, or it can't be told whether it has one.
[[nodiscard]] Check DaemonStatus(const DaemonProcesses& daemon, const std::string& configuration,
                                 const TarvoOrvane::Internal::LoggerOptions& logger,
                                 const TARVO::SupportForm::Paths& paths);

}  // namespace DebugDatCheck
