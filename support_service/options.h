/// The command lines of the two programs. Parsing prints nothing and ends nothing: the main functions do (program.h).
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "service.h"

namespace TarvoOrvane::SupportService {

/// What to do with a command line: either run with the options, or print a text and exit.
template <typename Options>
struct Parsed {
  Options options;  ///< The defaults where a line says nothing else.
  bool run = false;
  int exit_status = 0;  ///< 0 after --help, 2 for wrong options; only where not run.
  std::string text;     ///< The help or the error; ends with a newline.
};

/// Reads the command line of support_service. Its addresses were checked, and their hosts were looked up for that.
Parsed<ServiceSettings> ParseServiceOptions(int argc, const char* const* argv);

/// What the program ticket is asked for.
struct TicketOptions {
  enum class Action { kSend, kCancel, kListTickets, kListDevices };

  Action action = Action::kSend;
  std::vector<std::string> apps;  ///< For kSend, in the order given; none for the system's data alone.
  std::string device;             ///< For kSend: a serial number; empty for the one that is connected.
  std::string ticket;             ///< For kCancel: its id, or the beginning of it.
  std::filesystem::path data_folder = "support_service_data";  ///< Where the service's control socket lies.
  bool wait = false;                               ///< After kSend: follow the ticket until its report.
  std::optional<std::chrono::seconds> wait_limit;  ///< Without one it waits as long as it takes.
};

/// Reads the command line of ticket.
Parsed<TicketOptions> ParseTicketOptions(int argc, const char* const* argv);

}  // namespace TarvoOrvane::SupportService
