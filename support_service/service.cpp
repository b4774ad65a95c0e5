#include "service.h"

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

HttpSettings CssSettings(const ServiceSettings& settings) {
  HttpSettings http;
  http.address = ParseListenAddress(settings.http_address, false);
  http.idle_limit = settings.http_idle_limit;
  http.head_limit = settings.http_head_limit;
  return http;
}

}  // namespace

SupportService::SupportService(const ServiceSettings& settings, const EventSink& events)
    : archives_(settings.data_folder),
      store_(settings.data_folder / "tickets.db"),
      dispatcher_(settings.tickets, Reconciled(store_, archives_, events), events),
      room_(settings.data_folder, settings.disk_stays_free),
      control_socket_(ControlSocketPath(settings.data_folder)),
      control_(dispatcher_, store_, control_socket_),
      notification_(dispatcher_, ParseListenAddress(settings.grpc_address, true)),
      css_desk_{dispatcher_,           store_, archives_, disk_, room_, settings.largest_upload,
                LimitedEvents(events), events},
      css_(
          CssSettings(settings), [this](HttpRequest& request) { return BeginExchange(css_desk_, request); },
          events) {}

// Members end in reverse order: complete uploads get their answers first, then the streams end, then the rest.
SupportService::~SupportService() = default;

}  // namespace TarvoOrvane::SupportService
