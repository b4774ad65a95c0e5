/// Tells a maker of a device whether the three platform libraries in a folder fit debug_dat_transmitter.
#include <syslog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iterator>

#include "checks.h"
#include "private_room.h"

namespace {

using namespace DebugDatPlatformTest;

constexpr int kFaultFound = 1;
constexpr int kUsageError = 2;

/// Prints lines and counts them.
class Report {
 public:
  explicit Report(unsigned deadline_seconds) : deadline_seconds_(deadline_seconds) {}

  State Run(const Check& check) { return Add(check, RunInChild(check, deadline_seconds_)); }

  /// Runs those whose symbols are all there.
  void RunAll(const Platform& platform, const std::vector<Check>& checks) {
    for (const Check& check : checks) {
      const auto missing = std::find_if(check.needs.begin(), check.needs.end(),
                                        [&](Symbol symbol) { return !platform.Has(symbol); });
      if (missing == check.needs.end()) {
        Run(check);
      } else {
        Add(check, {State::kSkipped, std::string("not checked: there is no ") + NameOf(*missing)});
      }
    }
  }

  /// @return the exit status.
  [[nodiscard]] int Close() const {
    std::printf("\n%d ok, %d FAILED, %d skipped\n", ok_, failed_, skipped_);
    static_cast<void>(std::fflush(stdout));
    return failed_ == 0 ? 0 : kFaultFound;
  }

 private:
  State Add(const Check& check, const Verdict& verdict) {
    static_cast<void>(std::fputs(LineOf(check, verdict).c_str(), stdout));
    static_cast<void>(std::fflush(stdout));  // the next check forks, and may take long
    ++(verdict.state == State::kOk ? ok_ : verdict.state == State::kFailed ? failed_ : skipped_);
    return verdict.state;
  }

  unsigned deadline_seconds_;
  int ok_ = 0;
  int failed_ = 0;
  int skipped_ = 0;
};

struct Options {
  std::string folder;
  std::string ticket_from;
  unsigned deadline_seconds = 30;
};

int TestPlatform(const Options& options, const std::string& room_fault) {
  setlogmask(LOG_MASK(LOG_EMERG));  // what the libraries log here is no news for this machine
  Platform platform(options.folder);
  const ScratchFolder scratch;
  Report report(options.deadline_seconds);
  for (const Library library : kLibraries) {
    if (report.Run(LoadCheck(platform, library)) == State::kOk) platform.Load(library);
  }
  report.RunAll(platform, FileChecks(platform));
  report.RunAll(platform, CoreChecks(platform, scratch));
  report.RunAll(platform, LoggerChecks(platform));
  report.RunAll(platform, HttpChecks(platform, scratch));
  report.RunAll(platform, TicketChecks(platform, options.ticket_from));
  report.RunAll(platform, RunnerChecks(platform, room_fault));
  return report.Close();
}

int Main(int argc, char** argv) {
  Options options;
  CLI::App app(
      "Tells whether the three platform libraries in a folder (libtarvocore.so, libtarvoorvane.so,\n"
      "libwebapi-Pelk5.so) fit debug_dat_transmitter: a line for each check.",
      "debug_dat_platform_test");
  app.set_version_flag("--version", "debug_dat_platform_test " DDT_VERSION);
  app.add_option("FOLDER", options.folder, "Where the libraries lie")
      ->required()
      ->check(CLI::ExistingDirectory);
  app.add_option("--deadline", options.deadline_seconds,
                 "How many seconds a check may take, a collection ten times as long")
      ->check(CLI::Range(1U, 3600U))
      ->capture_default_str();
  app.add_option(
      "--ticket-from", options.ticket_from,
      "Address of a notification server that has a ticket. It is asked for, and answered as rejected");
  app.footer(
      "Run it as root, or where an ordinary user may make namespaces: what a collection writes below /etc,\n"
      "/run, /tmp and /var goes with the program then. Elsewhere collections are skipped.\n"
      "\n"
      "Exit status: 0 nothing failed (there may be skipped checks), 1 something failed, 2 wrong usage.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsageError;
  }
  options.folder = std::filesystem::canonical(options.folder);
  const int status = RunInPrivateRoom(
      options.folder, [&](const std::string& room_fault) { return TestPlatform(options, room_fault); });
  if (status != kCutShort) return status;
  throw std::runtime_error("the checks were ended by a signal");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "debug_dat_platform_test: %s\n", error.what()));
    return kFaultFound;
  }
}
