#include "notification_front.h"

#include <grpc/grpc_security_constants.h>
#include <grpc/support/log.h>
#include <grpcpp/alarm.h>
#include <grpcpp/security/tls_certificate_provider.h>
#include <grpcpp/security/tls_credentials_options.h>

#include <chrono>
#include <list>
#include <stdexcept>
#include <utility>
#include <vector>

#include "certificate.h"

namespace TarvoOrvane::SupportService {

using tarvo::support::v1::ClientMessage;
using tarvo::support::v1::ServerMessage;

namespace {

/// Far more than a Hello or an Answer needs.
constexpr int kMaxMessageBytes = 8 * 1024;
/// A device has one stream. A former one of its may not have ended yet.
constexpr int kMaxStreamsPerConnection = 2;
/// How long the server waits at its end for devices to close their connections; streams have ended before.
constexpr std::chrono::milliseconds kDevicesShutdownLimit{250};
/// So long an ended stream waits until its device has taken what is being written to it.
constexpr std::chrono::seconds kLastWriteLimit{1};

grpc::Status StatusFor(const StreamEnd& end) {
  switch (end.reason) {
    case EndReason::kNoHello:
      return {grpc::StatusCode::DEADLINE_EXCEEDED, end.text};
    case EndReason::kBadHello:
      return {grpc::StatusCode::FAILED_PRECONDITION, end.text};
    case EndReason::kProtocolError:
      return {grpc::StatusCode::INVALID_ARGUMENT, end.text};
    case EndReason::kStranger:
      return {grpc::StatusCode::PERMISSION_DENIED, end.text};
    case EndReason::kTwin:
      return {grpc::StatusCode::ALREADY_EXISTS, end.text};
    case EndReason::kTooMany:
      return {grpc::StatusCode::RESOURCE_EXHAUSTED, end.text};
    case EndReason::kNoAnswer:
      return {grpc::StatusCode::DEADLINE_EXCEEDED, end.text};
    case EndReason::kReplaced:
      return {grpc::StatusCode::ABORTED, end.text};
    case EndReason::kShutdown:
      break;
  }
  return {grpc::StatusCode::UNAVAILABLE, end.text};
}

/// So often the files are looked at. gRPC reads them anew when they have changed.
constexpr unsigned int kCertificateLookSeconds = 10;

std::shared_ptr<grpc::ServerCredentials> CredentialsFor(const std::optional<TlsSettings>& tls) {
  if (!tls) return grpc::InsecureServerCredentials();
  grpc::experimental::TlsServerCredentialsOptions options(
      std::make_shared<grpc::experimental::FileWatcherCertificateProvider>(
          tls->key.string(), tls->certificate.string(), tls->client_authority.value_or("").string(),
          kCertificateLookSeconds));
  options.watch_identity_key_cert_pairs();
  if (tls->client_authority) {
    options.watch_root_certs();
    options.set_cert_request_type(GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
  } else {
    options.set_cert_request_type(GRPC_SSL_DONT_REQUEST_CLIENT_CERTIFICATE);
  }
  return grpc::experimental::TlsServerCredentials(options);
}

/// The name in the client certificate, which gRPC has verified; nothing without one. Read as the file server reads it:
/// gRPC's own property has the first name of several.
std::optional<std::string> CertificateNameOf(const grpc::CallbackServerContext& context) {
  const auto authentication = context.auth_context();
  if (!authentication) return std::nullopt;
  // Not gRPC's own reading of the name: of several it tells the first.
  const auto texts = authentication->FindPropertyValues(GRPC_X509_PEM_CERT_PROPERTY_NAME);
  if (texts.size() != 1) return std::nullopt;
  const Certificate certificate = CertificateOf(std::string(texts.front().data(), texts.front().size()));
  return certificate ? CommonNameOf(certificate.get()) : std::nullopt;
}

/// The device side's keepalive may ping every five seconds, calls or not. The own one finds devices that went away
/// without a word. It is rare: with 10,000 devices, one ping each 20 s was 8 % of a processor.
void SetKeepalive(grpc::ServerBuilder& builder) {
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, 5000);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, 120000);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 10000);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
  // A connection without a stream is of no use to a device.
  builder.AddChannelArgument(GRPC_ARG_MAX_CONNECTION_IDLE_MS, 60000);
}

}  // namespace

/// One device's stream. gRPC calls the reactions from its own threads; Send and End may come from any.
class DeviceStream final : public grpc::ServerBidiReactor<ClientMessage, ServerMessage> {
 public:
  DeviceStream(NotificationFront& front, StreamId id, grpc::CallbackServerContext& context)
      : front_(front), id_(id), context_(context) {}

  /// @param self  Keeps the stream alive until gRPC is done with it.
  void Start(std::shared_ptr<DeviceStream> self) {
    self_ = std::move(self);
    if (id_ == 0) return End({grpc::StatusCode::UNAVAILABLE, "the service shuts down"});
    StartRead(&received_);
  }

  void Send(const Delivery& delivery) {
    ServerMessage message;
    message.mutable_delivery()->set_ticket_id(delivery.ticket_id);
    message.mutable_delivery()->set_ticket_json(delivery.ticket_json);
    const std::lock_guard<std::mutex> lock(mutex_);
    // The book delivers to what it knows; the stream may have ended since. It will deliver again.
    if (ended_) return;
    outgoing_.push_back(std::move(message));
    if (outgoing_.size() == 1) StartWrite(&outgoing_.front());
  }

  /// Ends the stream from this side; later calls change nothing.
  void End(const grpc::Status& status) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ended_) return;
    ended_ = true;
    status_ = status;
    if (outgoing_.empty()) return Finish(status_);
    // What is being written is done in a moment, and OnWriteDone() goes on. A device that takes nothing would keep its
    // stream for as long as it likes.
    patience_.Set(std::chrono::system_clock::now() + kLastWriteLimit,
                  [stream = std::weak_ptr(self_)](bool expired) {
                    if (const auto self = stream.lock(); self && expired) self->GiveUp();
                  });
  }

  void OnReadDone(bool ok) override {
    if (!ok) {
      front_.dispatcher_.Post([id = id_](TicketBook& book) { book.CloseStream(id); });
      return End(grpc::Status::OK);
    }
    Handle(received_);
  }

  void OnWriteDone(bool ok) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    outgoing_.pop_front();
    if (ended_) {
      outgoing_.clear();
      return Finish(status_);
    }
    // After a failed write the read fails too and ends the stream.
    if (ok && !outgoing_.empty()) StartWrite(&outgoing_.front());
    if (!ok) outgoing_.clear();
  }

  void OnCancel() override {
    front_.dispatcher_.Post([id = id_](TicketBook& book) { book.CloseStream(id); });
    End(grpc::Status::CANCELLED);
  }

  /// The last reaction. From here on nobody but `self_` may hold the stream.
  void OnDone() override {
    front_.Forget(id_);
    const auto last_owner = std::move(self_);
  }

 private:
  void Handle(const ClientMessage& message) {
    switch (message.kind_case()) {
      case ClientMessage::kHello:
        // Tells the device at once that its stream is open.
        StartSendInitialMetadataOnce();
        return Tell([id = id_, hello = message.hello(), name = CertificateNameOf(context_)](
                        TicketBook& book) { book.Hello(id, hello.serial_number(), hello.protocol(), name); });
      case ClientMessage::kAnswer:
        return HandleAnswer(message.answer());
      case ClientMessage::KIND_NOT_SET:
        return Refuse("a message that is neither hello nor answer");
    }
  }

  void HandleAnswer(const tarvo::support::v1::Answer& answer) {
    const bool accepted = answer.status() == tarvo::support::v1::CLIENT_STATUS_ACCEPTED;
    if (!accepted && answer.status() != tarvo::support::v1::CLIENT_STATUS_REJECTED) {
      return Refuse("an answer without a known status");
    }
    Tell([id = id_, accepted, answer](TicketBook& book) {
      book.Answer(id, answer.ticket_id(), accepted, answer.reason());
    });
  }

  void Refuse(const char* text) {
    Tell([id = id_, text](TicketBook& book) { book.ProtocolError(id, text); });
  }

  /// Reads the next message once this one is dealt with: a device can't make more work than is done.
  void Tell(Dispatcher::Input input) {
    front_.dispatcher_.Post(std::move(input), [self = front_.FindStream(id_)](const std::string& /*fault*/) {
      if (self) self->ReadOn();
    });
  }

  void ReadOn() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!ended_) StartRead(&received_);
  }

  /// Ends a stream whose last write was not taken. The device is not told why.
  void GiveUp() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!outgoing_.empty()) context_.TryCancel();
  }

  void StartSendInitialMetadataOnce() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ended_ || std::exchange(metadata_sent_, true)) return;
    StartSendInitialMetadata();
  }

  NotificationFront& front_;
  const StreamId id_;
  grpc::CallbackServerContext& context_;
  ClientMessage received_;
  std::shared_ptr<DeviceStream> self_;
  std::mutex mutex_;
  /// The first one is being written. A list, since an empty deque takes 576 bytes, for each idle device.
  std::list<ServerMessage> outgoing_;
  grpc::Status status_;  ///< What the stream ends with, once ended_.
  bool ended_ = false;
  bool metadata_sent_ = false;
  grpc::Alarm patience_;  ///< With a device that is to take the last message of an ended stream.
};

NotificationFront::NotificationFront(Dispatcher& dispatcher, const ListenAddress& address,
                                     const std::optional<TlsSettings>& tls)
    : dispatcher_(dispatcher) {
  CheckFree(address);
  const std::string target =
      address.unix_path.empty()
          ? SocketAddressText(reinterpret_cast<const sockaddr*>(&address.socket_address),
                              address.socket_address_size)
          : UnixTarget(address.unix_path);
  // gRPC's own lines on standard error: anybody can cause them, as many as they like. What matters is told here.
  gpr_set_log_function([](gpr_log_func_args* /*line*/) {});
  // For load balancers. It begins with the next server that is built.
  grpc::EnableDefaultHealthCheckService(true);
  grpc::ServerBuilder builder;
  // Otherwise two services could share a port, and each would get some of the devices.
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
  SetKeepalive(builder);
  builder.SetMaxReceiveMessageSize(kMaxMessageBytes);
  builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, kMaxStreamsPerConnection);
  int port = 0;
  builder.AddListeningPort(target, CredentialsFor(tls), &port);
  builder.RegisterService(this);
  // Before the first stream: what it is to get must find its way.
  dispatcher_.SetWorkSink([this](const Work& work) { CarryOut(work); });
  server_ = builder.BuildAndStart();
  if (!server_) {
    dispatcher_.SetWorkSink({});
    throw std::runtime_error("cannot listen on " + address.text + " for gRPC");
  }
  url_ = address.unix_path.empty()
             ? (tls ? "https://" : "http://") + target.substr(0, target.rfind(':') + 1) + std::to_string(port)
             : "unix:" + address.unix_path;
}

NotificationFront::~NotificationFront() {
  dispatcher_.Close();
  dispatcher_.SetWorkSink({});
  server_->Shutdown(std::chrono::system_clock::now() + kDevicesShutdownLimit);
  // Waits for every stream's OnDone, which uses this object.
  server_.reset();
}

void NotificationFront::EndStreams() {
  ending_ = true;
  dispatcher_.Post([](TicketBook& book) { book.CloseAllStreams(); });
}

grpc::ServerBidiReactor<ClientMessage, ServerMessage>* NotificationFront::Open(
    grpc::CallbackServerContext* context) {
  const StreamId id = ending_ || dispatcher_.closed() ? 0 : ++last_stream_;
  const auto stream = std::make_shared<DeviceStream>(*this, id, *context);
  if (id != 0) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      streams_.emplace(id, stream);
    }
    dispatcher_.Post([id, peer = context->peer()](TicketBook& book) { book.OpenStream(id, peer); });
  }
  stream->Start(stream);
  return stream.get();
}

void NotificationFront::CarryOut(const Work& work) {
  for (const StreamEnd& end : work.ends) {
    if (const auto stream = FindStream(end.stream)) stream->End(StatusFor(end));
  }
  for (const Delivery& delivery : work.deliveries) {
    if (const auto stream = FindStream(delivery.stream)) stream->Send(delivery);
  }
}

std::shared_ptr<DeviceStream> NotificationFront::FindStream(StreamId id) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = streams_.find(id);
  return found == streams_.end() ? nullptr : found->second;
}

void NotificationFront::Forget(StreamId id) {
  const std::lock_guard<std::mutex> lock(mutex_);
  streams_.erase(id);
}

}  // namespace TarvoOrvane::SupportService
