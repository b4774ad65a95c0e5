#include "ticket_memory.h"

#include <openssl/sha.h>

#include <algorithm>

namespace TarvoOrvane::Internal {
namespace {

std::string Hash(const std::string& id) {
  std::string hash(SHA256_DIGEST_LENGTH, '\0');
  SHA256(reinterpret_cast<const unsigned char*>(id.data()), id.size(),
         reinterpret_cast<unsigned char*>(hash.data()));
  return hash;
}

}  // namespace

void TicketMemory::Add(const std::string& id) {
  if (id.empty()) return;
  const std::string hash = Hash(id);
  hashes_.erase(std::remove(hashes_.begin(), hashes_.end(), hash), hashes_.end());
  hashes_.push_back(hash);
  if (hashes_.size() > kCapacity) hashes_.pop_front();
}

bool TicketMemory::Contains(const std::string& id) const {
  return std::find(hashes_.begin(), hashes_.end(), Hash(id)) != hashes_.end();
}

}  // namespace TarvoOrvane::Internal
