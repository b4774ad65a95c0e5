#include "unread_server.h"

#include <sys/socket.h>

#include <cstdint>

#include "http2_frames.h"

namespace TarvoOrvane::Testing {
namespace {

constexpr int kLookMs = 10;
constexpr std::size_t kPrefaceSize = 24;
constexpr std::size_t kFrameHeadSize = 9;

/// SETTINGS_INITIAL_WINDOW_SIZE 0: it counts for streams that are open already, too.
std::string NoWindow() {
  return hostile::Frame(hostile::kSettings, hostile::kNoFlags, hostile::kConnection,
                        hostile::BigEndian(4, 2) + hostile::BigEndian(0, 4));
}

std::string Complaint() {
  constexpr int kEnhanceYourCalm = 11;
  return hostile::ResponseHeaders() +
         hostile::Frame(hostile::kGoAway, hostile::kNoFlags, hostile::kConnection,
                        hostile::BigEndian(hostile::kTheStream, 4) + hostile::BigEndian(kEnhanceYourCalm, 4) +
                            "too_many_pings");
}

std::string Ticket(const std::string& id, const std::string& json) {
  return hostile::ResponseHeaders() + hostile::Message(hostile::Delivery(id, json));
}

std::uint32_t FromBigEndian(const std::string& text, std::size_t begin, std::size_t bytes) {
  std::uint32_t value = 0;
  for (std::size_t i = begin; i < begin + bytes; ++i) {
    value = (value << 8) | static_cast<unsigned char>(text[i]);
  }
  return value;
}

void Write(int fd, const std::string& text) {
  static_cast<void>(send(fd, text.data(), text.size(), MSG_NOSIGNAL));
}

}  // namespace

struct UnreadServer::Frame {
  std::uint32_t type = 0;
  bool is_ack = false;
  std::string payload;
};

UnreadServer::UnreadServer(Act act, const std::string& ticket_id, const std::string& ticket_json)
    : act_(act),
      reply_(act == Act::kComplainsOfPings     ? Complaint()
             : act == Act::kDeliversAfterHello ? NoWindow() + Ticket(ticket_id, ticket_json)
                                               : Ticket(ticket_id, ticket_json)),
      server_([this](int fd) { Serve(fd); }) {}

void UnreadServer::Serve(int fd) const {
  std::string preface;
  Write(fd, act_ == Act::kDeliversAfterHello
                ? hostile::Frame(hostile::kSettings, hostile::kNoFlags, hostile::kConnection, "")
                : NoWindow());
  if (!ReadExactly(fd, preface, kPrefaceSize)) return;
  bool has_replied = false;
  const hostile::FrameType awaited = act_ == Act::kDeliversAfterHello ? hostile::kData : hostile::kHeaders;
  for (Frame frame; ReadFrame(fd, frame);) {
    React(fd, frame);
    if (has_replied || frame.type != awaited) continue;
    has_replied = true;
    Write(fd, reply_);
    if (act_ == Act::kComplainsOfPings) shutdown(fd, SHUT_WR);
  }
}

void UnreadServer::React(int fd, const Frame& frame) const {
  if (frame.is_ack || (frame.type != hostile::kSettings && frame.type != hostile::kPing)) return;
  // A setting's acknowledgement is empty, a ping's what the ping has.
  Write(fd, hostile::Frame(static_cast<std::uint8_t>(frame.type), hostile::kAck, hostile::kConnection,
                           frame.type == hostile::kPing ? frame.payload : ""));
}

bool UnreadServer::ReadFrame(int fd, Frame& frame) const {
  std::string head;
  if (!ReadExactly(fd, head, kFrameHeadSize)) return false;
  frame.type = FromBigEndian(head, 3, 1);
  frame.is_ack = (head[4] & hostile::kAck) != 0;
  return ReadExactly(fd, frame.payload, FromBigEndian(head, 0, 3));
}

bool UnreadServer::ReadExactly(int fd, std::string& out, std::size_t size) const {
  out.assign(size, '\0');
  std::size_t have = 0;
  while (have < size && !server_.is_stopping()) {
    if (!WaitFor(fd, POLLIN, kLookMs)) continue;
    const ssize_t count = recv(fd, &out[have], size - have, 0);
    if (count <= 0) return false;
    have += static_cast<std::size_t>(count);
  }
  return have == size;
}

}  // namespace TarvoOrvane::Testing
