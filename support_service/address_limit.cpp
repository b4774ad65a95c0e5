#include "address_limit.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>

namespace TarvoOrvane::SupportService {
namespace {

/// @param bytes  Of an address of that family.
std::string TextOf(int family, const void* bytes) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  return inet_ntop(family, bytes, text.data(), text.size()) == nullptr ? "" : text.data();
}

}  // namespace

std::string NetworkOf(const in6_addr& address) {
  constexpr std::size_t kNetworkBytes = 8;
  constexpr std::size_t kPlaceOfIpv4 = 12;
  if (IN6_IS_ADDR_V4MAPPED(&address)) return TextOf(AF_INET, &address.s6_addr[kPlaceOfIpv4]);
  in6_addr network{};
  std::copy_n(&address.s6_addr[0], kNetworkBytes, &network.s6_addr[0]);
  return TextOf(AF_INET6, &network) + "/64";
}

AddressLimit::AddressLimit(std::size_t most, Metrics& metrics, const EventSink& events)
    : metrics_(metrics), events_(events), most_(most) {}

std::string AddressLimit::KeyOf(const sockaddr* address) {
  if (address->sa_family == AF_INET) {
    return TextOf(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr);
  }
  if (address->sa_family != AF_INET6) return "";
  return NetworkOf(reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
}

bool AddressLimit::Begin(const std::string& key) {
  if (key.empty()) return true;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = open_.find(key);
    if ((found == open_.end() ? 0 : found->second) < most_) {
      ++open_[key];
      return true;
    }
  }
  metrics_.NoteMet(Limit::kConnectionsPerAddress);
  events_.Write("connection closed: " + key + " has as many as one address may have");
  return false;
}

void AddressLimit::End(const std::string& key) {
  if (key.empty()) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = open_.find(key);
  if (--found->second == 0) open_.erase(found);
}

void AddressLimit::SetMost(std::size_t most) {
  const std::lock_guard<std::mutex> lock(mutex_);
  most_ = most;
}

std::size_t AddressLimit::largest() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::size_t largest = 0;
  for (const auto& [key, count] : open_) largest = std::max(largest, count);
  return largest;
}

}  // namespace TarvoOrvane::SupportService
