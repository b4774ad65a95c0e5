#include "overview.h"

#include <prometheus/metric_family.h>

#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string_view>

#include "api_json.h"
#include "certificate.h"
#include "event_log.h"
#include "process_state.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

/// Metrics that are looked up when the page is asked for.
class LiveMetrics {
 public:
  /// Begins a metric; what is added next belongs to it.
  LiveMetrics& Gauge(const char* name, const char* help) { return Begin(name, help, MetricType::Gauge); }
  LiveMetrics& Counter(const char* name, const char* help) { return Begin(name, help, MetricType::Counter); }

  LiveMetrics& Add(double value, std::vector<ClientMetric::Label> labels = {}) {
    ClientMetric& metric = families_.back().metric.emplace_back();
    metric.label = std::move(labels);
    (families_.back().type == MetricType::Gauge ? metric.gauge.value : metric.counter.value) = value;
    return *this;
  }
  LiveMetrics& Add(std::uint64_t value, std::vector<ClientMetric::Label> labels = {}) {
    return Add(static_cast<double>(value), std::move(labels));
  }

  std::vector<MetricFamily> Take() { return std::move(families_); }

 private:
  LiveMetrics& Begin(const char* name, const char* help, MetricType type) {
    families_.push_back({name, help, type, {}});
    return *this;
  }

  std::vector<MetricFamily> families_;
};

double SecondsSinceEpoch(WallTime time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

/// When the first certificate of a PEM file ends; nothing where it can't be read.
std::optional<WallTime> EndOfFile(const std::filesystem::path& file) {
  constexpr std::string_view kEnd = "-----END CERTIFICATE-----";
  std::ifstream stream(file, std::ios::binary);
  std::ostringstream content;
  content << stream.rdbuf();
  std::string text = content.str();
  const std::size_t end = text.find(kEnd);
  if (end == std::string::npos) return std::nullopt;
  text.resize(end + kEnd.size());
  const Certificate certificate = CertificateOf(text + "\n");
  if (!certificate) return std::nullopt;
  return EndOf(certificate.get());
}

void AddBook(const BookView& book, LiveMetrics& live) {
  live.Gauge("support_service_devices_connected", "Devices with a stream.").Add(book.devices);
  live.Gauge("support_service_streams", "Open streams, by whether their device has said Hello.")
      .Add(book.streams - book.silent_streams, {{"hello", "true"}})
      .Add(book.silent_streams, {{"hello", "false"}});
  live.Gauge("support_service_tickets", "Tickets that are not at their end, by state.");
  for (const TicketState state : kTicketStates) {
    if (!IsOpen(state)) continue;
    live.Add(book.tickets.at(static_cast<std::size_t>(state)), {{"state", ApiName(ToText(state))}});
  }
}

void AddProcess(WallTime started, LiveMetrics& live) {
  const ProcessState process = LookAtProcess();
  if (process.cpu_seconds) {
    live.Counter("process_cpu_seconds_total", "User and system time of the process.")
        .Add(*process.cpu_seconds);
  }
  const auto add = [&live](const char* name, const char* help, const std::optional<std::uint64_t>& value) {
    if (value) live.Gauge(name, help).Add(*value);
  };
  add("process_resident_memory_bytes", "Memory that the process has in RAM.", process.resident_bytes);
  add("process_virtual_memory_bytes", "Address space of the process.", process.virtual_bytes);
  add("process_open_fds", "Open file descriptors.", process.open_descriptors);
  add("process_max_fds", "How many file descriptors may be open.", process.most_descriptors);
  live.Gauge("process_start_time_seconds", "When the service was started, since 1970.")
      .Add(SecondsSinceEpoch(started));
}

/// @param limit  0 for none.
std::optional<std::uint64_t> UnlessNone(std::uint64_t limit) {
  return limit == 0 ? std::nullopt : std::optional(limit);
}

}  // namespace

Overview::Overview(Parts parts, const ServiceSettings& settings)
    : parts_(std::move(parts)), settings_(settings) {}

void Overview::SetSettings(const ServiceSettings& settings) {
  const std::lock_guard<std::mutex> lock(mutex_);
  settings_ = settings;
}

void Overview::SetUrls(const std::string& grpc, const std::string& http, const std::string& api) {
  const std::lock_guard<std::mutex> lock(mutex_);
  urls_ = {grpc, http, api};
}

ServiceSettings Overview::settings() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return settings_;
}

Overview::KeptView Overview::Kept() const {
  KeptView kept;
  kept.all = parts_.store.KeptTotals();
  const auto devices = parts_.store.DevicesWithMoreArchives(0, std::nullopt, 1);
  if (!devices.empty()) kept.of_a_device = devices.front().count;
  kept.held_until = parts_.store.RetentionHeldUntil();
  return kept;
}

std::vector<Overview::LimitView> Overview::Limits(const std::optional<BookView>& book,
                                                  const std::optional<KeptView>& kept) const {
  const ServiceSettings now = settings();
  const RetentionSettings retention = ResolvedRetention(now.retention, parts_.room);
  const auto of_book = [&](std::size_t BookView::*member) {
    return book ? std::optional<std::uint64_t>((*book).*member) : std::nullopt;
  };
  const auto of_archives = [&](std::uint64_t ArchiveTotals::*member) {
    return kept ? std::optional(kept->all.*member) : std::nullopt;
  };
  const auto of_a_device = kept ? std::optional(kept->of_a_device) : std::nullopt;
  std::uint64_t connections = 0;
  for (const AddressLimit* addresses : parts_.addresses) {
    connections = std::max<std::uint64_t>(connections, addresses->largest());
  }
  return {{Limit::kUploadBytes, now.largest_upload, {}},
          {Limit::kFreeBytes, parts_.room.Look().stays_free_bytes, {}},
          {Limit::kStreams, now.tickets.most_streams, of_book(&BookView::streams)},
          {Limit::kSilentStreams, now.tickets.most_silent_streams, of_book(&BookView::silent_streams)},
          {Limit::kConnectionsPerAddress, now.connections_per_address, connections},
          {Limit::kQueuedTicketsPerDevice, now.tickets.most_queued, of_book(&BookView::longest_queue)},
          {Limit::kOpenTickets, now.tickets.most_open, of_book(&BookView::open_tickets)},
          {Limit::kArchives, UnlessNone(retention.archives), of_archives(&ArchiveTotals::count)},
          {Limit::kArchiveBytes, UnlessNone(retention.bytes.value_or(0)), of_archives(&ArchiveTotals::bytes)},
          {Limit::kArchiveDays, UnlessNone(retention.days), {}},
          {Limit::kArchivesPerDevice, UnlessNone(retention.archives_per_device), of_a_device},
          {Limit::kArchivesPerTicket, now.tickets.most_archives, {}},
          {Limit::kNoteCharacters, kMaxNoteCharacters, {}},
          {Limit::kTicketBytes, kMaxTicketBytes, {}},
          {Limit::kReasonBytes, kMaxReasonBytes, {}},
          {Limit::kReportBytes, kMaxReportBytes, {}},
          {Limit::kFormTextBytes, kMaxFormTextBytes, {}},
          {Limit::kRequestBytes, kMaxRequestBytes, {}}};
}

std::string Overview::MetricsPage(const std::optional<BookView>& book, bool is_ready) const {
  std::optional<KeptView> kept;
  try {
    kept = Kept();
  } catch (const StoreError&) {
    is_ready = false;
  }
  LiveMetrics live;
  live.Gauge("support_service_build_info", "Which version runs.").Add(1.0, {{"version", DDT_VERSION}});
  live.Gauge("support_service_ready", "Whether the service decides about tickets and can remember something.")
      .Add(is_ready ? 1.0 : 0.0);
  if (book) AddBook(*book, live);
  if (kept) {
    live.Gauge("support_service_archives", "Archives that are kept.").Add(kept->all.count);
    live.Gauge("support_service_archive_bytes", "Size of the archives that are kept.").Add(kept->all.bytes);
  }
  if (kept && kept->held_until) {
    live.Gauge("support_service_retention_held_until_timestamp_seconds",
               "Before that time limits delete no archives, since 1970. It may be over.")
        .Add(SecondsSinceEpoch(*kept->held_until));
  }
  const DiskRoom::View disk = parts_.room.Look();
  live.Gauge("support_service_disk_free_bytes", "Free room on the data folder's file system.")
      .Add(disk.free_bytes);
  live.Gauge("support_service_disk_promised_bytes", "Room that uploads under way were promised.")
      .Add(disk.promised_bytes);

  const std::vector<LimitView> limits = Limits(book, kept);
  live.Gauge("support_service_limit", "The service's limits; one that is not there is switched off.");
  for (const LimitView& each : limits) {
    if (each.most) live.Add(*each.most, {{"limit", ToText(each.limit)}});
  }
  live.Gauge("support_service_limit_used", "How much is there of what is limited.");
  for (const LimitView& each : limits) {
    if (each.used) live.Add(*each.used, {{"limit", ToText(each.limit)}});
  }
  live.Gauge("support_service_certificate_expiry_timestamp_seconds",
             "When the service's certificates end, since 1970.");
  for (const auto& [name, file] : parts_.certificates) {
    if (const auto end = EndOfFile(file)) live.Add(SecondsSinceEpoch(*end), {{"certificate", name}});
  }
  live.Counter("support_service_log_events_left_out_total", "Events that are not in the log: too many came.")
      .Add(EventsLeftOut());
  AddProcess(parts_.metrics.started(), live);
  return parts_.metrics.Text(live.Take());
}

Json::Value Overview::Settings(const BookView& book) const {
  const ServiceSettings now = settings();
  Urls urls;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    urls = urls_;
  }
  Json::Value value(Json::objectValue);
  value["version"] = DDT_VERSION;
  value["started"] = TimeText(parts_.metrics.started());
  value["trust"] = ToText(now.tickets.trust);
  value["names"] = Json::Value(Json::arrayValue);
  for (const std::string& name : now.identity.names) value["names"].append(name);
  value["grpc_url"] = urls.grpc;
  value["http_url"] = urls.http;
  if (!urls.api.empty()) value["api_url"] = urls.api;
  value["retry_seconds"] =
      Json::UInt64(std::chrono::duration_cast<std::chrono::seconds>(now.tickets.retry_pause).count());
  const DiskRoom::View disk = parts_.room.Look();
  value["disk_free_bytes"] = Json::UInt64{disk.free_bytes};
  const KeptView kept = Kept();
  if (kept.held_until) value["retention_held_until"] = TimeText(*kept.held_until);
  value["limits"] = Json::Value(Json::arrayValue);
  for (const LimitView& each : Limits(book, kept)) {
    Json::Value& limit = value["limits"].append(Json::Value(Json::objectValue));
    limit["name"] = ToText(each.limit);
    if (each.most) limit["most"] = Json::UInt64{*each.most};
    if (each.used) limit["used"] = Json::UInt64{*each.used};
    limit["met"] = Json::UInt64{parts_.metrics.met(each.limit)};
  }
  return value;
}

}  // namespace TarvoOrvane::SupportService
