/// Behaves as the daemon does towards debug_dat_run: detaches itself, writes a pid file, forks a worker, and ends by
/// SIGTERM. What it shall do otherwise stands in the environment:
///
/// - FAKE_FOLDER: where its files are. It writes `pid`, and into `events` a line "ROLE EVENT PID" for each thing that
///   happens. It looks there for the files that are named below.
/// - FAKE_WAYS: words out of those in HasWay() below.

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

volatile sig_atomic_t stop_wanted = 0;
volatile sig_atomic_t hang_ups = 0;
pid_t transmission_child = 0;  ///< Of the supervisor. As the daemon, it reaps this one and not its worker.

bool HasWay(const char* way) {
  const char* const ways = getenv("FAKE_WAYS");
  return ways != nullptr && strstr(ways, way) != nullptr;
}

std::string File(const char* name) { return std::string(getenv("FAKE_FOLDER")) + '/' + name; }

bool Exists(const char* name) { return access(File(name).c_str(), F_OK) == 0; }

void Record(const std::string& event) {
  const std::string line = event + ' ' + std::to_string(getpid()) + '\n';
  const int fd = open(File("events").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  static_cast<void>(!write(fd, line.data(), line.size()));
  close(fd);
}

/// With what this process was started: signals that are ignored or blocked, and the manager's socket.
void RecordInheritance() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("SigIgn:", 0) == 0 || line.rfind("SigBlk:", 0) == 0) Record("launcher " + line);
  }
  Record(std::string("launcher NOTIFY_SOCKET ") +
         (getenv("NOTIFY_SOCKET") != nullptr ? "is set" : "is not set"));
}

void WritePidFile() {
  const std::string fresh = File("pid.new");
  std::ofstream(fresh) << getpid() << '\n';
  static_cast<void>(rename(fresh.c_str(), File("pid").c_str()));
}

void HandleSignals() {
  static_cast<void>(signal(
      SIGTERM, HasWay("ignores-term") ? SIG_IGN : [](int) { stop_wanted = 1; }));
  static_cast<void>(signal(SIGHUP, [](int) { hang_ups = hang_ups + 1; }));
}

/// Until it is told to stop. Notes each SIGHUP.
void Live(const std::string& role) {
  int noted = 0;
  while (stop_wanted == 0) {
    for (; noted < hang_ups; ++noted) Record(role + " SIGHUP");
    if (transmission_child > 0 && waitpid(transmission_child, nullptr, WNOHANG) > 0) transmission_child = 0;
    usleep(5'000);
  }
  Record(role + " SIGTERM");
}

/// Serves a ticket until the file `release` is there; SIGTERM does not keep it from that. Its collection is a process
/// that nobody waits for.
void BecomeTransmissionChild() {
  if (fork() == 0) {
    setsid();
    if (fork() != 0) _exit(0);
    Record("collection begins");
    while (!Exists("collected")) usleep(5'000);
    _exit(0);
  }
  wait(nullptr);
  Record("child begins");
  while (!Exists("release")) usleep(5'000);
  Record("child ends");
  _exit(0);
}

void BecomeWorker() {
  if (HasWay("worker-aborts")) abort();
  if (HasWay("worker-exits")) _exit(7);
  Live("worker");
  _exit(0);
}

}  // namespace

int main() {
  if (HasWay("fails-at-once")) return 3;
  RecordInheritance();
  if (daemon(0, 0) != 0) return 1;
  if (HasWay("writes-no-pid-file")) return 1;
  WritePidFile();
  while (HasWay("is-slow") && !Exists("go")) usleep(5'000);
  HandleSignals();
  if (HasWay("supervisor-aborts")) abort();
  if (!HasWay("no-worker") && fork() == 0) BecomeWorker();
  if (HasWay("dies-behind-its-worker")) abort();
  while (HasWay("serves") && !Exists("ticket") && stop_wanted == 0) usleep(5'000);
  if (HasWay("serves") && stop_wanted == 0) {
    transmission_child = fork();
    if (transmission_child == 0) BecomeTransmissionChild();
  }
  Live("supervisor");
  return 0;
}
