/// One run of the daemon, from its start to the end of its last process.
///
/// Nothing is said to the daemon but by the signals that it knows, and nothing is read of it but its pid file and what
/// /proc shows. Its supervisor detaches itself and comes back as an orphan, for this process is the reaper of its
/// descendants; so do a transmission child whose supervisor has gone, and the collection tasks.
///
/// The process sleeps in one poll(): on its signals, on pidfds of supervisor, worker and transmission child, on the
/// folder of the collections and on the log socket. It wakes up by the clock only while something is expected: that the
/// daemon comes up, connects, or ends.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "log_socket.h"
#include "options.h"
#include "process.h"
#include "service_manager.h"
#include "ticket_watch.h"
#include "unique_fd.h"

namespace DebugDatRun {

/// The daemon's files, and the system's. Tests pass others.
struct Paths {
  std::string pid_file = "/var/run/kestrix_debug_dat_transmitter.pid";
  std::string configuration = "/usr/tarvo/etc/tarvomibserver.conf";  ///< Only named to people.
  std::string log_socket = "/dev/log";
  std::string collections;  ///< In which each collection has a folder; the host platform's unless given.
};

/// How long this program waits, in milliseconds.
struct Limits {
  std::int64_t start = 30'000;  ///< For the daemon's processes to appear.
  std::int64_t settle = 1'000;  ///< That the worker has to live for the daemon to count as started.
  std::int64_t end =
      10'000;  ///< For supervisor and worker to end by SIGTERM, and for what is killed to be gone.
  std::int64_t look = 20;  ///< Between two looks at what is to appear or to go.
};

class DaemonRun {
 public:
  DaemonRun(const Options& options, const Paths& paths, const Limits& limits);

  /// Takes over the process's signals and its descendants, and returns when none of these is left.
  /// @return the exit status, one of those in options.h.
  [[nodiscard]] int Run();

 private:
  enum class Phase {
    kClearing,  ///< Processes of an earlier run are being ended.
    kStarting,  ///< The daemon has been started, and not all of its processes are known.
    kRunning,   ///< Supervisor and worker are watched.
    kEnding,    ///< They have been told to end, or have.
    kOver,
  };

  [[nodiscard]] bool Prepare();
  void WaitForEvent() const;
  void TakeSignals();
  void ReapChildren();
  void TakeEnd(pid_t pid, int status);
  void TakeEndOfUnseenSupervisor(pid_t pid);
  void Step();
  void Enter(Phase phase);
  /// Has WaitForEvent() return at that time of the monotonic clock at the latest.
  void WakeAt(std::int64_t time);

  // Clearing.
  [[nodiscard]] bool FindLeftovers();
  void Clear();

  // Starting.
  void Launch();
  void LookForProcesses();
  [[nodiscard]] bool FindProcesses();
  void BeginToWatch();

  // Running.
  void Watch();
  void Settle();
  void PassOnHangUp();
  void FindTicket();
  void TakeEndOfTicket();
  void FindConnection();
  [[nodiscard]] std::string Status() const;

  // Ending.
  void TakeStopSignal();
  void Fail(const std::string& what, int status = kStartAgain);
  void BeginToEnd(const std::string& reason, int status);
  void SignalMainProcesses(int signal_number) const;
  void End();
  void WaitForMainProcesses();
  void WaitForTicket();
  void KillDescendants();
  [[nodiscard]] std::vector<ProcessFacts> ProcessesOfTheDaemon() const;
  void TakeEndOfWorker(int status);

  static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

  const Options options_;
  const Paths paths_;
  const Limits limits_;

  Phase phase_ = Phase::kClearing;
  int exit_status_ = kStartAgain;
  std::int64_t phase_began_ = 0;
  std::int64_t wake_at_ = 0;
  bool has_children_ = false;  ///< Descendants that this process has still to reap.
  TARVO::SupportForm::UniqueFd signals_;
  ServiceManager manager_;
  LogSocket log_;
  TicketWatch tickets_;  ///< Watches nothing without a service manager, whom alone it serves.

  std::vector<WatchedProcess> leftovers_;  ///< Of an earlier run.

  pid_t launcher_ = 0;         ///< The daemon's first process, which ends once it has detached itself.
  bool is_launched_ = false;   ///< It has ended so.
  std::string orphan_ending_;  ///< How the process that was reaped last and is none of those below has ended.
  pid_t session_ = 0;          ///< Of the supervisor, once its id is known; see ProcessesOfTheDaemon().
  std::string name_;           ///< Of all of the daemon's processes.
  WatchedProcess supervisor_;
  WatchedProcess worker_;
  WatchedProcess child_;  ///< The transmission child, while one is known.
  bool supervisor_has_ended_ = false;

  bool is_settled_ = false;
  bool hang_up_wanted_ = false;         ///< A SIGHUP came before the daemon could take one.
  std::int64_t next_look_ = kNever;     ///< At the worker's connection.
  std::int64_t look_pause_ = 1'000;     ///< Until the look after that.
  std::string connection_ = "running";  ///< What the last look has shown, for people.
  std::string ticket_began_;            ///< When, while one is being served.

  int stop_signals_ = 0;
  bool main_processes_are_killed_ = false;
  bool ticket_was_told_ = false;  ///< That a ticket is waited for.
  std::int64_t killing_since_ = kNever;
};

}  // namespace DebugDatRun
