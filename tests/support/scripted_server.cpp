#include "scripted_server.h"

#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server_builder.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

namespace TarvoOrvane::Testing {
namespace {

using tarvo::support::v1::Answer;
using tarvo::support::v1::ClientMessage;
using tarvo::support::v1::Hello;
using tarvo::support::v1::NotificationService;
using tarvo::support::v1::ServerMessage;

class StreamSession : public Session,
                      public grpc::ServerBidiReactor<ClientMessage, ServerMessage>,
                      public std::enable_shared_from_this<StreamSession> {
 public:
  using HelloCallback = std::function<void(std::shared_ptr<StreamSession>)>;
  explicit StreamSession(HelloCallback on_hello) : on_hello_(std::move(on_hello)) {}

  void Start(std::shared_ptr<StreamSession> self) {
    self_ = std::move(self);
    StartRead(&incoming_);
  }

  Hello hello() const override { return hello_; }

  void Deliver(const std::string& id, const std::string& json) override {
    ServerMessage message;
    message.mutable_delivery()->set_ticket_id(id);
    message.mutable_delivery()->set_ticket_json(json);
    Enqueue(std::move(message));
  }

  void SendUnknown() override { Enqueue({}); }

  std::optional<Answer> AwaitAnswer(std::chrono::milliseconds limit) override {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, limit, [this] { return !answers_.empty(); })) return std::nullopt;
    Answer answer = answers_.front();
    answers_.pop_front();
    return answer;
  }

  void End(const grpc::Status& status) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    end_status_ = status;
    Proceed();
  }

  bool AwaitEnd(std::chrono::milliseconds limit) override {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return done_; });
  }

 private:
  void OnReadDone(bool ok) override {
    if (!ok) return EndFromClient();
    if (incoming_.has_hello()) {
      hello_ = incoming_.hello();
      on_hello_(shared_from_this());
    } else {
      const std::lock_guard<std::mutex> lock(mutex_);
      answers_.push_back(incoming_.answer());
      changed_.notify_all();
    }
    StartRead(&incoming_);
  }

  void OnWriteDone(bool ok) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    writing_ = false;
    outgoing_.pop_front();
    if (ok) Proceed();
  }

  void OnCancel() override { EndFromClient(); }

  void OnDone() override {
    const auto keep_until_return = std::move(self_);
    const std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
    changed_.notify_all();
  }

  void EndFromClient() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!std::exchange(finished_, true)) Finish(grpc::Status::CANCELLED);
  }

  void Enqueue(ServerMessage message) {
    const std::lock_guard<std::mutex> lock(mutex_);
    outgoing_.push_back(std::move(message));
    Proceed();
  }

  // Under the mutex: starts what is next, a message or the end.
  void Proceed() {
    if (writing_ || finished_) return;
    if (!outgoing_.empty()) {
      writing_ = true;
      StartWrite(&outgoing_.front());
    } else if (end_status_) {
      finished_ = true;
      Finish(*end_status_);
    }
  }

  const HelloCallback on_hello_;
  std::shared_ptr<StreamSession> self_;  // while gRPC uses this object
  Hello hello_;
  ClientMessage incoming_;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Answer> answers_;
  std::deque<ServerMessage> outgoing_;
  std::optional<grpc::Status> end_status_;
  bool writing_ = false;
  bool finished_ = false;
  bool done_ = false;
};

}  // namespace

class ScriptedServer::Service : public NotificationService::CallbackService {
 public:
  grpc::ServerBidiReactor<ClientMessage, ServerMessage>* Open(grpc::CallbackServerContext*) override {
    auto session = std::make_shared<StreamSession>([this](std::shared_ptr<StreamSession> opened) {
      const std::lock_guard<std::mutex> lock(mutex_);
      sessions_.push_back(std::move(opened));
      changed_.notify_all();
    });
    session->Start(session);
    return session.get();
  }

  std::shared_ptr<Session> AwaitSession(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, limit, [this] { return !sessions_.empty(); })) return nullptr;
    auto session = sessions_.front();
    sessions_.pop_front();
    return session;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::shared_ptr<StreamSession>> sessions_;
};

ScriptedServer::ScriptedServer(const ServerOptions& options) : service_(std::make_unique<Service>()) {
  std::shared_ptr<grpc::ServerCredentials> credentials = grpc::InsecureServerCredentials();
  if (options.certificate) {
    grpc::SslServerCredentialsOptions tls;
    if (!options.client_authorities.empty()) {
      tls.pem_root_certs = options.client_authorities;
      tls.client_certificate_request = GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY;
    }
    tls.pem_key_cert_pairs.push_back({options.certificate->key, options.certificate->certificate});
    credentials = grpc::SslServerCredentials(tls);
  }
  grpc::ServerBuilder builder;
  builder.AddListeningPort(options.listen, credentials, &port_);
  if (!options.strict_about_pings) {
    builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, 1);
  }
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
  builder.RegisterService(service_.get());
  server_ = builder.BuildAndStart();
}

ScriptedServer::~ScriptedServer() {
  if (server_) server_->Shutdown(std::chrono::system_clock::now());
}

std::shared_ptr<Session> ScriptedServer::AwaitSession(std::chrono::milliseconds limit) {
  return service_->AwaitSession(limit);
}

}  // namespace TarvoOrvane::Testing
