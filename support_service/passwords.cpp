#include "passwords.h"

#include <sodium.h>

#include <array>
#include <stdexcept>

#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

constexpr std::size_t kShortestPassword = 10;
constexpr std::size_t kLongestPassword = 200;

void StartLibrary() {
  static const bool started = sodium_init() >= 0;
  if (!started) throw std::runtime_error("libsodium can't be used: it finds no source of random numbers");
}

}  // namespace

std::string HashPassword(const std::string& password) {
  StartLibrary();
  std::array<char, crypto_pwhash_STRBYTES> hash{};
  if (crypto_pwhash_str(hash.data(), password.data(), password.size(), crypto_pwhash_OPSLIMIT_INTERACTIVE,
                        crypto_pwhash_MEMLIMIT_INTERACTIVE) != 0) {
    throw std::runtime_error("there is no memory to hash a password: it takes 64 MiB");
  }
  return hash.data();
}

bool IsPassword(const std::string& password, const std::string& hash) {
  StartLibrary();
  return crypto_pwhash_str_verify(hash.c_str(), password.data(), password.size()) == 0;
}

std::string PasswordFault(const std::string& password) {
  const std::size_t length = CharactersIn(password);
  if (length >= kShortestPassword && length <= kLongestPassword) return "";
  return "a password has " + std::to_string(kShortestPassword) + " to " + std::to_string(kLongestPassword) +
         " characters";
}

}  // namespace TarvoOrvane::SupportService
