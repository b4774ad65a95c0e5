#include "name_server.h"

#include <poll.h>

#include <cstring>

#include "loopback_socket.h"

namespace TarvoOrvane::Testing {
namespace {

constexpr int kLookMs = 10;
constexpr std::size_t kHeaderSize = 12;
constexpr char kTypeA = 1;

/// Where the question behind the header ends: labels up to an empty one, the type, the class; 0 if it does not.
std::size_t EndOfQuestion(const std::string& message) {
  const std::size_t name_end = message.find('\0', kHeaderSize);
  const std::size_t end = name_end + 1 + 4;
  return name_end == std::string::npos || end > message.size() ? 0 : end;
}

/// The reply to a question: one address to one of type A, none to any other.
std::string Reply(const std::string& message, uint32_t address) {
  const std::size_t end = EndOfQuestion(message);
  if (end == 0) return {};
  const bool wants_address = message[end - 4] == 0 && message[end - 3] == kTypeA;
  std::string reply = message.substr(0, 2);                      // its number
  reply.append("\x85\x80\x00\x01\x00\x00\x00\x00\x00\x00", 10);  // a response, authoritative; one question
  reply.append(message, kHeaderSize, end - kHeaderSize);
  if (!wants_address) return reply;
  reply[7] = 1;
  // The name of the question, type A, class IN, to be kept for no time, four bytes.
  reply.append("\xc0\x0c\x00\x01\x00\x01\x00\x00\x00\x00\x00\x04", 12);
  char bytes[sizeof address];
  std::memcpy(bytes, &address, sizeof address);
  return reply.append(bytes, sizeof bytes);
}

}  // namespace

NameServer::NameServer(const std::string& address) : socket_(BindToLoopback(SOCK_DGRAM, port_)) {
  if (!address.empty()) SetAddress(address);
  thread_ = std::thread([this] { Run(); });
}

NameServer::~NameServer() {
  stop_ = true;
  thread_.join();
}

void NameServer::SetAddress(const std::string& address) {
  in_addr parsed{};
  if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) throw std::runtime_error("no IPv4 address");
  address_ = parsed.s_addr;
}

void NameServer::Run() {
  while (!stop_) {
    pollfd readable{socket_.get(), POLLIN, 0};
    if (poll(&readable, 1, kLookMs) > 0) AnswerOne();
  }
}

void NameServer::AnswerOne() {
  char message[1024];
  sockaddr_in client{};
  socklen_t size = sizeof client;
  auto* const name = reinterpret_cast<sockaddr*>(&client);
  const ssize_t length = recvfrom(socket_.get(), message, sizeof message, 0, name, &size);
  if (length <= 0) return;
  ++questions_;
  if (address_ == 0) return;
  const std::string reply = Reply({message, static_cast<std::size_t>(length)}, address_);
  sendto(socket_.get(), reply.data(), reply.size(), 0, name, size);
}

}  // namespace TarvoOrvane::Testing
