#include "answerless_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "tarvo/support/v1/notification.pb.h"

namespace {

enum FrameType : std::uint8_t { kData = 0, kHeaders = 1, kSettings = 4, kPing = 6 };

constexpr std::uint8_t kAck = 0x1;
constexpr std::uint8_t kEndHeaders = 0x4;
constexpr std::size_t kPrefaceSize = 24;
constexpr std::size_t kFrameHeadSize = 9;

std::string BigEndian(std::uint32_t value, unsigned bytes) {
  std::string text;
  for (unsigned i = bytes; i > 0; --i) {
    text += static_cast<char>((value >> (8 * (i - 1))) & 0xff);
  }
  return text;
}

std::uint32_t FromBigEndian(const std::string& text, std::size_t begin, std::size_t bytes) {
  std::uint32_t value = 0;
  for (std::size_t i = begin; i < begin + bytes; ++i) {
    value = (value << 8) | static_cast<unsigned char>(text[i]);
  }
  return value;
}

/// SETTINGS_INITIAL_WINDOW_SIZE 0: it counts for streams that are open already, too.
std::string NoWindow() { return BigEndian(4, 2) + BigEndian(0, 4); }

/// ":status: 200" and "content-type: application/grpc", in HPACK without Huffman code.
std::string ResponseHeaders() { return "\x88\x0f\x10\x10" + std::string("application/grpc"); }

}  // namespace

struct AnswerlessServer::Frame {
  std::uint8_t type = 0;
  std::uint8_t flags = 0;
  std::uint32_t stream = 0;
  std::string payload;
};

AnswerlessServer::AnswerlessServer() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof(address);
  if (bind(listener_, generic, size) != 0 || listen(listener_, 1) != 0 ||
      getsockname(listener_, generic, &size) != 0) {
    throw std::system_error(errno, std::generic_category(), "no loopback port");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { Serve(); });
}

AnswerlessServer::~AnswerlessServer() {
  // Both end the thread's waits: accept() and recv().
  shutdown(listener_, SHUT_RDWR);
  shutdown(connection_, SHUT_RDWR);
  thread_.join();
  close(connection_);
  close(listener_);
}

void AnswerlessServer::Serve() {
  connection_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  std::string preface;
  if (connection_ < 0 || !ReadExactly(preface, kPrefaceSize)) {
    return;
  }
  SendFrame(kSettings, 0, 0, "");
  for (Frame frame; ReadFrame(frame);) {
    React(frame);
  }
}

void AnswerlessServer::React(const Frame& frame) {
  const bool is_ack = (frame.flags & kAck) != 0;
  if (frame.type == kSettings && !is_ack) {
    SendFrame(kSettings, kAck, 0, "");
  } else if (frame.type == kPing && !is_ack) {
    SendFrame(kPing, kAck, 0, frame.payload);
  } else if (frame.type == kData && !delivered_) {
    delivered_ = true;
    SendFrame(kSettings, 0, 0, NoWindow());
    DeliverTicket(frame.stream);
  }
}

bool AnswerlessServer::ReadFrame(Frame& frame) const {
  std::string head;
  if (!ReadExactly(head, kFrameHeadSize)) {
    return false;
  }
  frame.type = static_cast<std::uint8_t>(head[3]);
  frame.flags = static_cast<std::uint8_t>(head[4]);
  frame.stream = FromBigEndian(head, 5, 4);
  return ReadExactly(frame.payload, FromBigEndian(head, 0, 3));
}

bool AnswerlessServer::ReadExactly(std::string& out, std::size_t size) const {
  out.assign(size, '\0');
  std::size_t have = 0;
  while (have < size) {
    const ssize_t count = recv(connection_, &out[have], size - have, 0);
    if (count <= 0) {
      return false;
    }
    have += static_cast<std::size_t>(count);
  }
  return true;
}

void AnswerlessServer::SendFrame(std::uint8_t type, std::uint8_t flags, std::uint32_t stream,
                                 const std::string& payload) const {
  const std::string frame = BigEndian(static_cast<std::uint32_t>(payload.size()), 3) + BigEndian(type, 1) +
                            BigEndian(flags, 1) + BigEndian(stream, 4) + payload;
  send(connection_, frame.data(), frame.size(), MSG_NOSIGNAL);
}

void AnswerlessServer::DeliverTicket(std::uint32_t stream) const {
  tarvo::support::v1::ServerMessage message;
  message.mutable_delivery()->set_ticket_id("ticket-1");
  message.mutable_delivery()->set_ticket_json(R"({"token": "the-token", "apps": []})");
  const std::string text = message.SerializeAsString();
  SendFrame(kHeaders, kEndHeaders, stream, ResponseHeaders());
  // A message is preceded by a byte that tells of compression and by its length.
  SendFrame(kData, 0, stream, BigEndian(0, 1) + BigEndian(static_cast<std::uint32_t>(text.size()), 4) + text);
}
