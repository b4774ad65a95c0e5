/// The support service: the other end of the daemon.
#include <sys/resource.h>
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
using TarvoOrvane::SupportService::ParseOptions;
using TarvoOrvane::SupportService::ServiceSettings;
using TarvoOrvane::SupportService::SupportService;
using TarvoOrvane::SupportService::Trust;

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

/// What an operator had better know.
void WarnAbout(const ServiceSettings& settings, const SupportService& service, EventLog& log) {
  if (settings.tickets.trust == Trust::kAllowList) {
    log.Write("warning: devices are believed who they are (--allow-list), use this only where nobody lies");
  }
  for (const std::string& url : {service.grpc_url(), service.css_url(), service.api_url()}) {
    if (url.rfind("http://", 0) == 0) {
      log.Write("warning: only this machine reaches what is not encrypted, " + url);
    }
  }
}

int Serve(const ServiceSettings& settings) {
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
  if (!service.api_url().empty()) log.WritePlain("api listening on " + service.api_url());
  log.WritePlain("control socket " + service.control_socket());
  WarnAbout(settings, service, log);
  int signal = 0;
  sigwait(&end_signals, &signal);
  log.Write("service ends: signal " + std::to_string(signal));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const auto parsed = ParseOptions(argc, argv);
    if (parsed.run) return Serve(parsed.settings);
    (parsed.exit_status == 0 ? std::cout : std::cerr) << parsed.text;
    return parsed.exit_status;
  } catch (const std::exception& error) {
    std::cerr << "support_service: " << error.what() << "\n";
    return 1;
  }
}
