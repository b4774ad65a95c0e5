#include "address_limit.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>

namespace TarvoOrvane::SupportService {

AddressLimit::AddressLimit(std::size_t most, Metrics& metrics, const EventSink& events)
    : metrics_(metrics), events_(events), most_(most) {}

std::string AddressLimit::KeyOf(const sockaddr* address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const void* bytes = nullptr;
  if (address->sa_family == AF_INET) bytes = &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
  if (address->sa_family == AF_INET6) bytes = &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
  const bool has_text =
      bytes != nullptr && inet_ntop(address->sa_family, bytes, text.data(), text.size()) != nullptr;
  return has_text ? text.data() : "";
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
