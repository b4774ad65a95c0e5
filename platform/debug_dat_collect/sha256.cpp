#include "sha256.h"

#include <openssl/evp.h>

#include <array>
#include <stdexcept>

#include "file_util.h"

namespace TARVO::SupportForm {
namespace {

void Check(int result) {
  if (result != 1) throw std::runtime_error("SHA-256 can't be computed");
}

}  // namespace

Sha256::Sha256()
    : algorithm_(EVP_MD_fetch(nullptr, "SHA256", nullptr), &EVP_MD_free),
      context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
  Check(EVP_DigestInit_ex2(context_.get(), algorithm_.get(), nullptr));
}

void Sha256::Add(std::string_view bytes) {
  Check(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()));
}

std::string Sha256::Finish() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> sum = {};
  unsigned length = 0;
  Check(EVP_DigestFinal_ex(context_.get(), sum.data(), &length));
  Check(EVP_DigestInit_ex2(context_.get(), nullptr, nullptr));
  return HexText(sum.data(), length);
}

}  // namespace TARVO::SupportForm
