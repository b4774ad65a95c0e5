/// The local support service: the other end of the daemon, for running, demonstrating and testing it.
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include "options.h"
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

void Serve(const TarvoOrvane::SupportService::ServiceSettings& settings) {
  const sigset_t end_signals = BlockEndSignals();
  // A reader of the event lines that went away does not end the service.
  if (std::signal(SIGPIPE, SIG_IGN) == SIG_ERR) throw std::runtime_error("cannot ignore SIGPIPE");
  umask(0077);
  EventLog log(STDOUT_FILENO);
  const SupportService service(settings, [&log](const std::string& event) { log.Write(event); });
  log.WritePlain("grpc listening on " + service.grpc_url());
  log.WritePlain("css listening on " + service.css_url());
  log.WritePlain("control socket " + service.control_socket());
  int signal = 0;
  sigwait(&end_signals, &signal);
  log.Write("service ends: signal " + std::to_string(signal));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const auto parsed = ParseServiceOptions(argc, argv);
    if (!parsed.run) {
      (parsed.exit_status == 0 ? std::cout : std::cerr) << parsed.text;
      return parsed.exit_status;
    }
    Serve(parsed.options);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "support_service: " << error.what() << "\n";
    return 1;
  }
}
