#include "daemon_run.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "collection_limits.h"
#include "signals.h"
#include "standard_error.h"
#include "worker_connection.h"

namespace DebugDatRun {

using TARVO::SupportForm::UniqueFd;

namespace {

constexpr char kOwnName[] = "debug_dat_run";
constexpr int kLoaderFailed = 127;  // a shared library is missing
constexpr std::int64_t kLongestLookPause = 32'000;

std::int64_t Now() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000 + now.tv_nsec / 1'000'000;
}

std::string TimeText() {
  const std::time_t now = time(nullptr);
  std::tm parts = {};
  std::array<char, 32> text = {};
  static_cast<void>(strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&now, &parts)));
  return text.data();
}

/// Reads a file that may be a link: on a device where the daemon is no root, it lies in a folder of its user's.
/// @return 0 where the file is missing or holds no process id.
pid_t ReadPid(const std::string& path) {
  std::array<char, 16> text = {};  // the last one stays zero
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file.valid() || read(file.get(), text.data(), text.size() - 1) < 0) return 0;
  return static_cast<pid_t>(std::max(0L, std::min(strtol(text.data(), nullptr, 10), long{INT_MAX})));
}

/// Processes of the daemon whose supervisor has, or had, this id: it leads a session, in which its worker and the
/// transmission child stay, while a collection leaves it. Zombies are left out.
std::vector<ProcessFacts> ProcessesOf(pid_t supervisor, const std::string& name) {
  if (supervisor <= 0) return {};
  std::vector<ProcessFacts> found = AllProcesses();
  const auto is_other = [&](const ProcessFacts& facts) {
    return facts.session != supervisor || facts.name != name || facts.state == 'Z';
  };
  found.erase(std::remove_if(found.begin(), found.end(), is_other), found.end());
  return found;
}

bool Contains(const std::vector<ProcessFacts>& processes, const WatchedProcess& process) {
  return std::any_of(processes.begin(), processes.end(),
                     [&](const ProcessFacts& facts) { return facts.pid == process.pid(); });
}

std::string IdsOf(const std::vector<ProcessFacts>& processes) {
  std::string ids;
  for (const ProcessFacts& facts : processes) ids += (ids.empty() ? "" : ", ") + std::to_string(facts.pid);
  return ids;
}

/// What a look at the worker's connection has shown, for people.
std::string TextOf(Connection connection) {
  switch (connection) {
    case Connection::kEstablished:
      return "connected, as seen at " + TimeText();
    case Connection::kUnixSocket:
      return "running, connected to a unix socket, as seen at " + TimeText();
    case Connection::kNone:
      return "running, no TCP connection when looked at " + TimeText();
    case Connection::kUnknown:
      break;
  }
  return "running";
}

[[noreturn]] void BecomeDaemon(const std::string& program) {
  GiveSignalsBack();
  execl(program.c_str(), program.c_str(), nullptr);
  Say(LOG_ERR, "can't start %s: %s", program.c_str(), strerror(errno));
  _exit(kWrongConfiguration);
}

}  // namespace

DaemonRun::DaemonRun(const Options& options, const Paths& paths, const Limits& limits)
    : options_(options),
      paths_(paths),
      limits_(limits),
      tickets_(!manager_.is_there()        ? ""
               : paths.collections.empty() ? TARVO::SupportForm::Paths().state
                                           : paths.collections) {}

int DaemonRun::Run() {
  if (!Prepare()) return exit_status_;
  while (phase_ != Phase::kOver) {
    WaitForEvent();
    log_.PassOn();
    TakeSignals();
    ReapChildren();
    wake_at_ = kNever;
    Step();
  }
  log_.PassOn();
  return exit_status_;
}

// ======== One turn ========

bool DaemonRun::Prepare() {
  signals_ = UniqueFd(TakeOverSignals());
  if (!signals_.valid() || prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
    Say(LOG_ERR, "can't take over signals and orphans: %s", strerror(errno));
    return false;
  }
  if (options_.log_to_stderr && !log_.Bind(paths_.log_socket)) {
    exit_status_ = kWrongConfiguration;
    return false;
  }
  Enter(Phase::kClearing);
  return FindLeftovers();
}

void DaemonRun::WaitForEvent() const {
  const bool is_running = phase_ == Phase::kRunning;
  // poll() passes over descriptors below zero.
  std::vector<pollfd> events = {{signals_.get(), POLLIN, 0},
                                {log_.fd(), POLLIN, 0},
                                {is_running ? worker_.fd() : -1, POLLIN, 0},
                                {is_running ? child_.fd() : -1, POLLIN, 0},
                                {is_running ? tickets_.fd() : -1, POLLIN, 0}};
  for (const WatchedProcess& leftover : leftovers_) events.push_back({leftover.fd(), POLLIN, 0});
  const std::int64_t wait = std::max<std::int64_t>(0, wake_at_ - Now());
  const int milliseconds = wake_at_ == kNever ? -1 : static_cast<int>(std::min<std::int64_t>(wait, INT_MAX));
  static_cast<void>(poll(events.data(), events.size(), milliseconds));
}

void DaemonRun::TakeSignals() {
  signalfd_siginfo info = {};
  while (read(signals_.get(), &info, sizeof(info)) == sizeof(info)) {
    if (info.ssi_signo == SIGHUP) hang_up_wanted_ = true;
    if (info.ssi_signo == SIGTERM || info.ssi_signo == SIGINT) TakeStopSignal();
  }
}

void DaemonRun::ReapChildren() {
  int status = 0;
  pid_t pid = 0;
  while ((pid = waitpid(-1, &status, WNOHANG)) > 0) TakeEnd(pid, status);
  has_children_ = pid == 0;
}

void DaemonRun::TakeEnd(pid_t pid, int status) {
  if (pid == launcher_) {
    launcher_ = 0;
    is_launched_ = status == 0;
    if (is_launched_) return;
    const bool is_hopeless = WIFEXITED(status) && (WEXITSTATUS(status) == kWrongConfiguration ||
                                                   WEXITSTATUS(status) == kLoaderFailed);
    Fail(options_.daemon + " did not start: " + EndingText(status),
         is_hopeless ? kWrongConfiguration : kStartAgain);
  } else if (pid == supervisor_.pid()) {
    supervisor_has_ended_ = true;
    Fail("the supervisor (" + std::to_string(pid) + ") has ended: " + EndingText(status));
  } else if (pid == worker_.pid()) {
    TakeEndOfWorker(status);
  } else {
    orphan_ending_ = EndingText(status);
    if (phase_ == Phase::kStarting && pid == ReadPid(paths_.pid_file)) TakeEndOfUnseenSupervisor(pid);
  }
}

void DaemonRun::TakeEndOfUnseenSupervisor(pid_t pid) {
  session_ = pid;  // in which it may have left a worker
  name_ = ProcessNameOf(options_.daemon);
  Fail("the supervisor (" + std::to_string(pid) + ") has ended: " + orphan_ending_);
}

void DaemonRun::Step() {
  switch (phase_) {
    case Phase::kClearing:
      return Clear();
    case Phase::kStarting:
      return LookForProcesses();
    case Phase::kRunning:
      return Watch();
    case Phase::kEnding:
      return End();
    case Phase::kOver:
      return;
  }
}

void DaemonRun::Enter(Phase phase) {
  phase_ = phase;
  phase_began_ = Now();
  WakeAt(phase_began_);
}

void DaemonRun::WakeAt(std::int64_t time) { wake_at_ = std::min(wake_at_, time); }

// ======== Clearing ========

bool DaemonRun::FindLeftovers() {
  const std::vector<ProcessFacts> found =
      ProcessesOf(ReadPid(paths_.pid_file), ProcessNameOf(options_.daemon));
  if (found.empty()) return true;
  for (const ProcessFacts& facts : found) {
    ProcessFacts parent;
    if (LookAt(facts.parent, parent) && parent.name == kOwnName) {
      Say(LOG_ERR, "another debug_dat_run (%d) runs the daemon already", parent.pid);
      return false;
    }
    WatchedProcess process = WatchedProcess::Open(facts);
    if (process.valid() && !process.Signal(SIGTERM) && errno == EPERM) {
      Say(LOG_ERR, "a daemon that belongs to another user runs already (%d); stop it first", facts.pid);
      exit_status_ = kWrongConfiguration;
      return false;
    }
    if (process.valid()) leftovers_.push_back(std::move(process));
  }
  Say(LOG_WARNING,
      "processes of an earlier start of the daemon are left: %s. They are ended first, a ticket has %ld s "
      "for that",
      IdsOf(found).c_str(), options_.stop_seconds);
  manager_.TellStarting("ending what an earlier start has left",
                        options_.stop_seconds + static_cast<long>(limits_.end / 1'000));
  return true;
}

void DaemonRun::Clear() {
  leftovers_.erase(std::remove_if(leftovers_.begin(), leftovers_.end(),
                                  [](const WatchedProcess& process) { return process.HasEnded(); }),
                   leftovers_.end());
  const std::int64_t limit =
      phase_began_ + std::max<std::int64_t>(options_.stop_seconds * 1'000, limits_.end);
  if (leftovers_.empty()) return Launch();
  if (Now() < limit) return WakeAt(limit);
  for (const WatchedProcess& process : leftovers_) process.Signal(SIGKILL);
}

// ======== Starting ========

void DaemonRun::Launch() {
  launcher_ = fork();
  if (launcher_ == 0) BecomeDaemon(options_.daemon);
  if (launcher_ < 0) return Fail(std::string("can't fork: ") + strerror(errno));
  Enter(Phase::kStarting);
}

void DaemonRun::LookForProcesses() {
  if (FindProcesses()) return BeginToWatch();
  if (is_launched_ && !has_children_) {
    return Fail("the daemon has ended (" + orphan_ending_ + ") before " + paths_.pid_file +
                " named it: the system's log tells why. Does another one run, can the file be written?");
  }
  if (Now() >= phase_began_ + limits_.start) {
    return Fail(supervisor_.valid()
                    ? "the supervisor has no worker"
                    : paths_.pid_file + " names no process of the daemon. Does /proc hide them?");
  }
  WakeAt(Now() + limits_.look);
}

bool DaemonRun::FindProcesses() {
  ProcessFacts facts;
  // A file of an earlier start may name any process. The supervisor leads a session of its own, and has come to this
  // process once the one that forked it was gone.
  if (!supervisor_.valid() && is_launched_ && LookAt(ReadPid(paths_.pid_file), facts) &&
      facts.parent == getpid() && facts.session == facts.pid) {
    supervisor_ = WatchedProcess::Open(facts);
    session_ = facts.session;
    name_ = facts.name;
  }
  if (!supervisor_.valid()) return false;
  facts = {};
  for (const ProcessFacts& other : AllProcesses()) {
    // The worker comes first, and stays as a zombie. Later children serve tickets.
    if (other.parent == supervisor_.pid() && (facts.pid == 0 || other.start < facts.start)) facts = other;
  }
  if (facts.pid != 0) worker_ = WatchedProcess::Open(facts);
  return worker_.valid();
}

void DaemonRun::BeginToWatch() {
  Say(LOG_INFO, "%s runs: supervisor %d, worker %d", options_.daemon.c_str(), supervisor_.pid(),
      worker_.pid());
  Enter(Phase::kRunning);
}

// ======== Running ========

void DaemonRun::Watch() {
  if (worker_.HasEnded()) {
    return Fail("the worker (" + std::to_string(worker_.pid()) + ") has ended; the supervisor is ended, too");
  }
  // Both have had their handlers since before the worker was forked: it can't end them any more.
  if (std::exchange(hang_up_wanted_, false)) PassOnHangUp();
  if (child_.valid() && child_.HasEnded()) TakeEndOfTicket();
  if (manager_.is_there() && tickets_.Take()) FindTicket();
  if (!is_settled_ && Now() >= phase_began_ + limits_.settle) Settle();
  if (Now() >= next_look_) FindConnection();
  WakeAt(is_settled_ ? next_look_ : phase_began_ + limits_.settle);
}

void DaemonRun::Settle() {
  is_settled_ = true;
  if (!manager_.is_there()) return;
  next_look_ = Now();
  manager_.TellReady(Status());
}

void DaemonRun::PassOnHangUp() {
  if (is_settled_) manager_.TellReloading();
  SignalMainProcesses(SIGHUP);
  if (is_settled_) manager_.TellReady(Status());
}

void DaemonRun::FindTicket() {
  if (child_.valid()) return;
  for (const ProcessFacts& facts : AllProcesses()) {
    const bool is_child =
        facts.parent == supervisor_.pid() && facts.pid != worker_.pid() && facts.state != 'Z';
    if (is_child) child_ = WatchedProcess::Open(facts);
    if (child_.valid()) break;
  }
  if (child_.valid()) ticket_began_ = TimeText();
  manager_.TellStatus(Status());
}

void DaemonRun::TakeEndOfTicket() {
  child_ = {};
  ticket_began_.clear();
  FindTicket();  // the next one may have begun
  FindConnection();
}

void DaemonRun::FindConnection() {
  const Connection connection = LookForConnection(worker_.pid());
  connection_ = TextOf(connection);
  const bool may_come = connection == Connection::kNone || connection == Connection::kUnixSocket;
  const bool looks_again = may_come && look_pause_ <= kLongestLookPause;
  next_look_ = looks_again ? Now() + look_pause_ : kNever;
  look_pause_ *= 2;
  manager_.TellStatus(Status());
}

std::string DaemonRun::Status() const {
  return ticket_began_.empty() ? connection_ : "serving a ticket since " + ticket_began_;
}

// ======== Ending ========

void DaemonRun::TakeStopSignal() {
  ++stop_signals_;
  if (phase_ == Phase::kClearing) {
    exit_status_ = kStopped;
    return Enter(Phase::kOver);
  }
  if (phase_ != Phase::kEnding) return BeginToEnd("stopping", kStopped);
  exit_status_ = kStopped;
}

void DaemonRun::Fail(const std::string& what, int status) {
  if (phase_ == Phase::kEnding) return;
  Say(LOG_ERR, "%s", what.c_str());
  BeginToEnd(what, status);
}

void DaemonRun::BeginToEnd(const std::string& reason, int status) {
  if (phase_ == Phase::kStarting) static_cast<void>(FindProcesses());
  exit_status_ = status;
  manager_.TellStopping(reason, options_.stop_seconds + static_cast<long>(2 * limits_.end / 1'000));
  if (worker_.valid()) {
    SignalMainProcesses(SIGTERM);
  } else {  // whatever there is; a transmission child does not end by it
    for (const ProcessFacts& facts : ProcessesOfTheDaemon()) WatchedProcess::Open(facts).Signal(SIGTERM);
  }
  Enter(Phase::kEnding);
}

void DaemonRun::SignalMainProcesses(int signal_number) const {
  supervisor_.Signal(signal_number);
  worker_.Signal(signal_number);
}

void DaemonRun::End() {
  if (!has_children_) return Enter(Phase::kOver);
  const std::vector<ProcessFacts> left = ProcessesOfTheDaemon();
  if (killing_since_ != kNever || stop_signals_ > 1 || left.empty()) return KillDescendants();
  if (Contains(left, supervisor_) || Contains(left, worker_)) return WaitForMainProcesses();
  WaitForTicket();
}

void DaemonRun::WaitForMainProcesses() {
  const std::int64_t limit = phase_began_ + limits_.end;
  if (Now() < limit) return WakeAt(limit);
  if (!std::exchange(main_processes_are_killed_, true)) {
    Say(LOG_WARNING, "the daemon does not end by SIGTERM; it is killed");
    SignalMainProcesses(SIGKILL);
  }
  WakeAt(Now() + limits_.look);
}

void DaemonRun::WaitForTicket() {
  const std::int64_t limit = phase_began_ + options_.stop_seconds * 1'000;
  if (Now() >= limit) {
    Say(LOG_WARNING, "a ticket is still being served after %ld s; it is cut short", options_.stop_seconds);
    return KillDescendants();
  }
  if (!std::exchange(ticket_was_told_, true)) {
    Say(LOG_NOTICE, "a ticket is still being served; it has %ld s to end", options_.stop_seconds);
    manager_.TellStatus("ending, a ticket is still being served");
  }
  WakeAt(limit);
}

void DaemonRun::KillDescendants() {
  const std::int64_t now = Now();
  killing_since_ = std::min(killing_since_, now);
  std::vector<ProcessFacts> left = DescendantsOf(getpid(), AllProcesses());
  if (now >= killing_since_ + limits_.end) {
    Say(LOG_ERR, "these processes do not end: %s", IdsOf(left).c_str());
    return Enter(Phase::kOver);
  }
  for (const ProcessFacts& facts : left) WatchedProcess::Open(facts).Signal(SIGKILL);
  WakeAt(now + limits_.look);  // one of them may just have forked
}

std::vector<ProcessFacts> DaemonRun::ProcessesOfTheDaemon() const { return ProcessesOf(session_, name_); }

void DaemonRun::TakeEndOfWorker(int status) {
  const bool is_abort = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
  if (exit_status_ != kStopped || status != 0) {
    Say(LOG_NOTICE, "the worker (%d) has ended: %s", worker_.pid(), EndingText(status).c_str());
  }
  if (!is_abort) return;
  const std::string advice = "the worker ends so when it finds no address: " + paths_.configuration +
                             " must name the notification server (debug_dat_check tells what is wrong there)";
  Say(LOG_ERR, "%s", advice.c_str());
  manager_.TellStatus(advice);
  if (!is_settled_ && exit_status_ == kStartAgain) exit_status_ = kWrongConfiguration;
}

}  // namespace DebugDatRun
