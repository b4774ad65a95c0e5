/// The command line of supportctl. Parsing prints nothing and ends nothing.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace TarvoOrvane::Supportctl {

/// What supportctl is asked for: one for each of its subcommands.
enum class Command {
  kDevices,
  kEnrolDevice,
  kShowDevice,
  kBlockDevice,
  kUnblockDevice,
  kSend,
  kTickets,
  kShowTicket,
  kFetch,
  kFollow,
  kCancel,
  kDeleteArchive,
  kUsers,
  kAddUser,
  kChangeUser,
  kRemoveUser,
  kTokens,
  kAddToken,
  kRemoveToken,
  kAudit,
  kSettings,
  kBackup,
  kCheck,
  kWhoAmI
};

/// A command line as it was given. Members that a command does not take keep their defaults.
struct Options {  // NOLINT(clang-analyzer-optin.performance.Padding): there is one, to be read
  Command command = Command::kWhoAmI;

  // Where the service is, and who asks.
  std::filesystem::path data_folder =
      "support_service_data";        ///< Where its control socket lies; not with a URL.
  std::string url;                   ///< https://HOST:PORT; empty for the control socket.
  std::filesystem::path token_file;  ///< Empty for the token of the environment.
  std::filesystem::path ca_file;     ///< Empty for the authorities that the system trusts.
  bool json = false;                 ///< Print what the API answered.

  // What is asked for.
  std::vector<std::string> devices;  ///< Serial numbers: any number for kSend, else one.
  std::string beginning;             ///< Of serial numbers.
  bool connected_only = false;
  bool renew = false;                    ///< Overwrite what an earlier enrolment has written.
  std::filesystem::path folder;          ///< For what is written: an enrolment, archives.
  std::string device_filter;             ///< A whole serial number; empty for all devices.
  std::string state;                     ///< As the API writes it; empty for all of them.
  std::uint64_t limit = 50;              ///< Lines at most.
  std::string ticket;                    ///< An id, or the beginning of one; empty where none was named.
  std::optional<std::uint64_t> version;  ///< Of an archive.
  std::vector<std::string> apps;         ///< In the order given.
  std::string note;
  std::optional<std::uint64_t> lifetime_hours;
  bool wait = false;                               ///< For kSend: until the end of every ticket.
  std::optional<std::chrono::seconds> wait_limit;  ///< Without one it waits as long as it takes.
  bool fetch = false;                              ///< For kSend: the archives, to `folder`.
  std::string name;                   ///< Of an account or a token; a token's id for kRemoveToken.
  std::string role;                   ///< Empty where none was named.
  bool password = false;              ///< For kChangeUser: ask for one.
  std::optional<std::uint64_t> days;  ///< A token's life.
  std::filesystem::path backup;       ///< Where a backup goes: a file, or a folder that is there.
  bool without_archives = false;      ///< In a backup.
};

/// What to do with a command line: either run with the options, or print a text and exit.
struct ParsedLine {
  Options options;
  bool run = false;
  int exit_status = 0;  ///< 0 after --help, 2 for wrong options; only where not run.
  std::string text;     ///< The help or the error; ends with a newline.
};

/// Reads the command line, and SUPPORTCTL_DATA for the folder that it doesn't name.
ParsedLine ParseCommandLine(int argc, const char* const* argv);

}  // namespace TarvoOrvane::Supportctl
