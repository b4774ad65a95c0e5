#include "options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "certificate.h"
#include "listen_address.h"
#include "tls_identity.h"

namespace TarvoOrvane::SupportService {
namespace {

constexpr int kUsageError = 2;
constexpr std::int64_t kLongestPause = 600;

constexpr char kExamples[] = R"(Examples:
  support_service
  support_service --name support.example.org --grpc-address 0.0.0.0:50051 \
    --http-address 0.0.0.0:8443 --api-address 0.0.0.0:443 --data /var/lib/support
  support_service --config /etc/support_service.conf --check-config

Prints its addresses, then one line per event. Devices are enrolled and tickets are sent with
supportctl. SIGHUP has it read the file again, SIGTERM or Ctrl-C ends it.)";

/// What the parser reads as text.
struct Given {
  std::string data_folder;
  std::string certificate;
  std::string key;
  std::string authority;
  std::string device_authority;
  bool allow_list = false;
  std::string log_format = "plain";
  std::string webhook_secret_file;
  std::string webhook_authority;
  bool check_config = false;
  std::string restore;
  std::int64_t retry_seconds = 2;
  std::int64_t stop_seconds = 10;
};

void AddAddresses(CLI::App& app, ServiceSettings& settings) {
  app.add_option("--grpc-address", settings.grpc_address,
                 "Where devices get tickets: HOST:PORT or unix:/path; port 0 is any free one")
      ->capture_default_str();
  app.add_option("--http-address", settings.http_address,
                 "Where devices send archives and reports: HOST:PORT")
      ->capture_default_str();
  app.add_option(
      "--api-address", settings.api_address,
      "Where people and programs reach the service: HOST:PORT. Without it they do over the control "
      "socket alone");
  app.add_option("--name", settings.identity.names,
                 "A name or address under which the service is reached, the one for devices first; may be "
                 "repeated. Without it this machine's own");
}

void AddIdentity(CLI::App& app, Given& given) {
  app.add_flag(
      "--allow-list", given.allow_list,
      "Believe devices which serial number is theirs, as long as it is an enrolled one. For networks in "
      "which nobody lies");
  app.add_option(
      "--device-authority", given.device_authority,
      "PEM file of the authority that issues devices' certificates, in place of the service's own");
  app.add_option("--certificate", given.certificate,
                 "PEM file of the service's certificate, in place of one of its own authority");
  app.add_option("--key", given.key, "PEM file of its key");
  app.add_option("--authority", given.authority, "PEM file of the authority that devices trust for it");
}

/// Sizes and counts that nobody means by more are mistakes.
constexpr std::uint64_t kLargestSize = std::uint64_t{1} << 60;
constexpr std::uint64_t kLargestCount = 1'000'000;
constexpr std::uint64_t kMostArchivesKept = 1'000'000'000;
constexpr std::uint64_t kLongestKept = 36'500;

/// A size in bytes, as 4GiB or 500MB.
template <typename Size>
void AddSize(CLI::App& app, const char* name, Size& size, const char* by_default, std::uint64_t least,
             const char* what) {
  app.add_option(name, size, what)
      ->transform(CLI::AsSizeValue(true).description(""))
      ->check(CLI::Range(least, kLargestSize).description(""))
      ->type_name("SIZE")
      ->default_str(by_default);
}

template <typename Count>
void AddCount(CLI::App& app, const char* name, Count& count, std::uint64_t least, std::uint64_t most,
              const char* what) {
  app.add_option(name, count, what)
      ->check(CLI::Range(least, most).description(""))
      ->type_name("COUNT")
      ->capture_default_str();
}

void AddLimits(CLI::App& app, ServiceSettings& settings) {
  AddSize(app, "--max-upload", settings.largest_upload, "4GiB", 1, "The largest upload that is taken");
  AddSize(app, "--free-space", settings.disk_stays_free, "a twentieth of the disk, 1GiB at most", 0,
          "So much of the disk is never filled by uploads");
  AddCount(app, "--max-streams", settings.tickets.most_streams, 1, kLargestCount,
           "So many devices are connected at most");
  AddCount(app, "--max-silent-streams", settings.tickets.most_silent_streams, 1, kLargestCount,
           "So many of the streams have not said who they are at most");
  AddCount(app, "--max-connections-per-address", settings.connections_per_address, 1, 1000,
           "So many HTTP connections one IP address has to a listener at most");
  AddCount(app, "--max-queued-tickets", settings.tickets.most_queued, 1, kLargestCount,
           "So many tickets wait for one device at most");
  AddCount(app, "--max-open-tickets", settings.tickets.most_open, 1, kLargestCount,
           "So many tickets are not at their end at most");
}

void AddRetention(CLI::App& app, RetentionSettings& retention) {
  AddCount(app, "--keep-archives", retention.archives, 0, kMostArchivesKept,
           "So many archives are kept; the oldest go, never one of the last day. 0 for any number");
  AddSize(app, "--keep-bytes", retention.bytes, "four fifths of the disk", 0,
          "So much is kept of them, likewise. 0 for any size");
  AddCount(app, "--keep-days", retention.days, 0, kLongestKept, "So many days they are kept. 0 for ever");
  AddCount(app, "--keep-per-device", retention.archives_per_device, 0, kMostArchivesKept,
           "So many of one device are kept. 0 for any number");
}

void AddWebhook(CLI::App& app, Given& given, ServiceSettings& settings) {
  app.add_option("--webhook-url", settings.webhook.url,
                 "Is told when a ticket ends: https://HOST/PATH, or http on this machine");
  app.add_option("--webhook-secret-file", given.webhook_secret_file,
                 "File whose first line signs what is told there");
  app.add_option(
      "--webhook-authority", given.webhook_authority,
      "PEM file of who issues the receiver's certificate, in place of those that the system trusts");
}

/// @throws std::invalid_argument when the file can't be read.
void CheckReadable(const char* option, const std::filesystem::path& file) {
  if (file.empty() || access(file.c_str(), R_OK) == 0) return;
  throw std::invalid_argument(std::string(option) + ": " + file.string() + ": " +
                              std::generic_category().message(errno));
}

/// @throws std::invalid_argument or std::runtime_error when there can't be such a webhook.
void TakeWebhook(const Given& given, WebhookSettings& webhook) {
  if (webhook.url.empty() && given.webhook_secret_file.empty() && given.webhook_authority.empty()) return;
  if (webhook.url.empty() || given.webhook_secret_file.empty()) {
    throw std::invalid_argument("--webhook-url and --webhook-secret-file go together");
  }
  if (const std::string fault = WebhookUrlFault(webhook.url); !fault.empty()) {
    throw std::invalid_argument("--webhook-url " + fault);
  }
  CheckReadable("--webhook-authority", given.webhook_authority);
  webhook.authority = given.webhook_authority;
  try {
    webhook.secret = ReadWebhookSecret(given.webhook_secret_file);
  } catch (const std::exception& fault) {
    throw std::invalid_argument(std::string("--webhook-secret-file: ") + fault.what());
  }
}

/// @throws std::invalid_argument when it is none.
void TakeDataFolderName(const Given& given, ServiceSettings& settings) {
  if (given.data_folder.empty()) throw std::invalid_argument("--data: the folder's name is empty");
  settings.data_folder = given.data_folder;
}

/// Takes over what the parser can't.
/// @throws std::invalid_argument or std::runtime_error when the service could not be started so.
void Complete(const Given& given, ServiceSettings& settings) {
  IdentitySettings& identity = settings.identity;
  TakeDataFolderName(given, settings);
  if (given.log_format == "json") settings.log_format = LogFormat::kJson;
  settings.tickets.retry_pause = std::chrono::seconds(given.retry_seconds);
  settings.stop_limit = std::chrono::seconds(given.stop_seconds);
  identity.certificate = given.certificate;
  identity.key = given.key;
  identity.authority = given.authority;
  identity.device_authority = given.device_authority;
  if (given.allow_list) settings.tickets.trust = Trust::kAllowList;
  if (!given.device_authority.empty()) settings.tickets.trust = Trust::kOtherAuthority;

  if (given.allow_list && !given.device_authority.empty()) {
    throw std::invalid_argument(
        "--allow-list and --device-authority exclude each other: one says that devices show "
        "no certificates, the other who issues them");
  }
  const bool has_any = !given.certificate.empty() || !given.key.empty() || !given.authority.empty();
  const bool has_all = !given.certificate.empty() && !given.key.empty() && !given.authority.empty();
  if (has_any && !has_all) throw std::invalid_argument("--certificate, --key and --authority go together");
  const ListenAddress grpc = ParseListenAddress(settings.grpc_address, true);
  if (!grpc.unix_path.empty() && !given.allow_list) {
    throw std::invalid_argument(
        "--grpc-address: no certificates are shown on a unix socket; use TCP, or --allow-list");
  }
  const ListenAddress http = ParseListenAddress(settings.http_address, false);
  if (identity.names.empty() && !(IsLocal(grpc) && IsLocal(http))) {
    throw std::invalid_argument(
        "--name is missing: devices elsewhere need a name or an address of this machine");
  }
  for (const std::string& name : identity.names) {
    if (name.empty()) throw std::invalid_argument("--name: the name is empty");
    if (const std::string fault = ServerNameFault(name); !fault.empty()) {
      throw std::invalid_argument("--name: \"" + name + ("\" " + fault));
    }
  }
  if (!settings.api_address.empty()) ParseListenAddress(settings.api_address, false);
  CheckReadable("--certificate", identity.certificate);
  CheckReadable("--key", identity.key);
  CheckReadable("--authority", identity.authority);
  CheckReadable("--device-authority", identity.device_authority);
  if (!identity.certificate.empty()) {
    static_cast<void>(KeyPair(identity.certificate, identity.key));
    static_cast<void>(ReadAuthority(identity.authority));
  }
  if (!identity.device_authority.empty()) static_cast<void>(ReadAuthority(identity.device_authority));
  TakeWebhook(given, settings.webhook);
}

void Refuse(ParsedOptions& parsed, const std::string& why) {
  parsed.run = false;
  parsed.exit_status = kUsageError;
  parsed.text = why + "\nRun with --help for more information.\n";
}

}  // namespace

ParsedOptions ParseOptions(int argc, const char* const* argv) {
  ParsedOptions parsed;
  Given given;
  given.data_folder = parsed.settings.data_folder.string();
  CLI::App app("A support service: sends tickets to devices and receives their archives.", "support_service");
  app.set_version_flag("--version", "support_service " DDT_VERSION);
  app.set_config("--config", "", "File with these options, one a line, as in: api-address = 0.0.0.0:443");
  app.allow_config_extras(CLI::config_extras_mode::error);
  CLI::Option* check_config = app.add_flag("--check-config", given.check_config,
                                           "Say whether the options and the file can be used, and end");
  check_config->configurable(false);
  const CLI::Option* restore =
      app.add_option("--restore", given.restore,
                     "Restore this backup to the data folder, which has to be empty, and end")
          ->type_name("FILE")
          ->configurable(false)
          ->excludes(check_config);
  AddAddresses(app, parsed.settings);
  app.add_option("--data", given.data_folder, "Folder for tickets, archives and the control socket")
      ->capture_default_str();
  AddIdentity(app, given);
  app.add_option("--retry-seconds", given.retry_seconds,
                 "Pause before a rejected ticket is delivered again; it doubles each time, up to ten minutes")
      ->check(CLI::Range(std::int64_t{1}, kLongestPause))
      ->capture_default_str();
  AddLimits(app, parsed.settings);
  AddRetention(app, parsed.settings.retention);
  app.add_option("--stop-seconds", given.stop_seconds,
                 "At its end it waits so long for uploads that are under way")
      ->check(CLI::Range(std::int64_t{0}, kLongestPause))
      ->capture_default_str();
  AddWebhook(app, given, parsed.settings);
  app.add_option("--log-format", given.log_format,
                 "How events are printed: plain, or json for one object a line")
      ->check(CLI::IsMember({"plain", "json"}))
      ->capture_default_str();
  app.footer(kExamples);
  try {
    app.parse(argc, argv);
    parsed.restore = given.restore;
    if (restore->count() == 0) {
      Complete(given, parsed.settings);
    } else {
      // Files that systemd hands over to the service are not there while that is stopped.
      TakeDataFolderName(given, parsed.settings);
      if (given.restore.empty()) throw std::invalid_argument("--restore: the file's name is empty");
    }
    parsed.run = !given.check_config;
    if (given.check_config) parsed.text = "the configuration can be used\n";
  } catch (const CLI::ParseError& error) {
    std::ostringstream text;
    parsed.exit_status = app.exit(error, text, text) == 0 ? 0 : kUsageError;
    parsed.text = text.str();
  } catch (const std::exception& error) {
    Refuse(parsed, error.what());
  }
  return parsed;
}

}  // namespace TarvoOrvane::SupportService
