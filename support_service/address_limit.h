/// Bounds how many connections one IP address, or one IPv6 network, has to a listener.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <map>
#include <mutex>
#include <string>

#include "event_log.h"
#include "metrics.h"

namespace TarvoOrvane::SupportService {

/// What is counted of an IPv6 address: the half that a network has, because one host has all addresses of it. An IPv4
/// address in the form of an IPv6 one is itself.
[[nodiscard]] std::string NetworkOf(const in6_addr& address);

/// Any thread may use it.
class AddressLimit {
 public:
  /// @param most    Of one address.
  /// @param events  Told of addresses that have more, as far as that is not too often.
  AddressLimit(std::size_t most, Metrics& metrics, const EventSink& events);

  /// What connections are counted by: the IPv4 address or the IPv6 network; empty for what has
  /// none, which is not limited.
  [[nodiscard]] static std::string KeyOf(const sockaddr* address);

  /// A connection was accepted.
  /// @return false when its address has too many. End() is not to be called then.
  [[nodiscard]] bool Begin(const std::string& key);
  /// It has ended.
  void End(const std::string& key);

  /// From now on. Connections that are there stay.
  void SetMost(std::size_t most);
  /// How many connections the address has that has most.
  [[nodiscard]] std::size_t largest() const;

 private:
  Metrics& metrics_;
  const LimitedEvents events_;
  mutable std::mutex mutex_;  ///< Guards what follows.
  std::size_t most_;
  std::map<std::string, std::size_t> open_;  ///< By key; none is 0.
};

}  // namespace TarvoOrvane::SupportService
