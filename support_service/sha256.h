/// SHA-256 of what comes in pieces.
#pragma once

#include <openssl/evp.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "text_forms.h"

namespace TarvoOrvane::SupportService {

/// Used by one thread at a time.
class Sha256Digest {
 public:
  Sha256Digest() : state_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    if (!state_ || EVP_DigestInit_ex(state_.get(), EVP_sha256(), nullptr) != 1) Fail();
  }

  void Add(std::string_view bytes) {
    if (EVP_DigestUpdate(state_.get(), bytes.data(), bytes.size()) != 1) Fail();
  }

  /// The hash in lower-case hex. Nothing can be added any more.
  [[nodiscard]] std::string Hex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(state_.get(), hash.data(), &length) != 1) Fail();
    return HexText(hash.data(), length);
  }

 private:
  [[noreturn]] static void Fail() { throw std::runtime_error("cannot compute SHA-256"); }

  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> state_;
};

}  // namespace TarvoOrvane::SupportService
