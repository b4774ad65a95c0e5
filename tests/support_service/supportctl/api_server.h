/// A support service of the tests' own, that answers as the test says.
#pragma once

#include <json/value.h>
#include <openssl/ssl.h>

#include <atomic>
#include <deque>
#include <filesystem>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace TarvoOrvane::Supportctl {

/// A request as it came.
struct ApiRequest {
  std::string method;
  std::string target;                         ///< Behind /api/v1, with the query.
  std::map<std::string, std::string> header;  ///< By name, in lower case.
  std::string body;

  /// The value of a head line; empty without one.
  [[nodiscard]] std::string Header(const std::string& name) const;
  [[nodiscard]] Json::Value Json() const;
};

/// A client's connection. It is closed behind what the handler sends.
class ApiConnection {
 public:
  ApiConnection(int fd, SSL* tls, const std::atomic<bool>& stop) : fd_(fd), tls_(tls), stop_(stop) {}

  void Send(std::string_view bytes);
  /// Waits until the client closes the connection, or the server ends.
  void AwaitEnd();
  /// @return What has come; empty at the end.
  std::string Receive();

 private:
  bool WaitUntilReadable();

  int fd_;
  SSL* tls_;  ///< Null without TLS.
  const std::atomic<bool>& stop_;
};

using ApiHandler = std::function<void(const ApiRequest&, ApiConnection&)>;

/// An answer with this document.
ApiHandler Answers(const Json::Value& document, int status = 200);
/// An error as the service words it.
ApiHandler Refuses(int status, const std::string& code, const std::string& message);
/// The answer's bytes, as they are.
ApiHandler Sends(const std::string& bytes);
/// The head of a stream of events, and these; then the end of the connection.
ApiHandler Streams(const std::string& events);
/// The same, but the connection stays open.
ApiHandler StreamsOn(const std::string& events);

/// Serves each connection, with one request, in a thread of its own.
class ApiServer {
 public:
  /// Listens on a unix socket.
  explicit ApiServer(const std::filesystem::path& socket);
  /// Listens on a loopback port of the kernel's choice, with TLS.
  ApiServer(const std::string& certificate, const std::string& key);
  ~ApiServer();
  ApiServer(const ApiServer&) = delete;
  ApiServer& operator=(const ApiServer&) = delete;

  /// From now on such requests get these answers, one each, and all further ones the last. What was not prepared is
  /// answered by a refusal that says so.
  void On(const std::string& method, const std::string& target, std::vector<ApiHandler> answers);

  [[nodiscard]] std::vector<ApiRequest> Requests() const;
  /// "METHOD TARGET" of each so far.
  [[nodiscard]] std::vector<std::string> RequestLines() const;
  /// Of a server with TLS.
  [[nodiscard]] std::string Url() const { return "https://127.0.0.1:" + std::to_string(port_); }

 private:
  void Run();
  void Serve(int fd);
  ApiHandler HandlerOf(const ApiRequest& request);

  int port_ = 0;
  int listener_ = -1;
  std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> tls_{nullptr, SSL_CTX_free};
  mutable std::mutex mutex_;
  std::map<std::string, std::deque<ApiHandler>> answers_;
  std::vector<ApiRequest> requests_;
  std::atomic<bool> stop_{false};
  std::list<std::thread> threads_;  ///< Only the first one's until that has ended.
  std::thread acceptor_;
};

}  // namespace TarvoOrvane::Supportctl
