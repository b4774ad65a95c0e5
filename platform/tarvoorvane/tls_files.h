/// The TLS files that both servers' connections use, from one folder.
#pragma once

#include <string>
#include <vector>

namespace TarvoOrvane::Internal {

/// Where the files lie on a device. All of them are optional.
inline constexpr const char* kTlsFolder = "/usr/tarvo/etc/tls";

/// What the files of one folder hold, as it was when they were read.
struct TlsFiles {
  std::string authorities;         ///< PEM text of ca.pem; empty when there is none: the system's roots then.
  std::string client_certificate;  ///< PEM text of client.pem; empty when there is none.
  std::string client_key;          ///< PEM text of client.key; present exactly when client_certificate is.
};

/// Reads and checks ca.pem, client.pem and client.key of `folder`.
/// @param out  Set on success only.
/// @return One line for each problem, naming the file, what is wrong with it and what to do; empty when all is
///         well. A file that can't be used is a problem, never a reason to go on without it.
[[nodiscard]] std::vector<std::string> LoadTlsFiles(const std::string& folder, TlsFiles& out);

}  // namespace TarvoOrvane::Internal
