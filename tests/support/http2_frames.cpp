#include "http2_frames.h"

#include <algorithm>

#include "tarvo/support/v1/notification.pb.h"

namespace hostile {
namespace {

constexpr std::size_t kLargestFrame = 16384;  // what a client takes unless it says otherwise

char Byte(std::uint64_t value) { return static_cast<char>(static_cast<std::uint8_t>(value & 0xff)); }

}  // namespace

std::string BigEndian(std::uint64_t value, int bytes) {
  std::string text;
  for (int i = bytes - 1; i >= 0; --i) text += Byte(value >> (8 * i));
  return text;
}

std::string FrameHead(std::size_t size, std::uint8_t type, std::uint8_t flags, std::uint32_t stream) {
  return BigEndian(size, 3) + Byte(type) + Byte(flags) + BigEndian(stream, 4);
}

std::string Frame(std::uint8_t type, std::uint8_t flags, std::uint32_t stream, const std::string& payload) {
  return FrameHead(payload.size(), type, flags, stream) + payload;
}

std::string Repeat(const std::string& text, std::size_t times) {
  std::string all;
  all.reserve(text.size() * times);
  for (std::size_t i = 0; i < times; ++i) all += text;
  return all;
}

std::string HpackNumber(std::uint8_t first, int prefix_bits, std::uint64_t value) {
  const std::uint64_t full = (1U << prefix_bits) - 1;
  if (value < full) return {Byte(first | value)};
  std::string text{Byte(first | full)};
  for (value -= full; value >= 0x80; value >>= 7) text += Byte(0x80 | (value & 0x7f));
  return text + Byte(value);
}

std::string HeaderLine(const std::string& name, const std::string& value) {
  return std::string(1, '\0') + HpackNumber(0, 7, name.size()) + name + HpackNumber(0, 7, value.size()) +
         value;
}

std::string ResponseHeaderLines() {
  constexpr char kStatus200 = '\x88';  // of HPACK's static table
  return kStatus200 + HeaderLine("content-type", "application/grpc");
}

std::string ResponseHeaders() { return Frame(kHeaders, kEndHeaders, kTheStream, ResponseHeaderLines()); }

std::string Message(const std::string& text, bool compressed) {
  const std::string all = std::string(1, compressed ? '\1' : '\0') + BigEndian(text.size(), 4) + text;
  std::string frames;
  for (std::size_t at = 0; at < all.size(); at += kLargestFrame) {
    frames += Frame(kData, kNoFlags, kTheStream, all.substr(at, kLargestFrame));
  }
  return frames;
}

std::string Delivery(const std::string& id, const std::string& ticket_json) {
  tarvo::support::v1::ServerMessage message;
  message.mutable_delivery()->set_ticket_id(id);
  message.mutable_delivery()->set_ticket_json(ticket_json);
  return message.SerializeAsString();
}

}  // namespace hostile
