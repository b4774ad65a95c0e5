#include "settings_change.h"

#include <functional>

namespace TarvoOrvane::SupportService {
namespace {

struct Setting {
  const char* option;
  std::function<bool(const ServiceSettings& one, const ServiceSettings& other)> is_same;
  std::function<void(ServiceSettings& to, const ServiceSettings& from)>
      take;  ///< None where it takes a restart.
};

/// @param value  From settings to what is compared.
template <typename Value>
Setting AtStart(const char* option, Value value) {
  return {option, [value](const auto& one, const auto& other) { return value(one) == value(other); }, {}};
}

/// @param place  From settings to a reference of what the option sets. SupportService::SetSettings() has it count.
template <typename Place>
Setting AtAnyTime(const char* option, Place place) {
  return {option, [place](const auto& one, const auto& other) { return place(one) == place(other); },
          [place](auto& to, const auto& from) { place(to) = place(from); }};
}

const std::vector<Setting>& Settings() {
  static const std::vector<Setting> settings = {
      AtStart("grpc-address", [](auto& all) { return all.grpc_address; }),
      AtStart("http-address", [](auto& all) { return all.http_address; }),
      AtStart("api-address", [](auto& all) { return all.api_address; }),
      AtStart("name", [](auto& all) { return all.identity.names; }),
      AtStart("allow-list", [](auto& all) { return all.tickets.trust == Trust::kAllowList; }),
      AtStart("device-authority", [](auto& all) { return all.identity.device_authority; }),
      AtStart("certificate", [](auto& all) { return all.identity.certificate; }),
      AtStart("key", [](auto& all) { return all.identity.key; }),
      AtStart("authority", [](auto& all) { return all.identity.authority; }),
      AtStart("data", [](auto& all) { return all.data_folder; }),
      AtStart("webhook-url", [](auto& all) { return all.webhook.url; }),
      AtStart("webhook-secret-file", [](auto& all) { return all.webhook.secret; }),
      AtStart("webhook-authority", [](auto& all) { return all.webhook.authority; }),
      AtStart("stop-seconds", [](auto& all) { return all.stop_limit; }),
      AtStart("log-format", [](auto& all) { return all.log_format; }),
      AtAnyTime(
          "retry-seconds", [](auto& all) -> auto& { return all.tickets.retry_pause; }),
      AtAnyTime(
          "max-upload", [](auto& all) -> auto& { return all.largest_upload; }),
      AtAnyTime(
          "max-streams", [](auto& all) -> auto& { return all.tickets.most_streams; }),
      AtAnyTime(
          "max-silent-streams", [](auto& all) -> auto& { return all.tickets.most_silent_streams; }),
      AtAnyTime(
          "max-connections-per-address", [](auto& all) -> auto& { return all.connections_per_address; }),
      AtAnyTime(
          "max-queued-tickets", [](auto& all) -> auto& { return all.tickets.most_queued; }),
      AtAnyTime(
          "max-open-tickets", [](auto& all) -> auto& { return all.tickets.most_open; }),
      AtAnyTime(
          "free-space", [](auto& all) -> auto& { return all.disk_stays_free; }),
      AtAnyTime(
          "keep-archives", [](auto& all) -> auto& { return all.retention.archives; }),
      AtAnyTime(
          "keep-bytes", [](auto& all) -> auto& { return all.retention.bytes; }),
      AtAnyTime(
          "keep-days", [](auto& all) -> auto& { return all.retention.days; }),
      AtAnyTime(
          "keep-per-device", [](auto& all) -> auto& { return all.retention.archives_per_device; })};
  return settings;
}

}  // namespace

std::vector<std::string> TakeChanges(ServiceSettings& running, const ServiceSettings& read) {
  std::vector<std::string> lines;
  for (const Setting& setting : Settings()) {
    if (setting.is_same(running, read)) continue;
    if (setting.take) setting.take(running, read);
    lines.push_back(std::string(setting.option) +
                    (setting.take ? ": changed, and counts from now on" : ": changed, takes a restart"));
  }
  return lines;
}

std::vector<std::string> KnownSettings() {
  std::vector<std::string> options;
  for (const Setting& setting : Settings()) options.emplace_back(setting.option);
  return options;
}

}  // namespace TarvoOrvane::SupportService
