#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <sstream>
#include <stdexcept>

#include "listen_address.h"

namespace TarvoOrvane::SupportService {
namespace {

constexpr int kUsageError = 2;
constexpr std::int64_t kLongestPause = 600;
constexpr std::int64_t kMaxSeconds = 86400;  // a day: more is a slip of the keyboard

constexpr char kServiceExamples[] = R"(Examples:
  support_service
  support_service --grpc-address 127.0.0.1:50051 --http-address 127.0.0.1:8080 --data /tmp/support

Prints its addresses, then one line per event. Send tickets with the program ticket. SIGTERM or
Ctrl-C ends it. There is no encryption: bind to other addresses than loopback only in a network
that you trust.)";

constexpr char kTicketExamples[] = R"(Examples:
  ticket --apps web,database --wait
  ticket --apps web --device SN0001 --wait 60
  ticket --list
  ticket --cancel 3f9a

Prints the ticket's id. With --wait it prints each change, and exit status 0 means that the device
reported "Success"; without, that the service took the ticket.)";

/// Runs the parser. debug_dat_collect does it in the same way; the service shares no code with the platform.
/// @return Whether the program is to run; otherwise text and exit status are set.
template <typename Options>
bool RunParser(CLI::App& app, int argc, const char* const* argv, Parsed<Options>& parsed) {
  try {
    app.parse(argc, argv);
    parsed.run = true;
  } catch (const CLI::ParseError& error) {
    std::ostringstream text;
    parsed.exit_status = app.exit(error, text, text) == 0 ? 0 : kUsageError;
    parsed.text = text.str();
  }
  return parsed.run;
}

template <typename Options>
void Refuse(Parsed<Options>& parsed, const std::string& why) {
  parsed.run = false;
  parsed.exit_status = kUsageError;
  parsed.text = why + "\nRun with --help for more information.\n";
}

/// Looks at what the parser can't judge.
/// @param check  Throws std::invalid_argument for what is wrong.
template <typename Options, typename Check>
Parsed<Options> Checked(Parsed<Options> parsed, const Check& check) {
  try {
    check(parsed.options);
  } catch (const std::invalid_argument& error) {
    Refuse(parsed, error.what());
  }
  return parsed;
}

/// @throws std::invalid_argument when the service could not be started so.
void CheckSettings(const ServiceSettings& settings) {
  if (settings.data_folder.empty()) throw std::invalid_argument("--data: the folder's name is empty");
  ParseListenAddress(settings.grpc_address, true);
  ParseListenAddress(settings.http_address, false);
}

/// "a,b" as two names; an empty text is an empty list.
/// @throws std::invalid_argument when a name is empty.
std::vector<std::string> SplitNames(const std::string& text) {
  std::vector<std::string> names;
  if (text.empty()) return names;
  std::size_t start = 0;
  for (;;) {
    const std::size_t comma = text.find(',', start);
    names.push_back(text.substr(start, comma - start));
    if (names.back().empty()) throw std::invalid_argument("--apps: a name is empty in \"" + text + "\"");
    if (comma == std::string::npos) return names;
    start = comma + 1;
  }
}

}  // namespace

Parsed<ServiceSettings> ParseServiceOptions(int argc, const char* const* argv) {
  Parsed<ServiceSettings> parsed;
  ServiceSettings& settings = parsed.options;
  std::int64_t retry_seconds = 2;
  std::string data_folder = settings.data_folder.string();
  CLI::App app("A local support service: sends tickets to devices and receives their archives.",
               "support_service");
  app.set_version_flag("--version", "support_service " DDT_VERSION);
  app.add_option("--grpc-address", settings.grpc_address,
                 "Where devices get tickets: HOST:PORT or unix:/path; port 0 is any free one")
      ->capture_default_str();
  app.add_option("--http-address", settings.http_address,
                 "Where devices send archives and reports: HOST:PORT")
      ->capture_default_str();
  app.add_option("--data", data_folder, "Folder for tickets, archives and the control socket")
      ->capture_default_str();
  app.add_option("--retry-seconds", retry_seconds,
                 "Pause before a rejected ticket is delivered again; it doubles each time, up to ten minutes")
      ->check(CLI::Range(std::int64_t{1}, kLongestPause))
      ->capture_default_str();
  app.footer(kServiceExamples);
  if (!RunParser(app, argc, argv, parsed)) return parsed;
  settings.data_folder = data_folder;
  settings.tickets.retry_pause = std::chrono::seconds(retry_seconds);
  return Checked(parsed, CheckSettings);
}

Parsed<TicketOptions> ParseTicketOptions(int argc, const char* const* argv) {
  Parsed<TicketOptions> parsed;
  TicketOptions& options = parsed.options;
  std::string apps;
  std::string data_folder = options.data_folder.string();
  std::int64_t wait_seconds = 0;
  bool list_tickets = false;
  bool list_devices = false;
  CLI::App app("Sends a support ticket through the local support service.", "ticket");
  app.set_version_flag("--version", "ticket " DDT_VERSION);
  auto* apps_option = app.add_option(
      "--apps", apps, "Applications whose debug data is wanted, separated by commas; may be empty");
  auto* device_option = app.add_option("--device", options.device,
                                       "Serial number of the device; else the one that is connected");
  app.add_option("--data", data_folder, "The service's data folder")->capture_default_str();
  // --wait takes its number or does without.
  auto* wait_option =
      app.add_option("--wait", wait_seconds, "Follow the ticket to its end, for at most SECONDS")
          ->expected(0, 1)
          ->type_name("[SECONDS]")
          ->check(CLI::Range(std::int64_t{1}, kMaxSeconds));
  auto* cancel_option =
      app.add_option("--cancel", options.ticket,
                     "Take back a ticket that no device has yet, instead: its id, or the beginning")
          ->type_name("TICKET");
  auto* list_option = app.add_flag("--list", list_tickets, "Print the newest 1000 tickets instead");
  auto* devices_option = app.add_flag("--devices", list_devices, "Print the connected devices instead");
  for (auto* other : {cancel_option, list_option, devices_option}) {
    other->excludes(apps_option)->excludes(device_option)->excludes(wait_option);
  }
  cancel_option->excludes(list_option)->excludes(devices_option);
  list_option->excludes(devices_option);
  app.footer(kTicketExamples);
  if (!RunParser(app, argc, argv, parsed)) return parsed;
  options.data_folder = data_folder;
  options.wait = wait_option->count() > 0;
  if (wait_seconds > 0) options.wait_limit = std::chrono::seconds(wait_seconds);
  if (cancel_option->count() > 0) options.action = TicketOptions::Action::kCancel;
  if (list_tickets) options.action = TicketOptions::Action::kListTickets;
  if (list_devices) options.action = TicketOptions::Action::kListDevices;
  if (options.action == TicketOptions::Action::kCancel) {
    return Checked(parsed, [](TicketOptions& given) {
      if (given.ticket.empty()) throw std::invalid_argument("--cancel: the ticket's id is empty");
    });
  }
  if (options.action != TicketOptions::Action::kSend) return parsed;
  return Checked(parsed, [&](TicketOptions& given) {
    if (apps_option->count() == 0) {
      throw std::invalid_argument("--apps is missing: name the applications, or write --apps \"\" for none");
    }
    given.apps = SplitNames(apps);
  });
}

}  // namespace TarvoOrvane::SupportService
