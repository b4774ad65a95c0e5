#include "service.h"

#include "api_json.h"
#include "css_exchange.h"

namespace TarvoOrvane::SupportService {

std::string ControlSocketPath(const std::filesystem::path& data_folder) {
  return std::filesystem::absolute(data_folder / "control.sock").lexically_normal().string();
}

namespace {

/// Before anybody reads the store for work.
Store& Reconciled(Store& store, const ArchiveStore& archives, const EventSink& events) {
  archives.Reconcile(store, events);
  return store;
}

/// Whether a listener for devices speaks TLS. A certificate needs it; what stays on this machine does not.
bool UsesTls(const ServiceSettings& settings, const ListenAddress& address) {
  return settings.tickets.trust != Trust::kAllowList || !IsLocal(address);
}

ListenAddress GrpcAddress(const ServiceSettings& settings) {
  return ParseListenAddress(settings.grpc_address, true);
}
ListenAddress CssAddress(const ServiceSettings& settings) {
  return ParseListenAddress(settings.http_address, false);
}

bool PeopleUseTls(const ServiceSettings& settings) {
  return !settings.api_address.empty() && !IsLocal(ParseListenAddress(settings.api_address, false));
}

bool UsesTlsAnywhere(const ServiceSettings& settings) {
  return UsesTls(settings, GrpcAddress(settings)) || UsesTls(settings, CssAddress(settings)) ||
         PeopleUseTls(settings);
}

std::optional<TlsSettings> DevicesTls(const ServiceSettings& settings, const ServerIdentity& identity,
                                      const ListenAddress& address) {
  if (!UsesTls(settings, address)) return std::nullopt;
  return identity.ForDevices();
}

/// The file server's answer where no request makes one.
HttpAnswer CssAnswer(unsigned int status, const std::string& error) { return ToHttpAnswer({status, error}); }

HttpAnswer ApiAnswer(unsigned int status, const std::string& error) {
  return ErrorAnswer(status == MHD_HTTP_SERVICE_UNAVAILABLE ? "unavailable" : "internal", error);
}

/// Of the file server.
HttpSettings CssSettings(HttpSettings http) {
  http.refuses_at_end = false;
  return http;
}

HttpSettings HttpSettingsFor(const ServiceSettings& settings, ListenAddress address,
                             std::optional<TlsSettings> tls,
                             HttpAnswer (*own_answer)(unsigned int, const std::string&)) {
  HttpSettings http;
  http.own_answer = own_answer;
  http.address = std::move(address);
  http.tls = std::move(tls);
  http.idle_limit = settings.http_idle_limit;
  http.head_limit = settings.http_head_limit;
  return http;
}

HttpSettings CountedBy(AddressLimit& addresses, HttpSettings http) {
  http.addresses = &addresses;
  return http;
}

/// Where a device reaches a listener: under the name that the operator gave. Without one the listener is for this
/// machine.
std::string UrlForDevices(const ServiceSettings& settings, const std::string& url) {
  return settings.identity.names.empty() ? url : WithHost(url, settings.identity.names.front());
}

}  // namespace

SupportService::SupportService(const ServiceSettings& settings, const EventSink& events)
    : events_(events),
      stop_limit_(settings.stop_limit),
      archives_(settings.data_folder),
      store_(settings.data_folder / "tickets.db"),
      identity_(settings.identity, settings.tickets.trust, UsesTlsAnywhere(settings), settings.data_folder,
                events),
      dispatcher_(settings.tickets, Reconciled(store_, archives_, events), events, metrics_),
      room_(settings.data_folder, settings.disk_stays_free),
      largest_upload_(settings.largest_upload),
      css_addresses_(settings.connections_per_address, metrics_, events),
      people_addresses_(settings.connections_per_address, metrics_, events),
      overview_({store_, room_, metrics_, {&css_addresses_, &people_addresses_}, identity_.Certificates()},
                settings),
      backups_(store_, archives_, settings.data_folder, room_, events),
      upkeep_{backups_, identity_, room_, webhook_counts_},
      notification_(dispatcher_, GrpcAddress(settings),
                    DevicesTls(settings, identity_, GrpcAddress(settings))),
      css_desk_{
          dispatcher_,           store_, archives_, disk_, room_, settings.tickets.trust, largest_upload_,
          LimitedEvents(events), events, metrics_},
      css_(
          CssSettings(
              CountedBy(css_addresses_,
                        HttpSettingsFor(settings, CssAddress(settings),
                                        DevicesTls(settings, identity_, CssAddress(settings)), CssAnswer))),
          [this](HttpRequest& request) { return BeginExchange(css_desk_, request); }, events),
      enroller_(settings.tickets.trust, identity_.device_authority(), identity_.trusted_by_devices(),
                UrlForDevices(settings, notification_.url()), UrlForDevices(settings, css_.url())),
      api_(dispatcher_, store_, archives_, disk_, enroller_, overview_, metrics_, upkeep_, events),
      control_socket_(ControlSocketPath(settings.data_folder)),
      control_(
          HttpSettingsFor(settings, ParseListenAddress("unix:" + control_socket_, true), std::nullopt,
                          ApiAnswer),
          [this](HttpRequest& request) { return api_.Begin(request); }, events),
      retention_(settings.retention,
                 std::make_unique<Retention>(dispatcher_, store_, archives_, room_, metrics_, events),
                 events) {
  StartWebhook(settings.webhook, events);
  if (!settings.api_address.empty()) ServePeople(settings, events);
  overview_.SetUrls(grpc_url(), css_url(), api_url());
}

void SupportService::ServePeople(const ServiceSettings& settings, const EventSink& events) {
  const ListenAddress address = ParseListenAddress(settings.api_address, false);
  std::optional<TlsSettings> tls;
  if (PeopleUseTls(settings)) tls = identity_.ForPeople();
  HttpSettings http = HttpSettingsFor(settings, address, std::move(tls), ApiAnswer);
  // Behind a proxy all have one address, and it is the proxy's business to limit them.
  if (!IsLocal(address)) http.addresses = &people_addresses_;
  people_.emplace(
      http, [this](HttpRequest& request) { return api_.Begin(request); }, events);
}

void SupportService::SetSettings(const ServiceSettings& settings) {
  room_.SetStaysFree(settings.disk_stays_free);
  largest_upload_ = settings.largest_upload;
  css_addresses_.SetMost(settings.connections_per_address);
  people_addresses_.SetMost(settings.connections_per_address);
  retention_.SetSettings(settings.retention);
  overview_.SetSettings(settings);
  // Last: only this may fail.
  dispatcher_.Call([&settings](TicketBook& book) { book.SetSettings(settings.tickets); });
}

void SupportService::StartWebhook(const WebhookSettings& settings, const EventSink& events) {
  if (!settings.url.empty()) {
    webhook_.emplace(settings, dispatcher_, store_, api_.feed(), webhook_counts_, events);
  } else if (store_.ToldByWebhook()) {
    // Whoever sets one up again some day wants to hear what ends from then on.
    dispatcher_.Post([](TicketBook& book) { book.registry().SetWebhookPosition(std::nullopt); });
  }
}

// Members end in reverse order: complete requests get their answers first, then the streams end, then the rest.
SupportService::~SupportService() { Stop(); }

/// Devices' requests are taken for as long as there is an upload: a device takes no refusal for a reason to try again,
/// but a connection that ends without an answer. And behind an upload comes its report.
void SupportService::Stop() {
  constexpr std::chrono::seconds kReportComesWithin{1};
  const auto deadline = std::chrono::steady_clock::now() + stop_limit_;
  notification_.EndStreams();
  backups_.Cancel();
  control_.Refuse();
  if (people_) people_->Refuse();
  api_.EndLooks();
  if (webhook_) webhook_->End();  // its thread ends while uploads are waited for
  const std::size_t cut_off = css_.AwaitRequests(deadline, kReportComesWithin);
  static_cast<void>(control_.AwaitRequests(deadline, {}));
  if (people_) static_cast<void>(people_->AwaitRequests(deadline, {}));
  if (cut_off > 0) {
    events_("uploads or reports that are cut off, whose devices try again: " + std::to_string(cut_off));
  }
}

}  // namespace TarvoOrvane::SupportService
