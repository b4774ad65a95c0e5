/// The TLS files that both servers' connections use, from one folder, and the system's authorities in place of a
/// ca.pem.
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

/// Why one of the files can't be used. None of the texts quotes what is in the file.
struct TlsFault {
  std::string file;    ///< Its path.
  std::string what;    ///< What is wrong with it, to follow the path: "is empty".
  std::string advice;  ///< What to do, in the imperative: "put a PEM file there or remove it".
  int error =
      0;  ///< The errno value that `what` tells of; 0 where the fault is in what the file holds or is.
};

/// The fault on one line, as logs and error texts show it.
[[nodiscard]] std::string LineOf(const TlsFault& fault);

/// Reads and checks ca.pem, client.pem and client.key of `folder`. The worker and the transmission child call it before
/// each connection, so that renewed files need no restart. Logs nothing.
/// @param out  Set on success only.
/// @return Each fault; empty when all is well. A file that can't be used is a fault, never a reason to go on without
///         it.
[[nodiscard]] std::vector<TlsFault> LoadTlsFiles(const std::string& folder, TlsFiles& out);

/// Logs each fault as a line of its own, at LOG_ERR.
/// @return The first one's line; empty when there is none.
[[nodiscard]] std::string LogTlsFaults(const std::vector<TlsFault>& faults);

/// Reads the file of the system's authorities. It is read here rather than left to gRPC, which reads it once per
/// process and says nothing when it holds none.
/// @param out  Set to its text.
/// @return What is wrong and what to do, on one line; empty when all is well.
[[nodiscard]] std::string ReadSystemRoots(const std::string& path, std::string& out);

}  // namespace TarvoOrvane::Internal
