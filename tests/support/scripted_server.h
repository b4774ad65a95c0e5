/// A notification server that does what the test says, in the test's own process.
#pragma once

#include <grpcpp/server.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "eventually.h"
#include "tarvo/support/v1/notification.grpc.pb.h"
#include "test_certificate.h"

namespace TarvoOrvane::Testing {

/// One stream that a client has opened.
class Session {
 public:
  virtual ~Session() = default;

  /// The client's first message.
  [[nodiscard]] virtual tarvo::support::v1::Hello hello() const = 0;
  /// Sends a ticket as soon as those before are sent.
  virtual void Deliver(const std::string& id, const std::string& json) = 0;
  /// Sends a message without a kind, as a later version of the server may.
  virtual void SendUnknown() = 0;
  /// The next answer; none when it does not come in time.
  virtual std::optional<tarvo::support::v1::Answer> AwaitAnswer(
      std::chrono::milliseconds limit = test_support::kPatience) = 0;
  /// Ends the stream once everything is sent.
  virtual void End(const grpc::Status& status) = 0;
  /// Whether the stream has ended, whoever ended it.
  virtual bool AwaitEnd(std::chrono::milliseconds limit = test_support::kPatience) = 0;
};

struct ServerOptions {
  std::string listen = "127.0.0.1:0";          ///< Or unix:/PATH.
  std::optional<TestCertificate> certificate;  ///< TLS with this one; plaintext without.
  std::string client_authorities;   ///< With TLS: clients must show a certificate of these; empty: none.
  bool strict_about_pings = false;  ///< As a server by default is.
};

class ScriptedServer {
 public:
  explicit ScriptedServer(const ServerOptions& options = {});
  ~ScriptedServer();

  [[nodiscard]] int port() const { return port_; }
  /// http://127.0.0.1:PORT
  [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  /// The next stream that a client opens and says Hello on; null when none comes in time.
  std::shared_ptr<Session> AwaitSession(std::chrono::milliseconds limit = test_support::kPatience);

 private:
  class Service;

  int port_ = 0;
  std::unique_ptr<Service> service_;
  std::unique_ptr<grpc::Server> server_;
};

}  // namespace TarvoOrvane::Testing
