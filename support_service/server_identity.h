/// Who the service is for those who connect, and by which authority it knows devices.
#pragma once

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "authority.h"
#include "event_log.h"
#include "identity.h"
#include "tls_settings.h"

namespace TarvoOrvane::SupportService {

/// Where certificates come from. Empty paths and nothing else: all of them are the service's own business.
struct IdentitySettings {
  /// DNS names and addresses by which devices and people reach the service, the one for devices' configuration first.
  /// Empty: those of this machine.
  std::vector<std::string> names;
  // The server's certificate with its key, and the authority that devices trust for it. All three or none.
  std::filesystem::path certificate;
  std::filesystem::path key;
  std::filesystem::path authority;
  /// For Trust::kOtherAuthority: PEM, who issues devices' certificates.
  std::filesystem::path device_authority;
};

/// Holds the service's own authority where one is needed, and keeps the certificate that it has issued for the service
/// fresh, in a thread of its own.
class ServerIdentity {
 public:
  /// @param folder    For the own authority and what it issues; its parent folder exists.
  /// @param uses_tls  Whether any listener does.
  /// @throws std::runtime_error what can't be used, and what to do.
  ServerIdentity(IdentitySettings settings, Trust trust, bool uses_tls, std::filesystem::path folder,
                 EventSink events);
  ~ServerIdentity();
  ServerIdentity(const ServerIdentity&) = delete;
  ServerIdentity& operator=(const ServerIdentity&) = delete;

  /// For a listener that speaks TLS with people.
  [[nodiscard]] TlsSettings ForPeople() const;
  /// For one that speaks TLS with devices: their certificates are asked for unless they are believed without.
  [[nodiscard]] TlsSettings ForDevices() const;
  /// Whether any listener speaks TLS.
  [[nodiscard]] bool uses_tls() const { return uses_tls_; }
  /// The end of the server's present certificate; nothing where no listener speaks TLS, or where it can't be read.
  [[nodiscard]] std::optional<WallTime> certificate_until() const;
  /// Issues devices' certificates; null where another authority does, or nobody.
  [[nodiscard]] const Authority* device_authority() const;
  /// The certificates that the service needs, by what they are for: PEM files, of each of which the first counts.
  [[nodiscard]] std::vector<std::pair<const char*, std::filesystem::path>> Certificates() const;
  /// What devices are to trust, as PEM; nothing where no listener speaks TLS.
  [[nodiscard]] std::optional<std::string> trusted_by_devices() const { return trusted_by_devices_; }

 private:
  void Run();
  void Renew();

  const IdentitySettings settings_;
  const Trust trust_;
  const bool uses_tls_;
  const std::filesystem::path folder_;
  const EventSink events_;
  std::unique_ptr<const Authority> own_;  ///< Null where it is not needed.
  std::optional<std::string> trusted_by_devices_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool ending_ = false;  ///< Guarded by mutex_.
  std::thread thread_;   ///< Runs where the own authority has issued the server's certificate.
};

}  // namespace TarvoOrvane::SupportService
