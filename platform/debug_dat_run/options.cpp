#include "options.h"

#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>

#include "text_fields.h"

namespace DebugDatRun {
namespace {

constexpr long kLongestStopSeconds = 86'400;

constexpr char kHelp[] =
    R"(Usage: debug_dat_run [OPTION]... [DAEMON]

Runs the daemon in the foreground: starts it, watches its supervisor and its
worker, and ends as soon as one of them does, so that a service manager or a
container starts it again. Without DAEMON it starts debug_dat_transmitter, which
lies beside this program.

  --stop-limit SECONDS  how long a ticket that is being served may still take
                        at the end (300)
  --log-to-stderr       take the daemon's log lines at /dev/log and write them to
                        standard error; for a container, which has a /dev of its own
  --help                show this text
  --version             show the version

Signals: SIGTERM and SIGINT stop the daemon, a second one also the ticket that is
being served; SIGHUP is passed on to the daemon.

Exit status: 0 stopped by a signal, 1 the daemon has ended and should be started
again, 64 wrong usage, 78 wrong configuration (a new start won't help).
)";

enum Option : int { kStopLimit = 256, kLogToStderr, kHelpOption, kVersionOption };

constexpr option kOptions[] = {{"stop-limit", required_argument, nullptr, kStopLimit},
                               {"log-to-stderr", no_argument, nullptr, kLogToStderr},
                               {"help", no_argument, nullptr, kHelpOption},
                               {"version", no_argument, nullptr, kVersionOption},
                               {nullptr, 0, nullptr, 0}};

Parsed WrongUsage() {
  static_cast<void>(fputs("debug_dat_run: see debug_dat_run --help\n", stderr));
  return {false, kWrongUsage, {}};
}

Parsed Answer(const char* text) {
  static_cast<void>(fputs(text, stdout));
  return {false, 0, {}};
}

bool ParseSeconds(const char* text, long& seconds) {
  if (ReadNumber(text, seconds) && seconds >= 0 && seconds <= kLongestStopSeconds) return true;
  static_cast<void>(fprintf(stderr, "debug_dat_run: --stop-limit takes 0 to %ld seconds, not '%s'\n",
                            kLongestStopSeconds, text));
  return false;
}

std::string DaemonBesideThisProgram() {
  std::array<char, PATH_MAX> program = {};
  const ssize_t length = readlink("/proc/self/exe", program.data(), program.size());
  const std::string path(program.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  return path.substr(0, path.rfind('/') + 1) + "debug_dat_transmitter";
}

}  // namespace

Parsed ParseOptions(int argc, char** argv) {
  Parsed parsed;
  optind = 0;  // from the beginning, however often it is called
  for (int found = 0; (found = getopt_long(argc, argv, "+", kOptions, nullptr)) != -1;) {
    if (found == kHelpOption) return Answer(kHelp);
    if (found == kVersionOption) return Answer("debug_dat_run " DDT_VERSION "\n");
    if (found == kLogToStderr) {
      parsed.options.log_to_stderr = true;
    } else if (found != kStopLimit || !ParseSeconds(optarg, parsed.options.stop_seconds)) {
      return WrongUsage();
    }
  }
  if (argc - optind > 1) {
    static_cast<void>(
        fprintf(stderr, "debug_dat_run: the daemon takes no arguments, not '%s'\n", argv[optind + 1]));
    return WrongUsage();
  }
  parsed.options.daemon = optind < argc ? argv[optind] : DaemonBesideThisProgram();
  parsed.run = true;
  return parsed;
}

}  // namespace DebugDatRun
