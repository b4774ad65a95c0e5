/// The service's own certificate authority. Devices prove by its certificates which serial number is theirs, and trust
/// a service that shows one of them.
///
///     AUTHORITY/ca.pem, ca.key           the authority; made once, and complete from its first moment
///     SERVER/server.pem, server.key      what the service shows; issued anew in time
///
/// A certificate begins to be valid a day before it is issued, since clocks differ, and never outlasts the authority.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "certificate.h"
#include "ticket.h"

namespace TarvoOrvane::SupportService {

/// A certificate with its key, as PEM texts. The key is wiped with it. Copies of the texts are their owner's business.
struct Credentials {
  Credentials() = default;
  ~Credentials();
  Credentials(Credentials&&) = default;
  Credentials& operator=(Credentials&&) = delete;

  std::string certificate;
  std::string key;
  WallTime until;  ///< When the certificate ends to be valid.
};

/// Any thread may call it. Nothing in it changes after the constructor. `now` is the time that counts as now.
class Authority {
 public:
  /// Takes the authority in this folder, which nobody else makes or changes at the time. Makes one where the folder is
  /// missing: the folder 0700, its files 0600, valid for 30 years. A crash leaves all of it, or FOLDER.new, which
  /// counts as nothing.
  /// @throws std::runtime_error when the authority can't be used or made. The text says why, and what to do. A file of
  ///         it that is lost is such a fault: it is never replaced by another authority's.
  explicit Authority(const std::filesystem::path& folder, WallTime now = std::chrono::system_clock::now());

  /// PEM text of its own certificate, which devices are to trust.
  [[nodiscard]] const std::string& certificate() const { return certificate_text_; }

  /// Issues what a device shows as a TLS client, valid for 10 years: nobody can visit a device, and the service itself
  /// turns one away at once. Keeps nothing of it, so that the key is nowhere but at the caller.
  /// @param serial_number  Becomes the subject's common name, byte for byte, and all of the subject.
  /// @throws std::invalid_argument when that is no device's serial number.
  /// @throws std::runtime_error when the authority has expired, or OpenSSL can't.
  [[nodiscard]] Credentials IssueForDevice(const std::string& serial_number,
                                           WallTime now = std::chrono::system_clock::now()) const;

  /// Issues what a server shows, valid for a year.
  /// @param names  DNS names and IP addresses that it is reached by; at least one.
  /// @throws std::invalid_argument when there is none, or when one is neither of both.
  /// @throws std::runtime_error as IssueForDevice().
  [[nodiscard]] Credentials IssueForServer(const std::vector<std::string>& names,
                                           WallTime now = std::chrono::system_clock::now()) const;

 private:
  [[nodiscard]] Credentials Issue(CertificateForm form, std::chrono::hours life, WallTime now) const;

  std::filesystem::path certificate_path_;  ///< For the texts of faults.
  Certificate certificate_;
  PrivateKey key_;
  std::string certificate_text_;
};

/// Makes sure of FOLDER/server.pem and FOLDER/server.key (0600), and of the folder (0700). They are issued anew when
/// they are missing or can't be used, are another authority's or for other names, and when less than a third of their
/// life is left. Each file is replaced whole, the key first. Who reads both in between finds that one is not the
/// other's, and reads them again. Where the service ended in between, they are issued anew.
/// @param names  As IssueForServer() takes them; their order does not count.
/// @return Whether it was issued anew.
/// @throws std::invalid_argument and std::runtime_error as IssueForServer(), and when the files can't be written.
bool KeepServerCertificate(const Authority& authority, const std::vector<std::string>& names,
                           const std::filesystem::path& folder,
                           WallTime now = std::chrono::system_clock::now());

/// What a machine itself is reached by when nobody named anything: localhost, 127.0.0.1, ::1, and the host's name
/// unless that is none that a certificate can have.
[[nodiscard]] std::vector<std::string> OwnNames();

}  // namespace TarvoOrvane::SupportService
