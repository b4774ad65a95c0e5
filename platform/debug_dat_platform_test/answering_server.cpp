#include "answering_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <utility>

#include "check.h"

namespace DebugDatPlatformTest {
namespace {

int BindToLoopback() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw CannotTell("there is no loopback port for a server of the test");
  }
  return fd;
}

std::string AddressOf(int fd) {
  sockaddr_in address = {};
  socklen_t size = sizeof(address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  return "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

/// How long the body is that the head announces.
std::size_t BodySizeOf(const std::string& head) {
  constexpr char kName[] = "\r\nContent-Length:";
  const char* const found = strcasestr(head.c_str(), kName);
  return found == nullptr ? 0 : std::strtoul(found + sizeof(kName) - 1, nullptr, 10);
}

bool IsComplete(const std::string& request) {
  const std::size_t end = request.find("\r\n\r\n");
  return end != std::string::npos && request.size() >= end + 4 + BodySizeOf(request.substr(0, end));
}

void SendAll(int fd, const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t size = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (size <= 0) return;
    sent += static_cast<std::size_t>(size);
  }
}

}  // namespace

AnsweringServer::AnsweringServer(std::string answer)
    : answer_(std::move(answer)), listener_(BindToLoopback()) {
  if (listen(listener_, 8) != 0) throw CannotTell("a server of the test can't listen");
  thread_ = std::thread([this] { Serve(); });
}

AnsweringServer::~AnsweringServer() {
  shutdown(listener_, SHUT_RDWR);  // which ends a wait for a client
  if (thread_.joinable()) thread_.join();
  close(listener_);
}

std::string AnsweringServer::Url() const { return "http://" + AddressOf(listener_) + "/"; }

std::string AnsweringServer::Request() {
  thread_.join();
  return request_;
}

void AnsweringServer::Serve() {
  const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  std::array<char, 4096> chunk = {};
  bool was_told_to_go_on = false;
  while (!IsComplete(request_)) {
    const ssize_t size = recv(client, chunk.data(), chunk.size(), 0);
    if (size <= 0) break;
    request_.append(chunk.data(), static_cast<std::size_t>(size));
    if (!was_told_to_go_on && strcasestr(request_.c_str(), "\r\nExpect: 100-continue") != nullptr) {
      SendAll(client, "HTTP/1.1 100 Continue\r\n\r\n");
      was_told_to_go_on = true;
    }
  }
  SendAll(client, answer_);
  close(client);
}

ClosedPort::ClosedPort() : fd_(BindToLoopback()) {}

ClosedPort::~ClosedPort() { close(fd_); }

std::string ClosedPort::Address() const { return AddressOf(fd_); }

}  // namespace DebugDatPlatformTest
