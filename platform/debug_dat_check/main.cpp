/// Checks whether everything that debug_dat_transmitter needs on this device is in order. Changes nothing.
#include <curl/curl.h>
#include <syslog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <vector>

#include "library_log.h"
#include "report.h"
#include "run_checks.h"

namespace {

using namespace DebugDatCheck;

constexpr int kProblemFound = 1;
constexpr int kUsageError = 2;

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
  RunChecks({}, {}, [&](const Check& check) {
    checks.push_back(check);
    if (as_json) return;
    static_cast<void>(std::fputs(CheckText(check, with_colours).c_str(), stdout));
    static_cast<void>(std::fflush(stdout));  // the next check may wait for a server
  });
  static_cast<void>(std::fputs((as_json ? ReportJson(checks) : "\n" + SummaryText(checks)).c_str(), stdout));
  return HasProblem(checks) ? kProblemFound : 0;
}

int Main(int argc, char** argv) {
  bool as_json = false;
  CLI::App app("Checks whether everything that debug_dat_transmitter needs on this device is in order.",
               "debug_dat_check");
  app.add_flag("--json", as_json, "Print one JSON object at the end instead of a line per check");
  app.footer(
      "Run it as root, as the daemon runs. The daemon need not be running, and nothing is changed on the "
      "device\n"
      "or on the servers. Each look at a server ends after ten seconds.\n"
      "\n"
      "Exit status: 0 no problem (there may be warnings), 1 at least one problem, 2 wrong usage.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsageError;
  }
  return CheckAll(as_json);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "debug_dat_check: %s\n", error.what()));
    return kProblemFound;
  }
}
