/// Who the service is for its clients, and who clients are for it: certificates, for the TLS library below the HTTP
/// one.
#pragma once

#include <gnutls/abstract.h>
#include <gnutls/gnutls.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "event_log.h"

namespace TarvoOrvane::SupportService {

/// A certificate with those that lead to its authority, and its key. A handshake that uses it needs it until it ends.
class KeyPair {
 public:
  /// @throws std::runtime_error which file can't be used, why, and what to do.
  KeyPair(const std::filesystem::path& certificate, const std::filesystem::path& key);
  ~KeyPair();
  KeyPair(const KeyPair&) = delete;
  KeyPair& operator=(const KeyPair&) = delete;

  /// As the TLS library takes them: it changes neither.
  [[nodiscard]] gnutls_pcert_st* chain() const { return const_cast<gnutls_pcert_st*>(chain_.data()); }
  [[nodiscard]] unsigned int chain_size() const { return static_cast<unsigned int>(chain_.size()); }
  [[nodiscard]] gnutls_privkey_t key() const { return key_; }

 private:
  void ReadChain(const std::filesystem::path& file);
  void ReadKey(const std::filesystem::path& file);
  void CheckThatTheyMatch(const std::filesystem::path& certificate, const std::filesystem::path& key) const;
  void Free();

  std::vector<gnutls_pcert_st> chain_;
  gnutls_privkey_t key_ = nullptr;
};

/// The server's pair, read anew when its files change. Any thread may use it.
class TlsIdentity {
 public:
  /// @param events  Told when another pair is in use, and when changed files can't be.
  /// @throws std::runtime_error as KeyPair.
  TlsIdentity(std::filesystem::path certificate, std::filesystem::path key, LimitedEvents events);

  /// The pair for the next handshake. Looks at the files, at most once in kLookInterval. While they can't be used, as
  /// in the middle of their replacement, it is the former pair.
  [[nodiscard]] std::shared_ptr<const KeyPair> Current();

  static constexpr std::chrono::seconds kLookInterval{1};

 private:
  /// What tells one content of a file from another, without reading it; all zero where there is no file.
  using FileState = std::array<std::int64_t, 7>;
  using State = std::array<FileState, 2>;
  static FileState StateOf(const std::filesystem::path& file);
  void Renew();

  const std::filesystem::path certificate_;
  const std::filesystem::path key_;
  const LimitedEvents events_;
  std::mutex mutex_;  ///< Guards what follows.
  State state_;       ///< When the files were read last, whatever came of it.
  std::shared_ptr<const KeyPair> pair_;
  std::chrono::steady_clock::time_point next_look_;
};

/// Reads certificates of authorities.
/// @return The file's text.
/// @throws std::runtime_error why the file can't be used, and what to do.
std::string ReadAuthority(const std::filesystem::path& file);

/// As HttpRequest::certificate_name(), of the client in a session whose handshake is over. Checks signatures, which
/// takes up to a millisecond.
std::optional<std::string> VerifiedName(gnutls_session_t session);

}  // namespace TarvoOrvane::SupportService
