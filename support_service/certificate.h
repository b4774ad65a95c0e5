/// X.509 certificates and their keys, as the service's own authority makes and reads them: ECDSA P-256 with SHA-256, as
/// PEM texts. Functions of their arguments; any thread may call them. None leaves anything in OpenSSL's list of errors,
/// where a later connection's fault would be looked for.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ticket.h"

namespace TarvoOrvane::SupportService {

/// Gives an object back to OpenSSL.
template <auto Free>
struct OpenSslDeleter {
  template <typename Object>
  void operator()(Object* object) const {
    Free(object);
  }
};
using Certificate = std::unique_ptr<X509, OpenSslDeleter<X509_free>>;
using PrivateKey = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY_free>>;

/// What the holder of a certificate may do with it.
enum class Purpose {
  kAuthority,  ///< Sign other certificates, and no authorities below it.
  kClient,     ///< Show it as a TLS client.
  kServer      ///< Show it as a TLS server.
};

/// What stands in a certificate.
struct CertificateForm {
  Purpose purpose = Purpose::kClient;
  std::string common_name;  ///< ASCII, of any length. No character has a meaning in it.
  std::vector<std::string>
      names;       ///< Whom it is for besides: DNS names and IP addresses; none for no such list.
  WallTime begin;  ///< Counts in whole seconds, as `end` does.
  WallTime end;
};

/// Whose signature it gets.
struct Signer {
  X509* certificate = nullptr;  ///< Null for one that signs itself.
  EVP_PKEY* key = nullptr;
};

/// Makes a key from the system's random numbers.
/// @throws std::runtime_error when OpenSSL can't, with its reason. So do the others that make something.
[[nodiscard]] PrivateKey MakeKey();

/// Makes a certificate of a random serial number.
/// @param key  Its own; the public half goes into it.
/// @throws std::invalid_argument when a name is neither a DNS name nor an IP address.
[[nodiscard]] Certificate MakeCertificate(const CertificateForm& form, EVP_PKEY* key, const Signer& signer);

/// Why a server can't have the name in its certificate, to follow the name: "is no DNS name ..."; empty if it can.
[[nodiscard]] std::string ServerNameFault(const std::string& name);

/// Whether its list of names is the one that MakeCertificate() makes of these, whose order does not count.
/// @throws std::invalid_argument as MakeCertificate().
[[nodiscard]] bool IsForNames(const X509* certificate, const std::vector<std::string>& names);

/// Whether who trusts this authority alone accepts the certificate as a server's at that time; its names don't count.
[[nodiscard]] bool IsServersCertificate(X509* certificate, X509* authority, WallTime now);

/// Whether it says that it is an authority's, and is signed by its own key.
[[nodiscard]] bool IsSelfSignedAuthority(X509* certificate);

/// Whether that is the private key of the certificate.
[[nodiscard]] bool IsKeyOf(const X509* certificate, const EVP_PKEY* key);

/// The common name of its subject, byte for byte; nothing when there is none, or more than one.
[[nodiscard]] std::optional<std::string> CommonNameOf(const X509* certificate);

/// When it begins and ends to be valid; a time before 1881 or after 2147 is told as about then.
[[nodiscard]] WallTime BeginOf(const X509* certificate);
[[nodiscard]] WallTime EndOf(const X509* certificate);

[[nodiscard]] std::string ToPem(X509* certificate);
/// The key as it is, under no passphrase. The caller keeps it from others.
[[nodiscard]] std::string ToPem(EVP_PKEY* key);

/// The one certificate of a PEM text; null when it is damaged, and when there is none or more than one.
[[nodiscard]] Certificate CertificateOf(const std::string& pem);
/// The private key of a PEM text; null when there is none, when it is damaged or under a passphrase.
[[nodiscard]] PrivateKey KeyOf(const std::string& pem);

}  // namespace TarvoOrvane::SupportService
