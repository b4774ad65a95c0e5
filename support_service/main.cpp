/// The support service: the other end of the daemon.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "options.h"
#include "restore.h"
#include "service.h"
#include "settings_change.h"
#include "text_forms.h"

namespace {

using TarvoOrvane::SupportService::EventLog;
using TarvoOrvane::SupportService::ParseOptions;
using TarvoOrvane::SupportService::Printable;
using TarvoOrvane::SupportService::RestoreBackup;
using TarvoOrvane::SupportService::ServiceSettings;
using TarvoOrvane::SupportService::SupportService;
using TarvoOrvane::SupportService::TakeChanges;
using TarvoOrvane::SupportService::Trust;

/// Blocks the signals that the service takes; threads made later inherit that, so they are left for sigwait.
sigset_t BlockSignals() {
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

/// Takes over what has changed in the options' file since.
/// @param settings  As the service runs.
void ReadAgain(int argc, const char* const* argv, ServiceSettings& settings, SupportService& service,
               EventLog& log) {
  const auto parsed = ParseOptions(argc, argv);
  if (!parsed.run) {
    const std::string why = parsed.text.substr(0, parsed.text.find('\n'));
    return log.Write("the configuration can't be used, all stays as it was: " + Printable(why, 1000));
  }
  ServiceSettings changed = settings;
  const std::vector<std::string> changes = TakeChanges(changed, parsed.settings);
  try {
    service.SetSettings(changed);
    settings = changed;
  } catch (const std::exception& failure) {
    return log.Write(std::string("some of the configuration may not count yet, read it again later: ") +
                     failure.what());
  }
  log.Write("the configuration was read again" + std::string(changes.empty() ? ": nothing has changed" : ""));
  for (const std::string& change : changes) log.Write(change);
}

int Serve(ServiceSettings settings, int argc, const char* const* argv) {
  const sigset_t signals = BlockSignals();
  // A reader of the event lines that went away does not end the service.
  if (std::signal(SIGPIPE, SIG_IGN) == SIG_ERR) throw std::runtime_error("cannot ignore SIGPIPE");
  // A limit on the size of files is told to who wrote, as a full disk is.
  if (std::signal(SIGXFSZ, SIG_IGN) == SIG_ERR) throw std::runtime_error("cannot ignore SIGXFSZ");
  RaiseDescriptorLimit();
  umask(0077);  // the control socket is open to its owner from its first moment
  EventLog log(STDOUT_FILENO, settings.log_format);
  SupportService service(settings, [&log](const std::string& event) { log.Write(event); });
  log.WritePlain("grpc listening on " + service.grpc_url());
  log.WritePlain("css listening on " + service.css_url());
  if (!service.api_url().empty()) log.WritePlain("api listening on " + service.api_url());
  log.WritePlain("control socket " + service.control_socket());
  WarnAbout(settings, service, log);
  int signal = 0;
  for (sigwait(&signals, &signal); signal == SIGHUP; sigwait(&signals, &signal)) {
    ReadAgain(argc, argv, settings, service, log);
  }
  log.Write("service ends: signal " + std::to_string(signal));
  return 0;
}

int Restore(const std::filesystem::path& backup, const ServiceSettings& settings) {
  umask(0077);
  std::cout << RestoreBackup(backup, settings.data_folder) << std::flush;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const auto parsed = ParseOptions(argc, argv);
    if (parsed.run && !parsed.restore.empty()) return Restore(parsed.restore, parsed.settings);
    if (parsed.run) return Serve(parsed.settings, argc, argv);
    (parsed.exit_status == 0 ? std::cout : std::cerr) << parsed.text;
    return parsed.exit_status;
  } catch (const std::exception& error) {
    std::cerr << "support_service: " << error.what() << "\n";
    return 1;
  }
}
