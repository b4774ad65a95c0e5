#include "api_server.h"

#include <json/json.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "loopback_socket.h"
#include "test_certificate.h"
#include "text_forms.h"

namespace TarvoOrvane::Supportctl {
namespace {

constexpr int kLookMs = 10;
constexpr char kStreamHead[] =
    "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nConnection: close\r\n\r\n";

int ListenOnSocket(const std::filesystem::path& path) {
  std::filesystem::create_directories(path.parent_path());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.string().size() >= sizeof(address.sun_path)) throw std::runtime_error("too long a name");
  std::memcpy(address.sun_path, path.c_str(), path.string().size());
  unlink(path.c_str());
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1 || listen(fd, 32) == -1) {
    throw std::runtime_error("cannot listen on " + path.string());
  }
  return fd;
}

ApiRequest ParseRequestHead(const std::string& head) {
  std::istringstream lines(head);
  ApiRequest request;
  lines >> request.method >> request.target;
  constexpr std::string_view kPrefix = "/api/v1";
  if (request.target.rfind(kPrefix, 0) == 0) request.target.erase(0, kPrefix.size());
  for (std::string line; std::getline(lines, line);) {
    const std::size_t colon = line.find(": ");
    if (colon == std::string::npos) continue;
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    request.header[name] = line.substr(colon + 2, line.size() - colon - 3);  // and without the CR
  }
  return request;
}

bool ReadRequest(ApiConnection& connection, ApiRequest& request) {
  std::string bytes;
  std::size_t end = 0;
  while ((end = bytes.find("\r\n\r\n")) == std::string::npos) {
    const std::string more = connection.Receive();
    if (more.empty()) return false;
    bytes += more;
  }
  request = ParseRequestHead(bytes.substr(0, end + 2));
  request.body = bytes.substr(end + 4);
  const std::string length = request.Header("content-length");
  while (!length.empty() && request.body.size() < std::stoul(length)) {
    const std::string more = connection.Receive();
    if (more.empty()) return false;
    request.body += more;
  }
  return true;
}

}  // namespace

std::string ApiRequest::Header(const std::string& name) const {
  const auto found = header.find(name);
  return found == header.end() ? "" : found->second;
}

Json::Value ApiRequest::Json() const {
  Json::Value value;
  std::istringstream(body) >> value;
  return value;
}

void ApiConnection::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto count = tls_ != nullptr
                           ? SSL_write(tls_, bytes.data(), static_cast<int>(bytes.size()))
                           : static_cast<int>(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    if (count <= 0) return;  // the client has gone
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

bool ApiConnection::WaitUntilReadable() {
  while (!stop_) {
    if ((tls_ != nullptr && SSL_pending(tls_) > 0) || WaitFor(fd_, POLLIN, kLookMs)) return true;
  }
  return false;
}

std::string ApiConnection::Receive() {
  std::array<char, 65536> bytes{};
  if (!WaitUntilReadable()) return "";
  const auto count = tls_ != nullptr ? SSL_read(tls_, bytes.data(), static_cast<int>(bytes.size()))
                                     : static_cast<int>(recv(fd_, bytes.data(), bytes.size(), 0));
  return count <= 0 ? "" : std::string(bytes.data(), static_cast<std::size_t>(count));
}

void ApiConnection::AwaitEnd() {
  while (!Receive().empty()) {
  }
}

ApiHandler Answers(const Json::Value& document, int status) {
  const std::string body = document.isNull() ? "" : SupportService::CompactJson(document);
  return Sends("HTTP/1.1 " + std::to_string(status) +
               " X\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
               "\r\nConnection: close\r\n\r\n" + body);
}

ApiHandler Refuses(int status, const std::string& code, const std::string& message) {
  Json::Value document;
  document["error"]["code"] = code;
  document["error"]["message"] = message;
  return Answers(document, status);
}

ApiHandler Sends(const std::string& bytes) {
  return [bytes](const ApiRequest&, ApiConnection& connection) { connection.Send(bytes); };
}

ApiHandler Streams(const std::string& events) { return Sends(kStreamHead + events); }

ApiHandler StreamsOn(const std::string& events) {
  return [events](const ApiRequest&, ApiConnection& connection) {
    connection.Send(kStreamHead + events);
    connection.AwaitEnd();
  };
}

ApiServer::ApiServer(const std::filesystem::path& socket) : listener_(ListenOnSocket(socket)) {
  acceptor_ = std::thread([this] { Run(); });
}

ApiServer::ApiServer(const std::string& certificate, const std::string& key)
    : listener_(ListenOnLoopback(port_)) {
  tls_.reset(SSL_CTX_new(TLS_server_method()));
  SSL_CTX_use_certificate(tls_.get(), Testing::ParseCertificate(certificate).get());
  SSL_CTX_use_PrivateKey(tls_.get(), Testing::ParseKey(key).get());
  acceptor_ = std::thread([this] { Run(); });
}

ApiServer::~ApiServer() {
  stop_ = true;
  acceptor_.join();
  for (std::thread& thread : threads_) thread.join();
  close(listener_);
}

void ApiServer::On(const std::string& method, const std::string& target, std::vector<ApiHandler> answers) {
  const std::lock_guard<std::mutex> lock(mutex_);
  answers_[method + " " + target] = {answers.begin(), answers.end()};
}

std::vector<ApiRequest> ApiServer::Requests() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::vector<std::string> ApiServer::RequestLines() const {
  std::vector<std::string> lines;
  for (const ApiRequest& request : Requests()) lines.push_back(request.method + " " + request.target);
  return lines;
}

void ApiServer::Run() {
  while (!stop_) {
    if (!WaitFor(listener_, POLLIN, kLookMs)) continue;
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd != -1) threads_.emplace_back([this, fd] { Serve(fd); });
  }
}

void ApiServer::Serve(int fd) {
  std::unique_ptr<SSL, void (*)(SSL*)> tls(tls_ ? SSL_new(tls_.get()) : nullptr, SSL_free);
  if (tls) SSL_set_fd(tls.get(), fd);
  ApiConnection connection(fd, tls.get(), stop_);
  ApiRequest request;
  if ((!tls || SSL_accept(tls.get()) == 1) && ReadRequest(connection, request)) {
    ApiHandler handler = HandlerOf(request);
    handler(request, connection);
    if (tls) SSL_shutdown(tls.get());
  }
  close(fd);
}

ApiHandler ApiServer::HandlerOf(const ApiRequest& request) {
  const std::lock_guard<std::mutex> lock(mutex_);
  requests_.push_back(request);
  const std::string line = request.method + " " + request.target;
  std::deque<ApiHandler>& answers = answers_[line];
  if (answers.empty()) return Refuses(404, "not_found", "nothing is prepared for " + line);
  const ApiHandler answer = answers.front();
  if (answers.size() > 1) answers.pop_front();
  return answer;
}

}  // namespace TarvoOrvane::Supportctl
