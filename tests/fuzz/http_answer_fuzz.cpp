/// The bytes of the CSS server's answer, as libcurl reads them for the client library: heads, interim answers, chunks,
/// trailers, rubbish. The input: records that the server sends one after the other, the last of them again and again,
/// up to some megabytes, where it begins with '*'.
#include <curl/curl.h>

#include <thread>

#include "curl_helpers.h"
#include "fuzz_support.h"
#include "loopback_socket.h"

namespace {

using fuzz::Require;
using namespace TarvoOrvane;

constexpr int kPatienceMs = 60'000;
constexpr std::size_t kEndless = 4 * Internal::kMaxReceivedBytes;
constexpr std::size_t kMaxMessage = 2048;

/// One listener for all inputs.
class Listener {
 public:
  Listener() : fd_(ListenOnLoopback(port_)) {}
  [[nodiscard]] int fd() const { return fd_; }
  [[nodiscard]] std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

 private:
  int port_ = 0;  ///< Before the listener, whose initialisation sets it.
  int fd_ = -1;
};

bool SendAll(int connection, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

void SendEndlessly(int connection, const std::string& record) {
  std::string piece;
  while (!record.empty() && piece.size() < (64U << 10)) piece += record;
  for (std::size_t sent = 0; !piece.empty() && sent < kEndless; sent += piece.size()) {
    if (!SendAll(connection, piece)) return;
  }
}

/// Serves one connection, and waits for the client to end it.
void Serve(int listener, const std::vector<std::string>& records) {
  Require(WaitFor(listener, POLLIN, kPatienceMs), "the client comes");
  const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  std::string request(4096, '\0');
  static_cast<void>(recv(connection, request.data(), request.size(), 0));
  for (std::size_t i = 0; i < records.size(); ++i) {
    const bool repeats = i + 1 == records.size() && !records[i].empty() && records[i].front() == '*';
    if (repeats) {
      SendEndlessly(connection, records[i].substr(1));
    } else {
      SendAll(connection, records[i]);
    }
  }
  shutdown(connection, SHUT_WR);
  while (recv(connection, request.data(), request.size(), 0) > 0) {
  }
  CloseByReset(connection);  // leaves no port behind that waits
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Listener listener;
  const std::vector<std::string> records = fuzz::Records(fuzz::AsText(data, size));
  std::thread server([&records] { Serve(listener.fd(), records); });
  std::string answer;
  {
    Utils::CurlHandle handle(curl_easy_init(), &curl_easy_cleanup);
    curl_easy_setopt(handle.get(), CURLOPT_URL, listener.Url().c_str());
    Utils::CurlSetupWriteToString(handle, answer);
    try {
      Utils::CurlPerform(handle);
    } catch (const Utils::CurlFailedException& failure) {
      Require(fuzz::IsPrintableAscii(failure.what()), "a failure's text is printable");
      Require(std::string_view(failure.what()).size() <= kMaxMessage, "a failure's text is short");
    }
    Require(answer.size() <= Internal::kMaxAnswerBytes, "an answer is bounded");
  }
  server.join();
  return 0;
}
