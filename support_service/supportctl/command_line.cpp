#include "command_line.h"

#include <CLI/CLI.hpp>
#include <cctype>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace TarvoOrvane::Supportctl {
namespace {

constexpr int kUsageError = 2;
constexpr std::int64_t kLongestWait = 31'536'000;  // a year: tickets live no longer
constexpr std::uint64_t kLongestLife = 8760;
constexpr std::uint64_t kLongestTokenLife = 3650;
constexpr std::uint64_t kMostLines = 1'000'000;
constexpr std::size_t kLongestTicketId = 16;

constexpr char kExamples[] = R"(Examples:
  supportctl devices --connected
  supportctl send SN0001 --apps web,database --wait --fetch archives
  supportctl --data /var/lib/tarvo-support-service tickets --state queued
  supportctl --url https://support.example:8443 --token-file token whoami

Each command has examples of its own: supportctl COMMAND --help.

Without --url it asks the service on this machine, as its administrator. With --url it needs a
token, from --token-file or the environment variable SUPPORTCTL_TOKEN.

Exit status: 0 done, 1 refused or failed, 2 wrong command line, 3 the service can't be reached,
4 not allowed, 5 the time of --wait is over.)";

/// Builds the parser, each of whose options writes to a member of `options`.
class Parser {
 public:
  explicit Parser(Options& options) : options_(options) {
    app_.set_version_flag("--version", "supportctl " DDT_VERSION);
    app_.require_subcommand(1);
    app_.fallthrough();  // the options for all commands may stand behind the command, too
    app_.footer(kExamples);
    AddCommonOptions();
    AddDeviceCommands();
    AddSend();
    AddTicketCommands();
    AddUserCommands();
    AddTokenCommands();
    AddReports();
  }
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;

  /// @throws CLI::ParseError for what can't be parsed, and for --help.
  /// @throws std::invalid_argument for what can be, and makes no sense.
  void Parse(int argc, const char* const* argv) {
    app_.parse(argc, argv);
    // A command is listed behind the one that it is part of.
    for (const auto& [command, app] : commands_) {
      if (app->parsed()) options_.command = command;
    }
    TakeCommonOptions();
    switch (options_.command) {
      case Command::kSend:
        return TakeSend();
      case Command::kChangeUser:
        if (options_.role.empty() && !options_.password) {
          throw std::invalid_argument("users change: say what to change with --role or --password");
        }
        return;
      default:
        return;
    }
  }

  /// @return The exit status; the text is the help, or says what is wrong.
  int Explain(const CLI::ParseError& error, std::string& text) const {
    std::ostringstream out;
    const bool is_help = app_.exit(error, out, out) == 0;
    text = out.str();
    if (is_help) return 0;
    // What was mistyped is often why something else is missing.
    const std::vector<std::string> unknown = app_.remaining(true);
    if (error.get_name() == "RequiredError" && !unknown.empty()) {
      text = "Not expected: " + unknown[0] + "\n" + text;
    }
    return kUsageError;
  }

 private:
  CLI::App* Add(CLI::App& parent, Command command, const char* name, const char* what, const char* examples) {
    CLI::App* added = parent.add_subcommand(name, what);
    added->footer(std::string("Examples:\n") + examples);
    commands_.emplace_back(command, added);
    return added;
  }

  void AddCommonOptions() {
    data_option_ =
        app_.add_option("--data", data_folder_,
                        "The service's data folder; without it SUPPORTCTL_DATA, or else support_service_data")
            ->type_name("FOLDER");
    url_option_ = app_.add_option("--url", options_.url, "Ask the service at https://HOST:PORT instead")
                      ->type_name("URL")
                      ->excludes(data_option_);
    app_.add_option("--token-file", token_file_, "File with the token for --url; without it SUPPORTCTL_TOKEN")
        ->type_name("FILE")
        ->needs(url_option_);
    app_.add_option("--ca", ca_file_, "Certificates of the authorities to trust, for --url (PEM)")
        ->type_name("FILE")
        ->needs(url_option_);
    app_.add_flag("--json", options_.json, "Print what the service answered, as one JSON document");
  }

  void AddSerialNumber(CLI::App* command, const char* what) {
    command->add_option("SERIAL", serial_number_, what)->required();
  }

  void AddTicket(CLI::App* command, bool is_required) {
    command->add_option("TICKET", options_.ticket, "Its id, or as much of its beginning as no other has")
        ->required(is_required)
        ->check(CLI::Validator(
            [](std::string& text) {
              const bool is_hex = !text.empty() && text.size() <= kLongestTicketId &&
                                  text.find_first_not_of("0123456789abcdef") == std::string::npos;
              return is_hex ? ""
                            : "a ticket's id is 1 to 16 of the characters 0-9 and a-f, not \"" + text + "\"";
            },
            ""));
  }

  void AddRole(CLI::App* command, const char* what, bool is_required) {
    command->add_option("--role", options_.role, what)
        ->required(is_required)
        ->check(CLI::IsMember({"viewer", "support", "admin"}));
  }

  void AddLimit(CLI::App* command) {
    command->add_option("--limit", options_.limit, "At most so many")
        ->type_name("COUNT")
        ->check(CLI::Range(std::uint64_t{1}, kMostLines))
        ->capture_default_str();
  }

  void AddDeviceCommands() {
    CLI::App* devices =
        Add(app_, Command::kDevices, "devices", "List the enrolled devices", R"(  supportctl devices
  supportctl devices --connected --beginning SN00)");
    devices->add_flag("--connected", options_.connected_only, "Only those that are connected");
    devices->add_option("--beginning", options_.beginning, "Only those whose serial number begins so")
        ->type_name("BEGINNING");

    CLI::App* device = app_.add_subcommand("device", "Enrol, show or block one device");
    device->footer("Examples:\n  supportctl device show SN0001\n  supportctl device enrol --help");
    device->require_subcommand(1);
    CLI::App* enrol =
        Add(*device, Command::kEnrolDevice, "enrol", "Enrol a device, and write what has to be put on it",
            R"(  supportctl device enrol SN0001 --out SN0001
  supportctl device enrol SN0001 --out SN0001 --renew)");
    AddSerialNumber(enrol, "Its whole serial number");
    enrol->add_option("--out", folder_, "Folder for the files, made where missing")
        ->type_name("FOLDER")
        ->required();
    enrol->add_flag("--renew", options_.renew, "Overwrite the files that are there");
    for (const auto& [command, name, what] :
         {std::tuple{Command::kShowDevice, "show", "Show a device"},
          std::tuple{Command::kBlockDevice, "block", "Block a device, at once"},
          std::tuple{Command::kUnblockDevice, "unblock", "Let a blocked device in again"}}) {
      CLI::App* added =
          Add(*device, command, name, what, (std::string("  supportctl device ") + name + " SN0001").c_str());
      AddSerialNumber(added, "Its serial number, or as much of its beginning as no other has");
    }
  }

  void AddSend() {
    CLI::App* send = Add(app_, Command::kSend, "send", "Send a ticket to each of the devices",
                         R"(  supportctl send SN0001 --apps web,database
  supportctl send SN0001 SN0002 --apps "" --note "slow since Monday" --wait 3600
  supportctl send --apps kernel --fetch archives

Prints the tickets' ids, one a line, each as soon as the service has the ticket.)");
    send->add_option("SERIAL", options_.devices,
                     "Whole serial numbers of the devices; else the one that is connected");
    send->add_option("--apps", apps_,
                     "Applications whose debug data is wanted, separated by commas; \"\" for none")
        ->type_name("NAMES")
        ->required();
    send->add_option("--note", options_.note, "Why, for colleagues. The device does not get it");
    send->add_option("--lifetime", options_.lifetime_hours,
                     "Hours within which a device has to accept its ticket; else 336")
        ->type_name("HOURS")
        ->check(CLI::Range(std::uint64_t{1}, kLongestLife));
    // --wait takes its number or does without.
    wait_option_ =
        send->add_option("--wait", wait_seconds_, "Wait for the devices' reports, for at most SECONDS")
            ->expected(0, 1)
            ->type_name("[SECONDS]")
            ->check(CLI::Range(std::int64_t{1}, kLongestWait));
    fetch_option_ = send->add_option("--fetch", folder_, "Wait, and download the archives to this folder")
                        ->type_name("FOLDER");
  }

  void AddTicketCommands() {
    CLI::App* tickets =
        Add(app_, Command::kTickets, "tickets", "List the tickets, newest first", R"(  supportctl tickets
  supportctl tickets --device SN0001 --state no_result --limit 200)");
    tickets
        ->add_option("--device", options_.device_filter,
                     "Only those of the device with this whole serial number")
        ->type_name("SERIAL");
    tickets->add_option("--state", options_.state, "Only those in this state")
        ->check(CLI::IsMember({"queued", "delivered", "accepted", "uploaded", "reported", "refused",
                               "no_result", "cancelled", "expired"}));
    AddLimit(tickets);

    AddTicket(Add(app_, Command::kShowTicket, "show",
                  "Show a ticket, what happened to it, and what to do next", "  supportctl show 3f9a"),
              true);

    CLI::App* fetch =
        Add(app_, Command::kFetch, "fetch", "Download a ticket's archives", R"(  supportctl fetch 3f9a
  supportctl fetch 3f9a --version 2 --out archives

Prints the files' names. What was downloaded before a connection broke is not downloaded again.)");
    AddTicket(fetch, true);
    fetch->add_option("--out", folder_, "Folder for the files, made where missing; else the current one")
        ->type_name("FOLDER");
    fetch->add_option("--version", options_.version, "Only this archive; else all that are there")
        ->type_name("VERSION")
        ->check(CLI::Range(std::uint64_t{1}, kMostVersions));

    AddTicket(Add(app_, Command::kFollow, "follow", "Print what happens to tickets, as it happens",
                  R"(  supportctl follow
  supportctl follow 3f9a
  supportctl follow --json | jq --unbuffered -r .event.text

With a ticket: what happened to it so far, and then on to its end.)"),
              false);
    AddTicket(Add(app_, Command::kCancel, "cancel", "Take back a ticket that no device has yet",
                  "  supportctl cancel 3f9a"),
              true);
    CLI::App* remove = Add(app_, Command::kDeleteArchive, "delete", "Delete an archive from the service",
                           "  supportctl delete 3f9a 1");
    AddTicket(remove, true);
    remove->add_option("VERSION", options_.version, "The archive's version, as supportctl show tells it")
        ->required()
        ->check(CLI::Range(std::uint64_t{1}, kMostVersions));
  }

  void AddUserCommands() {
    CLI::App* users = Add(app_, Command::kUsers, "users", "List the accounts; or add, change or remove one",
                          R"(  supportctl users
  supportctl users add ada --role support)");
    CLI::App* add =
        Add(*users, Command::kAddUser, "add", "Make an account", R"(  supportctl users add ada --role support
  supportctl users add ada --role support <password_file

The password is asked for, or else the first line of standard input.)");
    CLI::App* change =
        Add(*users, Command::kChangeUser, "change", "Change an account's role or password. Its sessions end",
            R"(  supportctl users change ada --role admin
  supportctl users change ada --password)");
    CLI::App* remove = Add(*users, Command::kRemoveUser, "remove", "Remove an account. Its sessions end",
                           "  supportctl users remove ada");
    for (CLI::App* command : {add, change, remove}) {
      command->add_option("NAME", options_.name, "The account's name")->required();
    }
    AddRole(add, "What the account may do", true);
    AddRole(change, "What the account may do from now on", false);
    change->add_flag("--password", options_.password, "Ask for a new one, or read a line of standard input");
  }

  void AddTokenCommands() {
    CLI::App* tokens = Add(app_, Command::kTokens, "tokens", "List the API tokens; or add or remove one",
                           R"(  supportctl tokens
  supportctl tokens add nightly --role support --days 30 >token)");
    CLI::App* add = Add(*tokens, Command::kAddToken, "add", "Make an API token, and print its secret",
                        R"(  supportctl tokens add nightly --role support --days 30 >token

The secret is never told again.)");
    add->add_option("NAME", options_.name, "What the token is for")->required();
    AddRole(add, "What who has the token may do", true);
    add->add_option("--days", options_.days, "Days until it expires; else 90")
        ->type_name("DAYS")
        ->check(CLI::Range(std::uint64_t{1}, kLongestTokenLife));
    CLI::App* remove = Add(*tokens, Command::kRemoveToken, "remove", "Remove an API token, at once",
                           "  supportctl tokens remove 1f6c");
    remove->add_option("ID", options_.name, "The token's id, as supportctl tokens tells it")->required();
  }

  void AddReports() {
    AddLimit(Add(app_, Command::kAudit, "audit", "List who did what, newest first",
                 "  supportctl audit --limit 200"));
    Add(app_, Command::kSettings, "settings",
        "Show what the service runs with, and how much of its limits is used", "  supportctl settings");
    CLI::App* backup =
        Add(app_, Command::kBackup, "backup", "Make a backup of all that the service remembers",
            R"(  supportctl backup /var/backups
  supportctl backup support.tar --no-archives

It has the private key of the service's authority: keep it where nobody else can read it.
support_service --restore takes it back.)");
    backup
        ->add_option("PLACE", backup_, "A file, or a folder for a file named by the time. A file is replaced")
        ->required();
    backup->add_flag("--no-archives", options_.without_archives, "Leave out the received archives");
    Add(app_, Command::kCheck, "check", "Say whether the service is well", R"(  supportctl check
  supportctl check --json

Exit status 1 where there are problems.)");
    Add(app_, Command::kWhoAmI, "whoami", "Show the service, and as whom it sees you",
        "  supportctl --url https://support.example:8443 --token-file token whoami");
  }

  /// @throws std::invalid_argument when there is no way to ask the service so.
  void TakeCommonOptions() {
    if (data_option_->count() > 0) options_.data_folder = data_folder_;
    const char* of_environment = std::getenv("SUPPORTCTL_DATA");  // no other thread is there yet
    if (data_option_->count() == 0 && of_environment != nullptr && *of_environment != '\0') {
      options_.data_folder = of_environment;
    }
    if (options_.data_folder.empty()) throw std::invalid_argument("--data: the folder's name is empty");
    if (url_option_->count() > 0) CheckUrl();
    options_.token_file = token_file_;
    options_.ca_file = ca_file_;
    options_.folder = folder_;
    options_.backup = backup_;
    if (!serial_number_.empty()) options_.devices = {serial_number_};
  }

  void CheckUrl() {
    constexpr std::string_view kScheme = "https://";
    std::string& url = options_.url;
    if (!url.empty() && url.back() == '/') url.pop_back();
    if (url.rfind(kScheme, 0) != 0 || url.size() == kScheme.size() ||
        url.find_first_of("/?#@\\ ", kScheme.size()) != std::string::npos) {
      throw std::invalid_argument("--url: write it as https://HOST:PORT, not \"" + url + "\"");
    }
  }

  /// @throws std::invalid_argument when a name is empty.
  void TakeSend() {
    options_.wait = wait_option_->count() > 0 || fetch_option_->count() > 0;
    options_.fetch = fetch_option_->count() > 0;
    if (wait_seconds_ > 0) options_.wait_limit = std::chrono::seconds(wait_seconds_);
    std::istringstream names(apps_);
    if (!apps_.empty() && apps_.back() == ',') throw std::invalid_argument(EmptyName());
    for (std::string name; std::getline(names, name, ',');) {
      if (name.empty()) throw std::invalid_argument(EmptyName());
      options_.apps.push_back(name);
    }
  }

  [[nodiscard]] std::string EmptyName() const { return "--apps: a name is empty in \"" + apps_ + "\""; }

  static constexpr std::uint64_t kMostVersions = 1ULL << 53;  // what any JSON number can tell apart

  Options& options_;
  CLI::App app_{"Speaks with a support service: sees devices, sends tickets to them, fetches archives.",
                "supportctl"};
  std::vector<std::pair<Command, CLI::App*>> commands_;
  CLI::Option* data_option_ = nullptr;
  CLI::Option* url_option_ = nullptr;
  CLI::Option* wait_option_ = nullptr;
  CLI::Option* fetch_option_ = nullptr;
  // What options write to whose members are of other types.
  std::string data_folder_;
  std::string token_file_;
  std::string ca_file_;
  std::string folder_;
  std::string backup_;
  std::string serial_number_;
  std::string apps_;
  std::int64_t wait_seconds_ = 0;
};

}  // namespace

ParsedLine ParseCommandLine(int argc, const char* const* argv) {
  ParsedLine line;
  Parser parser(line.options);
  try {
    parser.Parse(argc, argv);
    line.run = true;
  } catch (const CLI::ParseError& error) {
    line.exit_status = parser.Explain(error, line.text);
  } catch (const std::invalid_argument& error) {
    line.exit_status = kUsageError;
    line.text = std::string(error.what()) + "\nRun with --help for more information.\n";
  }
  return line;
}

}  // namespace TarvoOrvane::Supportctl
