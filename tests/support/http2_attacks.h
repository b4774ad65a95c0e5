/// What a hostile notification server may send: one row, one attack.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace hostile {

/// When an attack begins: with the stream, or with the connection.
enum class From { kTheRequest, kTheStart };
enum class Answers { kAreRead, kAreNotRead };
enum class Windows { kAreObeyed, kAreIgnored };  ///< Those that the client gives for DATA frames.

enum class TlsFlood { kNone, kKeyUpdates, kSessionTickets };  ///< In place of frames.

struct Http2Attack {
  std::string name;
  /// What is sent in a round; the first is 0. The next round begins when the connection has taken all of it. Empty:
  /// nothing more is sent, and the connection stays.
  std::function<std::string(std::uint64_t round)> frames;
  Windows windows = Windows::kAreObeyed;
  From from = From::kTheRequest;
  Answers answers = Answers::kAreRead;
  bool also_over_tls = false;  ///< In the short run too; the long one has all.
  TlsFlood tls_flood = TlsFlood::kNone;
};

[[nodiscard]] const std::vector<Http2Attack>& Http2Attacks();

/// @throws std::out_of_range when there is none of that name.
[[nodiscard]] const Http2Attack& Http2AttackNamed(const std::string& name);

}  // namespace hostile
