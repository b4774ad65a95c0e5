#include "daemon_checks.h"

#include <pwd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <fstream>

#include "address.h"
#include "command.h"
#include "device_checks.h"
#include "file_util.h"
#include "text_fields.h"
#include "unique_fd.h"
#include "worker_connection.h"

namespace DebugDatCheck {
namespace {

namespace form = TARVO::SupportForm;
using DebugDatRun::Connection;
using DebugDatRun::ProcessFacts;

constexpr char kDaemon[] = "daemon";
constexpr char kProgram[] = "debug_dat_transmitter";

/// More than a log of weeks holds, and no more than is read in a moment.
constexpr std::size_t kMaxLogBytes = std::size_t{8} << 20;
constexpr std::size_t kMaxLogLines = 5000;
constexpr std::int64_t kJournalMs = 10'000;

std::string Named(const ProcessFacts& process) { return std::to_string(process.pid); }

bool IsDaemons(const ProcessFacts& process) {
  return process.name == DebugDatRun::ProcessNameOf(kProgram) && process.state != 'Z';
}

/// The words of a line of /proc/PID/status, its name left out; empty where there is no such line.
std::vector<std::string> StatusLine(pid_t process, const std::string& name) {
  std::ifstream file("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(file, line);) {
    if (line.rfind(name + ":", 0) != 0) continue;
    const auto words = DebugDatRun::WordsOf(std::string_view(line).substr(name.size() + 1));
    return {words.begin(), words.end()};
  }
  return {};
}

/// Whether a process has an id of its own in a container: then it is no daemon of this device.
bool IsInContainer(const ProcessFacts& process) { return StatusLine(process.pid, "NSpid").size() > 1; }

/// Who may run the daemon. What others call by its name, a process or a line of the log, is not the daemon's.
std::vector<uid_t> UsersOfTheDaemon() {
  std::vector<uid_t> users = {0};
  if (geteuid() != 0) users.push_back(geteuid());
  if (const passwd* const unit_user = getpwnam(kUnitUser)) users.push_back(unit_user->pw_uid);
  return users;
}

bool MayBeTheDaemon(const ProcessFacts& process) {
  const std::optional<UserIds> ids = UserOf(process.pid);
  const std::vector<uid_t> users = UsersOfTheDaemon();
  return ids && std::find(users.begin(), users.end(), ids->user) != users.end();
}

/// Whether the process runs one of the daemon's own files that has been replaced or removed since; nothing where this
/// user is not shown what it runs.
std::optional<bool> RunsReplacedFiles(const ProcessFacts& process) {
  constexpr std::array<const char*, 4> kFiles = {"debug_dat_transmitter", "libtarvocore.so",
                                                 "libtarvoorvane.so", "libwebapi-Pelk5.so"};
  std::ifstream maps("/proc/" + std::to_string(process.pid) + "/maps");
  bool is_shown = false;
  for (std::string line; std::getline(maps, line); is_shown = true) {
    const auto is_gone = [&](const std::string& file) {
      return line.find("/" + file + " (deleted)") != std::string::npos;
    };
    if (std::any_of(kFiles.begin(), kFiles.end(), is_gone)) return true;
  }
  return is_shown ? std::optional<bool>(false) : std::nullopt;
}

/// Whether somebody waits for connections there. The file stays when the socket's unit is stopped, and to connect would
/// start a collector.
bool IsListenedAt(const std::string& path) {
  constexpr std::string_view kListens = "00010000";  // __SO_ACCEPTCON
  std::ifstream table("/proc/net/unix");
  for (std::string line; std::getline(table, line);) {
    const auto words = DebugDatRun::WordsOf(line);
    if (words.size() == 8 && words[3] == kListens && words[7] == path) return true;
  }
  return false;
}

/// When the process began, for people.
std::string BeginOf(const ProcessFacts& process) {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  const auto age = now.tv_sec - static_cast<std::time_t>(process.start) / sysconf(_SC_CLK_TCK);
  const std::time_t began = std::time(nullptr) - age;
  std::tm local{};
  std::array<char, 64> text{};
  const std::size_t size =
      std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S%z", localtime_r(&began, &local));
  return {text.data(), size};
}

/// The daemon's own lines of the system's journal; empty where there are none, or they may not be read.
std::string ReadJournal(const form::Paths& paths) {
  form::CommandRequest request;
  request.argv = {"journalctl",
                  "--quiet",
                  "--no-pager",
                  "--output=short-iso",
                  std::string("--identifier=") + kProgram,
                  "--lines=" + std::to_string(kMaxLogLines)};
  // The journal knows from the kernel who wrote a line; the identifier is what its writer says.
  for (const uid_t user : UsersOfTheDaemon()) request.argv.push_back("_UID=" + std::to_string(user));
  request.programs = paths.programs;
  request.time_limit_ms = kJournalMs;
  request.output_limit = kMaxLogBytes;
  request.output = form::Output::kEndNoErrors;
  const form::UniqueFd file(memfd_create("journal", MFD_CLOEXEC));
  if (!file.valid()) return {};
  static_cast<void>(form::RunCommand(request, file.get()));
  std::string text;
  bool more = false;
  if (lseek(file.get(), 0, SEEK_SET) != 0 || !form::ReadUpTo(file.get(), 2 * kMaxLogBytes, text, more)) {
    return {};
  }
  return text;
}

bool IsUnixSocket(const std::string& notification_url) {
  TarvoOrvane::Internal::Address address;
  std::string ignored;
  return TarvoOrvane::Internal::ParseAddress(notification_url, address, ignored) &&
         !address.socket_path.empty();
}

/// The worker's connection to the notification server that the configuration names; never kUnixSocket. Where no address
/// can be read, it may be that of a unix socket: the worker has the one that it read at its start.
Connection ConnectionOf(pid_t worker, const std::string& configuration) {
  const std::optional<UserIds> user = UserOf(worker);
  if (geteuid() != 0 && (!user || user->user != geteuid())) return Connection::kUnknown;
  const Connection found = DebugDatRun::LookForConnection(worker);
  if (found == Connection::kEstablished || found == Connection::kUnknown) return found;
  ServiceUrls urls;
  static_cast<void>(CheckConfiguration(configuration, urls));
  const bool is_known = !urls.notification.empty();
  if (is_known && !IsUnixSocket(urls.notification)) return Connection::kNone;
  if (found == Connection::kUnixSocket) return is_known ? Connection::kEstablished : Connection::kUnknown;
  return geteuid() == 0 ? Connection::kNone : Connection::kUnknown;  // others need not see its unix sockets
}

std::string LastTicketText(const TarvoOrvane::Internal::LoggerOptions& logger, const form::Paths& paths) {
  std::string log;
  bool more = false;
  const bool in_file = access(logger.flag_file.c_str(), F_OK) == 0;
  if (!in_file) {
    log = ReadJournal(paths);
  } else if (!form::ReadFileUpTo(logger.log_file, kMaxLogBytes, log, more)) {
    return "no word of tickets (" + logger.log_file + ": " + form::ErrorText(errno) + ")";
  }
  const std::optional<LoggedTicket> ticket = LastTicketIn(log);
  if (ticket) return "last ticket " + ticket->time + ", " + ticket->end;
  return in_file || !log.empty() ? "no ticket in the log"
                                 : "no word of tickets (the journal has no lines of it)";
}

}  // namespace

DaemonProcesses FindDaemon(const std::string& pid_file, const std::vector<ProcessFacts>& all) {
  DaemonProcesses daemon;
  std::string text;
  bool more = false;
  pid_t named = 0;
  daemon.has_pid_file = form::ReadFileUpTo(pid_file, 32, text, more);
  if (!daemon.has_pid_file && errno != ENOENT) {
    daemon.pid_file_error = errno;
    return daemon;
  }
  if (const auto words = DebugDatRun::WordsOf(text); !words.empty()) {
    static_cast<void>(DebugDatRun::ReadNumber(words.front(), named));
  }
  for (const ProcessFacts& process : all) {
    if (process.pid == named && IsDaemons(process)) daemon.supervisor = process;
  }
  std::vector<ProcessFacts> family;
  if (daemon.supervisor) {
    family = DebugDatRun::DescendantsOf(daemon.supervisor->pid, all);
    family.push_back(*daemon.supervisor);
    // The worker is the first child, and stays as a zombie. Later ones serve tickets.
    const ProcessFacts* first = nullptr;
    for (const ProcessFacts& process : family) {
      if (process.parent != daemon.supervisor->pid) continue;
      if (first == nullptr || process.start < first->start) first = &process;
    }
    if (first != nullptr && IsDaemons(*first)) daemon.worker = *first;
  }
  for (const ProcessFacts& process : all) {
    const auto is_it = [&](const ProcessFacts& other) { return other.pid == process.pid; };
    if (IsDaemons(process) && std::none_of(family.begin(), family.end(), is_it)) {
      daemon.strays.push_back(process);
    }
  }
  return daemon;
}

DaemonProcesses FindDaemon(const std::string& pid_file) {
  std::vector<ProcessFacts> all = DebugDatRun::AllProcesses();
  const auto is_elsewhere = [](const ProcessFacts& process) {
    return IsDaemons(process) && (IsInContainer(process) || !MayBeTheDaemon(process));
  };
  all.erase(std::remove_if(all.begin(), all.end(), is_elsewhere), all.end());
  return FindDaemon(pid_file, all);
}

std::optional<UserIds> UserOf(pid_t process) {
  const std::vector<std::string> users = StatusLine(process, "Uid");
  const std::vector<std::string> groups = StatusLine(process, "Gid");
  UserIds ids;
  if (users.empty() || groups.empty() || !DebugDatRun::ReadNumber(users.front(), ids.user) ||
      !DebugDatRun::ReadNumber(groups.front(), ids.group)) {
    return std::nullopt;
  }
  for (const std::string& word : StatusLine(process, "Groups")) {
    gid_t group = 0;
    if (DebugDatRun::ReadNumber(word, group)) ids.groups.push_back(group);
  }
  return ids;
}

Check CheckDaemon(const DaemonProcesses& daemon) {
  if (daemon.pid_file_error != 0) {
    return Problem(kDaemon, "its pid file can't be read: " + form::ErrorText(daemon.pid_file_error),
                   "Make it readable for root", daemon.pid_file_error);
  }
  const std::string start_again =
      "Start it anew (systemctl restart debug-dat-transmitter, or end its processes and start it by hand); "
      "the "
      "system's log tells what happened";
  if (!daemon.strays.empty()) {
    const std::string stray = Named(daemon.strays.front());
    const std::string whose = daemon.supervisor
                                  ? "belongs to another start of it: two workers fight for one stream"
                                  : "is left of it, without its supervisor";
    return Problem(kDaemon, "process " + stray + " " + whose,
                   "End that process (kill " + stray + "). " + start_again);
  }
  if (!daemon.supervisor) {
    const std::string start =
        "Start it: systemctl start debug-dat-transmitter, or debug_dat_transmitter by hand";
    return daemon.has_pid_file
               ? Problem(kDaemon, "does not run: it was stopped, or its supervisor has ended", start)
               : Warning(kDaemon, "does not run: no ticket is served", start);
  }
  const std::string supervisor = "supervisor " + Named(*daemon.supervisor);
  if (!daemon.worker) return Problem(kDaemon, "its worker has ended (" + supervisor + " runs)", start_again);
  const std::string processes = supervisor + ", worker " + Named(*daemon.worker);
  const std::optional<bool> old_supervisor = RunsReplacedFiles(*daemon.supervisor);
  const std::optional<bool> old_worker = RunsReplacedFiles(*daemon.worker);
  if (old_supervisor.value_or(false) || old_worker.value_or(false)) {
    return Problem(kDaemon,
                   "runs from files that have been replaced since it was started (" + processes + ")",
                   "Restart it: systemctl restart debug-dat-transmitter");
  }
  const std::string files =
      old_supervisor && old_worker ? "" : "; whether its files have been replaced is not shown to this user";
  return Ok(kDaemon, "runs since " + BeginOf(*daemon.supervisor) + " (" + processes + ")" + files);
}

Check CheckCollectorSocket(const std::string& path) {
  constexpr char kName[] = "collector";
  if (IsListenedAt(path)) return Ok(kName, "is reached through " + path);
  return Problem(kName,
                 "nothing listens at " + path + ", and the daemon is not root: nothing can be collected",
                 "Start it: systemctl start debug-dat-collect.socket");
}

std::optional<LoggedTicket> LastTicketIn(std::string_view log) {
  struct Ending {
    std::string_view line;
    const char* text;
  };
  constexpr std::array<Ending, 5> kEndings = {{
      {"Failed to generagte debug.dat", "no archive could be made"},
      {"Failed to transmit debug.dat", "the archive could not be uploaded"},
      {"Failed to update '", "the result could not be reported"},
      {"Failed to fork()", "no process could be made for it"},
      {"Finish handling the request(", "served"},
  }};
  std::optional<LoggedTicket> ticket;
  bool is_open = false;
  while (!log.empty()) {
    const std::string_view line = log.substr(0, log.find('\n'));
    log.remove_prefix(std::min(line.size() + 1, log.size()));
    if (line.find(" Receive a request(") != std::string_view::npos) {
      ticket = {std::string(line.substr(0, line.find(' '))), "no end of it in the log"};
      is_open = true;
    }
    for (const Ending& ending : kEndings) {
      if (!is_open || line.find(ending.line) == std::string_view::npos) continue;
      ticket->end = ending.text;
      is_open = false;
    }
  }
  return ticket;
}

Check DaemonStatus(const DaemonProcesses& daemon, const std::string& configuration,
                   const TarvoOrvane::Internal::LoggerOptions& logger, const form::Paths& paths) {
  Check check = CheckDaemon(daemon);
  const std::string ticket = LastTicketText(logger, paths);
  if (check.state != State::kOk) {
    check.state = State::kProblem;
    check.text = "not working: " + check.text + "; " + ticket;
    return check;
  }
  const Connection connection = ConnectionOf(daemon.worker->pid, configuration);
  if (connection == Connection::kNone) {
    return Problem("notification stream",
                   "not working: no connection to the notification server; " + check.text + "; " + ticket,
                   "Run debug_dat_check without --status: it looks at the server");
  }
  const std::string stream =
      connection == Connection::kEstablished ? "connected" : "its connection is not shown";
  return Ok(kDaemon, "working: " + stream + ", " + check.text + "; " + ticket);
}

}  // namespace DebugDatCheck
