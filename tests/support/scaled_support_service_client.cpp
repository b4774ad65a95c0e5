/// The host platform's ticket client for tests that have no time: those limits are a twentieth of what a device has
/// that the environment variable SHORT_LIMITS names ("connect", "keepalive", "settled"). All else of the library is
/// as the device has it.

#include <cstdlib>
#include <cstring>

#include "platform/support_service_client.h"
#include "ticket_client.h"

namespace TarvoOrvane::FastSupport {
namespace {

constexpr int kScale = 20;

bool IsShort(const char* limit) {
  const char* const names = std::getenv("SHORT_LIMITS");
  return names != nullptr && std::strstr(names, limit) != nullptr;
}

Internal::TicketClientOptions ScaledOptions() {
  Internal::TicketClientOptions options;
  if (IsShort("connect")) options.limits.connect /= kScale;
  if (IsShort("keepalive")) {
    options.limits.keepalive /= kScale;
    options.limits.ping_answer /= kScale;
  }
  if (IsShort("settled")) {
    options.settled /= kScale;
    options.longest_pause /= kScale;
  }
  return options;
}

}  // namespace

class __attribute__((visibility("hidden"))) FastSupportClient::Impl : public Internal::TicketClient {
 public:
  using TicketClient::TicketClient;
};

FastSupportClient::FastSupportClient(const std::string& address)
    : impl_(std::make_unique<Impl>(address, ScaledOptions())) {}
FastSupportClient::~FastSupportClient() = default;

ReceiveResult FastSupportClient::Receive() { return impl_->Receive(); }
CallStatus FastSupportClient::Send(ClientStatus status) { return impl_->Send(status); }

}  // namespace TarvoOrvane::FastSupport
