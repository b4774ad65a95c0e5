/// The host platform's ticket client for tests that have no time: the limits of a connection and of a stream are a
/// twentieth of what a device has. All else of the library is as the device has it.

#include "platform/support_service_client.h"
#include "ticket_client.h"

namespace TarvoOrvane::FastSupport {
namespace {

constexpr int kScale = 20;

Internal::TicketClientOptions ScaledOptions() {
  Internal::TicketClientOptions options;
  options.limits.name_lookup /= kScale;
  options.limits.connect /= kScale;
  options.limits.keepalive /= kScale;
  options.limits.ping_answer /= kScale;
  options.limits.status /= kScale;
  options.limits.close /= kScale;
  options.settled /= kScale;
  options.longest_pause /= kScale;
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
