/// What the HTTP server's tests share: a server whose answers the test gives, over each transport, and its clients.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <deque>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "http_server.h"
#include "service_fixture.h"
#include "test_certificate.h"
#include "transfer.h"

namespace TarvoOrvane::SupportService {

using HttpHandler = std::function<void(HttpRequest&, const std::string& body, const AnswerSink& done)>;

/// Collects the body and hands it to the test.
class HandledExchange final : public Exchange {
 public:
  HandledExchange(HttpRequest& request, const HttpHandler& handler) : request_(request), handler_(handler) {}
  bool TakeBody(std::string_view data) override {
    body_.append(data);
    return true;
  }
  void Finish(AnswerSink done) override { handler_(request_, body_, done); }
  void Abort(const std::string& /*cause*/) override {}

 private:
  HttpRequest& request_;
  const HttpHandler& handler_;
  std::string body_;
};

inline HttpAnswer TextAnswer(const std::string& text) {
  HttpAnswer answer;
  answer.headers = {{MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain"}};
  answer.body = text;
  return answer;
}

/// What a source's test does with it. Outlives it.
class StreamScript {
 public:
  void Push(const std::string& piece) {
    const std::lock_guard<std::mutex> lock(mutex_);
    pieces_.push_back(piece);
  }
  void Finish() {
    const std::lock_guard<std::mutex> lock(mutex_);
    complete_ = true;
  }
  void Wake() {
    std::function<void()> wake;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      wake = wake_;
    }
    if (wake) wake();
  }
  std::optional<std::string> Next(const std::function<void()>& wake) {
    const std::lock_guard<std::mutex> lock(mutex_);
    wake_ = wake;
    ++asked;
    if (pieces_.empty()) return complete_ ? std::nullopt : std::optional<std::string>("");
    std::string piece = pieces_.front();
    pieces_.pop_front();
    return piece;
  }

  std::atomic<int> asked{0};
  std::atomic<bool> gone{false};  ///< The server has dropped the source.

 private:
  std::mutex mutex_;
  std::deque<std::string> pieces_;
  bool complete_ = false;
  std::function<void()> wake_;
};

class ScriptedSource final : public BodySource {
 public:
  explicit ScriptedSource(std::shared_ptr<StreamScript> script) : script_(std::move(script)) {}
  ~ScriptedSource() override { script_->gone = true; }
  ScriptedSource(const ScriptedSource&) = delete;
  ScriptedSource& operator=(const ScriptedSource&) = delete;
  std::optional<std::string> Next(const std::function<void()>& wake) override { return script_->Next(wake); }

 private:
  const std::shared_ptr<StreamScript> script_;
};

inline HttpAnswer StreamAnswer(const std::shared_ptr<StreamScript>& script) {
  HttpAnswer answer;
  answer.headers = {{MHD_HTTP_HEADER_CONTENT_TYPE, "text/event-stream"}};
  answer.source = std::make_shared<ScriptedSource>(script);
  return answer;
}

enum class Transport { kPlain, kTls, kUnix };

inline void PrintTo(Transport transport, std::ostream* out) {
  constexpr std::array<const char*, 3> kNames = {"plain", "TLS", "unix"};
  *out << kNames.at(static_cast<std::size_t>(transport));
}

/// A client's transfer that goes on while the test does other things.
class RunningTransfer {
 public:
  explicit RunningTransfer(std::unique_ptr<Transfer> transfer) : transfer_(std::move(transfer)) {
    transfer_->Set(CURLOPT_WRITEFUNCTION, &Take);
    transfer_->Set(CURLOPT_WRITEDATA, this);
    end_ = std::async(std::launch::async, [this] { return transfer_->Run().curl_code; });
  }
  [[nodiscard]] bool WaitFor(const std::string& body) {
    return Eventually([&] {
      const std::lock_guard<std::mutex> lock(mutex_);
      return body_ == body;
    });
  }
  [[nodiscard]] bool HasEnded() { return end_.wait_for(kPatience) == std::future_status::ready; }
  int Code() { return end_.get(); }

 private:
  static std::size_t Take(char* data, std::size_t size, std::size_t count, void* self_pointer) {
    auto& self = *static_cast<RunningTransfer*>(self_pointer);
    const std::lock_guard<std::mutex> lock(self.mutex_);
    self.body_.append(data, size * count);
    return size * count;
  }

  std::unique_ptr<Transfer> transfer_;
  std::mutex mutex_;
  std::string body_;
  std::future<int> end_;
};

class HttpServerTest : public ::testing::Test {
 protected:
  HttpServerTest() {
    settings_.address = ParseListenAddress("127.0.0.1:0", false);
    settings_.idle_limit = settings_.head_limit = std::chrono::seconds(3600);
  }

  void Use(Transport transport) {
    if (transport == Transport::kTls) UseTls();
    if (transport == Transport::kUnix) {
      settings_.address = ParseListenAddress("unix:" + temp_.File("socket"), true);
    }
  }
  void UseTls() {
    Replace("certificate", own_.certificate);
    Replace("key", own_.key);
    settings_.tls = TlsSettings{temp_.File("certificate"), temp_.File("key"), std::nullopt};
  }
  /// As administrators do.
  void Replace(const std::string& name, const std::string& text) {
    WriteFile(temp_.path() / (name + ".new"), text);
    std::filesystem::rename(temp_.path() / (name + ".new"), temp_.path() / name);
  }

  void Start(HttpHandler handler) {
    handler_ = std::move(handler);
    StartWith([this](HttpRequest& request) { return std::make_unique<HandledExchange>(request, handler_); });
  }
  void StartWith(HttpServer::Factory factory) {
    server_ = std::make_unique<HttpServer>(settings_, std::move(factory), events_.sink());
  }
  /// The cause of not starting.
  std::string StartFails() {
    try {
      Start([](HttpRequest&, const std::string&, const AnswerSink& done) { done({}); });
      return "";
    } catch (const std::runtime_error& failure) {
      return failure.what();
    }
  }

  std::unique_ptr<Transfer> To(const std::string& path, const std::vector<std::string>& headers = {}) {
    const bool is_unix = !settings_.address.unix_path.empty();
    auto transfer =
        std::make_unique<Transfer>((is_unix ? "http://localhost" : server_->url()) + path, headers);
    if (is_unix) transfer->Set(CURLOPT_UNIX_SOCKET_PATH, settings_.address.unix_path.c_str());
    if (settings_.tls) Trust(*transfer, own_.certificate);
    transfer->Set(CURLOPT_PATH_AS_IS, 1L);
    return transfer;
  }
  static void Trust(Transfer& transfer, const std::string& certificate) {
    SetBlob(transfer, CURLOPT_CAINFO_BLOB, certificate);
  }
  static void Present(Transfer& transfer, const Testing::TestCertificate& certificate) {
    SetBlob(transfer, CURLOPT_SSLCERT_BLOB, certificate.certificate);
    SetBlob(transfer, CURLOPT_SSLKEY_BLOB, certificate.key);
    transfer.Set(CURLOPT_SSLCERTTYPE, "PEM");
  }
  static void SetBlob(Transfer& transfer, CURLoption option, const std::string& text) {
    curl_blob blob{const_cast<char*>(text.data()), text.size(), CURL_BLOB_COPY};
    transfer.Set(option, &blob);
  }
  ReceivedAnswer Get(const std::string& path, const std::vector<std::string>& headers = {}) {
    return To(path, headers)->Run();
  }

  TemporaryFolder temp_;
  const Testing::TestCertificate own_ = Testing::MakeTestCertificate();
  HttpSettings settings_;
  EventRecorder events_;
  HttpHandler handler_;
  std::unique_ptr<HttpServer> server_;
};

class HttpTransportTest : public HttpServerTest, public ::testing::WithParamInterface<Transport> {
 protected:
  void SetUp() override { Use(GetParam()); }
};

/// Each of them, for tests with such a parameter.
inline auto AllTransports() {
  return ::testing::Values(Transport::kPlain, Transport::kTls, Transport::kUnix);
}

}  // namespace TarvoOrvane::SupportService
