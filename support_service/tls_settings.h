/// The files with which a listener speaks TLS.
#pragma once

#include <filesystem>
#include <optional>

namespace TarvoOrvane::SupportService {

/// Files in PEM form. The certificate and the key are read anew when they change; the authority at the start only.
struct TlsSettings {
  std::filesystem::path certificate;  ///< The server's; those that lead to its authority may follow it.
  std::filesystem::path key;          ///< The certificate's, without a passphrase.
  /// Clients are asked for certificates only with this: of the authorities that issue them. A client without a valid
  /// one can connect all the same, and has no HttpRequest::certificate_name().
  std::optional<std::filesystem::path> client_authority;
};

}  // namespace TarvoOrvane::SupportService
