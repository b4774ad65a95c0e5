/// The command line.
#pragma once

#include <string>

namespace DebugDatRun {

// What the program exits with.
inline constexpr int kStopped = 0;      ///< It was told to stop.
inline constexpr int kStartAgain = 1;   ///< The daemon has ended. A new start may help.
inline constexpr int kWrongUsage = 64;  ///< As EX_USAGE of sysexits.h.
inline constexpr int kWrongConfiguration =
    78;  ///< As EX_CONFIG: a new start won't help before somebody mends it.

struct Options {
  std::string
      daemon;  ///< The program to start; without one given, debug_dat_transmitter beside this program.
  long stop_seconds = 300;     ///< How long a ticket that is being served may still take at the end.
  bool log_to_stderr = false;  ///< Whether to take the daemon's log lines and write them to standard error.
};

/// What came of the command line.
struct Parsed {
  bool run =
      false;  ///< Whether there is anything to run; if not, everything is said and `status` is the exit status.
  int status = 0;
  Options options;
};

/// Answers --help and --version itself.
[[nodiscard]] Parsed ParseOptions(int argc, char** argv);

}  // namespace DebugDatRun
