#include "unread_server.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "loopback_socket.h"
#include "tarvo/support/v1/notification.pb.h"

namespace TarvoOrvane::Testing {
namespace {

constexpr int kLookMs = 10;
constexpr std::size_t kPrefaceSize = 24;
constexpr std::size_t kFrameHeaderSize = 9;

enum FrameType : unsigned char { kData = 0, kHeaders = 1, kSettings = 4, kGoAway = 7 };
constexpr unsigned char kAck = 1;
constexpr unsigned char kEndHeaders = 4;

char Byte(std::size_t value) { return static_cast<char>(static_cast<unsigned char>(value & 0xff)); }
unsigned char At(const std::string& text, std::size_t i) { return static_cast<unsigned char>(text[i]); }

std::string Frame(FrameType type, unsigned char flags, unsigned char stream, const std::string& payload) {
  const std::size_t size = payload.size();
  return std::string({Byte(size >> 16), Byte(size >> 8), Byte(size), Byte(type), Byte(flags), 0, 0, 0,
                      Byte(stream)}) +
         payload;
}

/// Status 200 from the static table; "content-type" is the 31st name there.
std::string HeadersFrame() {
  return Frame(kHeaders, kEndHeaders, 1, std::string("\x88\x0f\x10\x10") + "application/grpc");
}

std::string ComplaintFrames() {
  // The last stream that is served, then the reason: "enhance your calm".
  const std::string codes("\x00\x00\x00\x01\x00\x00\x00\x0b", 8);
  return HeadersFrame() + Frame(kGoAway, 0, 0, codes + "too_many_pings");
}

std::string DeliveryFrames(const std::string& ticket_json) {
  tarvo::support::v1::ServerMessage message;
  message.mutable_delivery()->set_ticket_id("id-1");
  message.mutable_delivery()->set_ticket_json(ticket_json);
  const std::string text = message.SerializeAsString();
  const std::size_t size = text.size();
  const std::string prefix = {0, Byte(size >> 24), Byte(size >> 16), Byte(size >> 8), Byte(size)};
  return HeadersFrame() + Frame(kData, 0, 1, prefix + text);
}

void Write(int fd, const std::string& text) { static_cast<void>(!write(fd, text.data(), text.size())); }

}  // namespace

UnreadServer::UnreadServer(const std::string& ticket_json)
    : UnreadServer(DeliveryFrames(ticket_json), false) {}

UnreadServer::UnreadServer(ComplaintOfPings) : UnreadServer(ComplaintFrames(), true) {}

UnreadServer::UnreadServer(std::string reply, bool is_its_last)
    : reply_(std::move(reply)),
      is_its_last_(is_its_last),
      listener_(ListenOnLoopback(port_)),
      thread_([this] { Run(); }) {}

UnreadServer::~UnreadServer() {
  stop_ = true;
  thread_.join();
}

void UnreadServer::Run() {
  while (!stop_) {
    pollfd readable{listener_.get(), POLLIN, 0};
    if (poll(&readable, 1, kLookMs) <= 0) continue;
    const Internal::ScopedFd connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    Serve(connection.get());
  }
}

bool UnreadServer::ReadExactly(int fd, std::string& out, std::size_t size) const {
  out.clear();
  while (out.size() < size && !stop_) {
    pollfd readable{fd, POLLIN, 0};
    if (poll(&readable, 1, kLookMs) <= 0) continue;
    char chunk[4096];
    const ssize_t count = read(fd, chunk, std::min(sizeof chunk, size - out.size()));
    if (count <= 0) return false;
    out.append(chunk, static_cast<std::size_t>(count));
  }
  return out.size() == size;
}

void UnreadServer::Serve(int fd) const {
  // The initial window of every stream (setting 4) is zero.
  Write(fd, Frame(kSettings, 0, 0, std::string("\x00\x04\x00\x00\x00\x00", 6)));
  std::string header;
  std::string payload;
  if (!ReadExactly(fd, header, kPrefaceSize)) return;
  while (ReadExactly(fd, header, kFrameHeaderSize)) {
    const std::size_t size =
        std::size_t{At(header, 0)} << 16 | std::size_t{At(header, 1)} << 8 | At(header, 2);
    if (!ReadExactly(fd, payload, size)) return;
    if (At(header, 3) == kSettings && At(header, 4) != kAck) Write(fd, Frame(kSettings, kAck, 0, ""));
    if (At(header, 3) != kHeaders) continue;
    Write(fd, reply_);
    if (is_its_last_) shutdown(fd, SHUT_WR);
  }
}

}  // namespace TarvoOrvane::Testing
