/// Passwords of accounts.
#pragma once

#include <string>

namespace TarvoOrvane::SupportService {

/// Hashes a password by Argon2id, with a salt. Takes some tenths of a second and 64 MiB.
/// @throws std::runtime_error when there is no memory for it.
[[nodiscard]] std::string HashPassword(const std::string& password);

/// Whether the password is the one that was hashed. Takes as long as HashPassword().
[[nodiscard]] bool IsPassword(const std::string& password, const std::string& hash);

/// Why a password is none that an account can have; empty if it is one.
[[nodiscard]] std::string PasswordFault(const std::string& password);

}  // namespace TarvoOrvane::SupportService
