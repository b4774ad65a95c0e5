/// The command lines of the two programs.
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
  Options options;
  bool run = false;
  int exit_status = 0;  ///< 0 after --help, 2 for wrong options; only where not run.
  std::string text;     ///< The help or the error; ends with a newline.
};

/// @return the options of support_service. Addresses were checked.
Parsed<ServiceSettings> ParseServiceOptions(int argc, const char* const* argv);

struct TicketOptions {
  enum class Action { kSend, kListTickets, kListDevices };

  Action action = Action::kSend;
  std::vector<std::string> apps;
  std::string device;
  std::filesystem::path data_folder = "support_service_data";
  bool wait = false;
  std::optional<std::chrono::seconds> wait_limit;  ///< Without one it waits as long as it takes.
};

/// @return the options of ticket.
Parsed<TicketOptions> ParseTicketOptions(int argc, const char* const* argv);

}  // namespace TarvoOrvane::SupportService
