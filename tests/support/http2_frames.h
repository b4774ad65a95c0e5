/// HTTP/2 frames made by hand, right or wrong as the caller likes.
#pragma once

#include <cstdint>
#include <string>

namespace hostile {

enum FrameType : std::uint8_t {
  kData = 0,
  kHeaders = 1,
  kPriority = 2,
  kRstStream = 3,
  kSettings = 4,
  kPushPromise = 5,
  kPing = 6,
  kGoAway = 7,
  kWindowUpdate = 8,
  kContinuation = 9
};

inline constexpr std::uint8_t kNoFlags = 0;
inline constexpr std::uint8_t kEndStream = 1;
inline constexpr std::uint8_t kAck = 1;
inline constexpr std::uint8_t kEndHeaders = 4;
inline constexpr std::uint8_t kPadded = 8;

inline constexpr std::uint32_t kConnection = 0;
inline constexpr std::uint32_t kTheStream = 1;  ///< The first that a client opens.

/// `value` in that many bytes, the highest first.
std::string BigEndian(std::uint64_t value, int bytes);

/// The nine bytes before a frame's payload.
std::string FrameHead(std::size_t size, std::uint8_t type, std::uint8_t flags, std::uint32_t stream);
std::string Frame(std::uint8_t type, std::uint8_t flags, std::uint32_t stream, const std::string& payload);

/// One after the other, that many times.
std::string Repeat(const std::string& text, std::size_t times);

/// HPACK's number with a prefix of so many bits in the byte `first`.
std::string HpackNumber(std::uint8_t first, int prefix_bits, std::uint64_t value);
/// A header line that is not remembered, in plain characters.
std::string HeaderLine(const std::string& name, const std::string& value);
/// The answer's header lines up to the first message.
std::string ResponseHeaderLines();
/// The frame that holds them.
std::string ResponseHeaders();

/// A message as gRPC frames it, in one or more DATA frames.
std::string Message(const std::string& text, bool compressed = false);
/// The ServerMessage that delivers a ticket.
std::string Delivery(const std::string& id, const std::string& ticket_json);

}  // namespace hostile
