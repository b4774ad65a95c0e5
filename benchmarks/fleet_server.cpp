/// fleet_server: the yardstick of the fleet's measurements. The least that a grpc++ server can be which holds the same
/// streams as the support service and delivers tickets: it remembers nothing and decides nothing.
///
///     fleet_server [CERTIFICATE KEY AUTHORITY]    with the files mutual TLS, without them plaintext
///
/// Listens on a loopback port that the kernel chooses and prints "listening 127.0.0.1:PORT". A line "COUNT TICKET_JSON"
/// on standard input delivers that ticket to so many devices. Ends when standard input does.
#include <grpc/grpc_security_constants.h>
#include <grpcpp/security/tls_certificate_provider.h>
#include <grpcpp/security/tls_credentials_options.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

#include "tarvo/support/v1/notification.grpc.pb.h"

namespace {

using tarvo::support::v1::ClientMessage;
using tarvo::support::v1::NotificationService;
using tarvo::support::v1::ServerMessage;

class Fleet;

class Stream final : public grpc::ServerBidiReactor<ClientMessage, ServerMessage> {
 public:
  explicit Stream(Fleet& fleet) : fleet_(fleet) { StartRead(&received_); }

  void Deliver(const std::string& ticket_id, const std::string& ticket_json) {
    const std::lock_guard<std::mutex> lock(mutex_);
    outgoing_.emplace_back();
    outgoing_.back().mutable_delivery()->set_ticket_id(ticket_id);
    outgoing_.back().mutable_delivery()->set_ticket_json(ticket_json);
    if (outgoing_.size() == 1) StartWrite(&outgoing_.front());
  }

  void OnReadDone(bool ok) override;
  void OnWriteDone(bool ok) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    outgoing_.pop_front();
    if (ok && !outgoing_.empty()) StartWrite(&outgoing_.front());
  }
  void OnDone() override;

 private:
  Fleet& fleet_;
  ClientMessage received_;
  std::string serial_number_;
  std::mutex mutex_;
  std::deque<ServerMessage> outgoing_;
};

class Fleet final : public NotificationService::CallbackService {
 public:
  grpc::ServerBidiReactor<ClientMessage, ServerMessage>* Open(
      grpc::CallbackServerContext* /*context*/) override {
    return new Stream(*this);  // NOLINT(cppcoreguidelines-owning-memory): its own until OnDone()
  }

  void Add(const std::string& serial_number, Stream* stream) {
    const std::lock_guard<std::mutex> lock(mutex_);
    streams_[serial_number] = stream;
  }

  void Remove(const std::string& serial_number, Stream* stream) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = streams_.find(serial_number);
    if (found != streams_.end() && found->second == stream) streams_.erase(found);
  }

  void Deliver(std::size_t count, const std::string& ticket_json) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [serial_number, stream] : streams_) {
      if (count-- == 0) return;
      stream->Deliver(std::to_string(++tickets_), ticket_json);
    }
  }

 private:
  std::mutex mutex_;
  std::map<std::string, Stream*> streams_;
  std::uint64_t tickets_ = 0;
};

void Stream::OnReadDone(bool ok) {
  if (!ok) return Finish(grpc::Status::OK);
  if (received_.has_hello()) {
    serial_number_ = received_.hello().serial_number();
    fleet_.Add(serial_number_, this);
    StartSendInitialMetadata();
  }
  StartRead(&received_);
}

void Stream::OnDone() {
  fleet_.Remove(serial_number_, this);
  delete this;  // NOLINT(cppcoreguidelines-owning-memory)
}

std::shared_ptr<grpc::ServerCredentials> Credentials(int argc, char** argv) {
  if (argc < 4) return grpc::InsecureServerCredentials();
  grpc::experimental::TlsServerCredentialsOptions options(
      std::make_shared<grpc::experimental::FileWatcherCertificateProvider>(argv[2], argv[1], argv[3], 10));
  options.watch_identity_key_cert_pairs();
  options.watch_root_certs();
  options.set_cert_request_type(GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
  return grpc::experimental::TlsServerCredentials(options);
}

}  // namespace

int main(int argc, char** argv) {
  Fleet fleet;
  int port = 0;
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:0", Credentials(argc, argv), &port);
  // Devices ping; a server that does not expect it would end their connections.
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, 5'000);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
  builder.RegisterService(&fleet);
  const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
  if (!server) {
    std::cerr << "fleet_server: can't listen on 127.0.0.1\n";
    return 1;
  }
  std::cout << "listening 127.0.0.1:" << port << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::size_t count = 0;
    std::string ticket_json;
    words >> count >> std::ws;
    std::getline(words, ticket_json);
    fleet.Deliver(count, ticket_json);
  }
  server->Shutdown(std::chrono::system_clock::now());
  return 0;
}
