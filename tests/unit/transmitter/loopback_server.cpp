#include "loopback_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

namespace {

constexpr int kWaitMilliseconds = 60000;

/// A socket bound to a loopback port of the kernel's choice, which goes to `port`.
int BindToLoopback(std::uint16_t& port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof(address);
  if (fd == -1 || bind(fd, generic, size) == -1 || getsockname(fd, generic, &size) == -1) {
    throw std::runtime_error("no loopback port");
  }
  port = ntohs(address.sin_port);
  return fd;
}

bool WaitReadable(int fd) {
  pollfd wait = {fd, POLLIN, 0};
  return poll(&wait, 1, kWaitMilliseconds) == 1;
}

/// Appends what has arrived to `bytes`; false at the peer's end or when nothing comes.
bool ReadSome(int fd, std::string& bytes) {
  std::array<char, 65536> buffer;
  if (!WaitReadable(fd)) {
    return false;
  }
  const ssize_t count = recv(fd, buffer.data(), buffer.size(), 0);
  if (count <= 0) {
    return false;
  }
  bytes.append(buffer.data(), static_cast<std::size_t>(count));
  return true;
}

void SendAll(int fd, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) {
      return;
    }
    sent += static_cast<std::size_t>(count);
  }
}

ReceivedRequest ParseHead(const std::string& head) {
  ReceivedRequest request;
  std::size_t begin = 0;
  for (std::size_t end = head.find("\r\n"); end != std::string::npos; end = head.find("\r\n", begin)) {
    const std::string line = head.substr(begin, end - begin);
    begin = end + 2;
    const std::size_t colon = line.find(": ");
    if (request.request_line.empty()) {
      request.request_line = line;
    } else if (colon != std::string::npos) {
      request.header.emplace_back(line.substr(0, colon), line.substr(colon + 2));
    }
  }
  return request;
}

}  // namespace

std::string ReceivedRequest::Header(const std::string& name) const {
  for (const auto& [line_name, value] : header) {
    if (line_name == name) {
      return value;
    }
  }
  return "";
}

Answer HttpAnswer(const std::string& status, const std::string& body) {
  return {{"HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body}};
}

LoopbackServer::LoopbackServer(std::vector<Answer> answers) : answers_(std::move(answers)) {
  listener_fd_ = BindToLoopback(port_);
  if (listen(listener_fd_, 8) == -1) {
    throw std::runtime_error("cannot listen on the loopback port");
  }
  thread_ = std::thread([this] { Serve(); });
}

LoopbackServer::~LoopbackServer() { Requests(); }

const std::vector<ReceivedRequest>& LoopbackServer::Requests() {
  if (thread_.joinable()) {
    shutdown(listener_fd_, SHUT_RDWR);  // a request that has not come by now never will
    thread_.join();
    close(listener_fd_);
  }
  return requests_;
}

void LoopbackServer::Serve() {
  for (const Answer& answer : answers_) {
    const int connection_fd =
        WaitReadable(listener_fd_) ? accept4(listener_fd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    if (connection_fd == -1) {
      break;
    }
    ServeOne(connection_fd, answer);
    close(connection_fd);
  }
  shutdown(listener_fd_, SHUT_RDWR);  // a connection beyond the answers is refused, not left waiting
}

void LoopbackServer::ServeOne(int connection_fd, const Answer& answer) {
  std::string bytes;
  std::size_t head_size = std::string::npos;
  while ((head_size = bytes.find("\r\n\r\n")) == std::string::npos) {
    if (!ReadSome(connection_fd, bytes)) {
      return;
    }
  }
  head_size += 4;
  ReceivedRequest request = ParseHead(bytes.substr(0, head_size));
  request.body = bytes.substr(head_size);
  if (!request.Header("Expect").empty()) {
    SendAll(connection_fd, "HTTP/1.1 100 Continue\r\n\r\n");
  }
  const std::size_t body_size = std::strtoul(request.Header("Content-Length").c_str(), nullptr, 10);
  while (request.body.size() < body_size && ReadSome(connection_fd, request.body)) {
  }
  requests_.push_back(std::move(request));
  for (std::size_t index = 0; index < answer.pieces.size(); ++index) {
    if (index > 0) {
      std::this_thread::sleep_for(answer.pause_between);
    }
    SendAll(connection_fd, answer.pieces[index]);
  }
}

UnusedAddress::UnusedAddress() : fd_(BindToLoopback(port_)) {}

UnusedAddress::~UnusedAddress() { close(fd_); }
