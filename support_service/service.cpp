#include "service.h"

namespace TarvoOrvane::SupportService {

std::string ControlSocketPath(const std::filesystem::path& data_folder) {
  return std::filesystem::absolute(data_folder / "control.sock").lexically_normal().string();
}

SupportService::SupportService(const ServiceSettings& settings, const EventSink& events)
    : store_(settings.data_folder),
      book_(settings.tickets, events),
      control_socket_(ControlSocketPath(settings.data_folder)),
      css_(book_, store_, events, ParseListenAddress(settings.http_address, false), settings.http_idle_limit),
      notification_(book_, ParseListenAddress(settings.grpc_address, true)),
      control_(book_, control_socket_) {}

// Members end in reverse order: no new tickets first, then the streams, then the uploads.
SupportService::~SupportService() = default;

}  // namespace TarvoOrvane::SupportService
