#include "platform/support_service_client.h"
#include "ticket_client.h"

namespace TarvoOrvane::FastSupport {

class __attribute__((visibility("hidden"))) FastSupportClient::Impl : public Internal::TicketClient {
 public:
  using TicketClient::TicketClient;
};

FastSupportClient::FastSupportClient(const std::string& address) : impl_(std::make_unique<Impl>(address)) {}
FastSupportClient::~FastSupportClient() = default;

ReceiveResult FastSupportClient::Receive() { return impl_->Receive(); }
CallStatus FastSupportClient::Send(ClientStatus status) { return impl_->Send(status); }

}  // namespace TarvoOrvane::FastSupport
