/// Checks whether everything that debug_dat_transmitter needs on this device is in order. Changes nothing.
#include <curl/curl.h>
#include <syslog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "daemon_checks.h"
#include "library_log.h"
#include "report.h"
#include "run_checks.h"

namespace {

using namespace DebugDatCheck;

/// Of the line that --status prints; a log's line may go into it.
constexpr std::size_t kMaxStatusBytes = 1000;

/// The libraries' own log lines would repeat in the system's log what is printed here.
void SilenceLibraries() {
  setlogmask(LOG_MASK(LOG_EMERG));
  TarvoOrvane::Internal::TakeOverForeignLogs();
}

int CheckAll(bool as_json) {
  SilenceLibraries();
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));  // OpenSSL writes to sockets whose peer may be gone
  const bool with_colours = isatty(STDOUT_FILENO) == 1;
  std::vector<Check> checks;
  Places places;
  places.collection.ready_descriptions = READY_DESCRIPTIONS;
  RunChecks(places, {}, [&](const Check& check) {
    checks.push_back(check);
    if (as_json) return;
    static_cast<void>(std::fputs(CheckText(check, with_colours).c_str(), stdout));
    static_cast<void>(std::fflush(stdout));  // the next check may wait for a server
  });
  static_cast<void>(std::fputs((as_json ? ReportJson(checks) : "\n" + SummaryText(checks)).c_str(), stdout));
  return ExitStatus(checks);
}

int TellStatus(bool as_json) {
  const Places places;
  const Check check =
      DaemonStatus(FindDaemon(places.pid_file), places.configuration, places.logger, places.collection);
  const std::string text = as_json ? ReportJson({check})
                                   : TarvoOrvane::Internal::MakePrintable(check.text, kMaxStatusBytes) + "\n";
  static_cast<void>(std::fputs(text.c_str(), stdout));
  return ExitStatus({check});
}

int Main(int argc, char** argv) {
  bool as_json = false;
  bool status = false;
  CLI::App app("Checks whether everything that debug_dat_transmitter needs on this device is in order.",
               "debug_dat_check");
  app.set_version_flag("--version", "debug_dat_transmitter " DDT_VERSION);
  app.add_flag("--json", as_json, "Print one JSON object at the end instead of a line per check");
  app.add_flag("--status", status,
               "Only tell, in one line, whether the daemon works, and of its last ticket");
  app.footer(
      "Run it as root: it looks with the rights of the user that the daemon runs as. Nothing is changed on "
      "the\n"
      "device or on the servers. Each look at a server ends after ten seconds.\n"
      "\n"
      "Exit status: 0 no problem (there may be warnings), 1 problems of several kinds, 2 wrong usage, 3 a "
      "problem\n"
      "of the configuration, 4 of a server, 5 of the collection, 6 of the daemon's processes.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kWrongUsage;
  }
  return status ? TellStatus(as_json) : CheckAll(as_json);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "debug_dat_check: %s\n", error.what()));
    return kSeveralKinds;
  }
}
