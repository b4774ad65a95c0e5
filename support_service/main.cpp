/// The local support service: the other end of the daemon, for running, demonstrating and testing it.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <string>

#include "options.h"
#include "program.h"
#include "service.h"

namespace {

using TarvoOrvane::SupportService::EventLog;
using TarvoOrvane::SupportService::ParseServiceOptions;
using TarvoOrvane::SupportService::SupportService;

/// Blocks the signals that end the service; threads made later inherit that, so they are left for sigwait.
sigset_t BlockEndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

/// Each device has a connection. What the system's administrator allows is used.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == -1) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

int Serve(const TarvoOrvane::SupportService::ServiceSettings& settings) {
  const sigset_t end_signals = BlockEndSignals();
  // A reader of the event lines that went away does not end the service.
  if (std::signal(SIGPIPE, SIG_IGN) == SIG_ERR) throw std::runtime_error("cannot ignore SIGPIPE");
  // A limit on the size of files is told to who wrote, as a full disk is.
  if (std::signal(SIGXFSZ, SIG_IGN) == SIG_ERR) throw std::runtime_error("cannot ignore SIGXFSZ");
  RaiseDescriptorLimit();
  umask(0077);  // the control socket is open to its owner from its first moment
  EventLog log(STDOUT_FILENO);
  const SupportService service(settings, [&log](const std::string& event) { log.Write(event); });
  log.WritePlain("grpc listening on " + service.grpc_url());
  log.WritePlain("css listening on " + service.css_url());
  log.WritePlain("control socket " + service.control_socket());
  int signal = 0;
  sigwait(&end_signals, &signal);
  log.Write("service ends: signal " + std::to_string(signal));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  return TarvoOrvane::SupportService::RunProgram("support_service", ParseServiceOptions, argc, argv, Serve);
}
