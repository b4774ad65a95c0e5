/// What a device is given so that it gets in: certificates and the text of its configuration.
#pragma once

#include <optional>
#include <string>

#include "authority.h"
#include "identity.h"

namespace TarvoOrvane::SupportService {

/// Everything that a device needs. Which texts there are depends on how the service knows its devices.
struct EnrolmentBundle {
  std::string configuration;               ///< For tarvomibserver.conf.
  std::optional<std::string> authority;    ///< For ca.pem: PEM.
  std::optional<Credentials> credentials;  ///< For client.pem and client.key.
};

/// Makes bundles. Any thread may use it.
class Enroller {
 public:
  /// @param trust               How the service knows its devices.
  /// @param own                 Issues their certificates; null where the service has no authority of its own.
  /// @param server_authority    What devices are to trust, as PEM; nothing where there is no TLS.
  /// @param grpc_url, css_url   Where devices reach the service.
  Enroller(Trust trust, const Authority* own, std::optional<std::string> server_authority,
           std::string grpc_url, std::string css_url);

  /// @throws std::invalid_argument when no device can have this serial number.
  [[nodiscard]] EnrolmentBundle BundleFor(const std::string& serial_number) const;
  [[nodiscard]] Trust trust() const { return trust_; }

 private:
  const Trust trust_;
  const Authority* const own_;
  const std::optional<std::string> server_authority_;
  const std::string grpc_url_;
  const std::string css_url_;
};

/// The URL with another host.
/// @param name  A host name or an IP address.
[[nodiscard]] std::string WithHost(const std::string& url, const std::string& name);

}  // namespace TarvoOrvane::SupportService
