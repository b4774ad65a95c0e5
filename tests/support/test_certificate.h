#pragma once

#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

namespace TarvoOrvane::Testing {

/// A self-signed certificate, as PEM texts.
struct TestCertificate {
  std::string certificate;
  std::string key;
};

/// When it is valid, in seconds from now.
struct Validity {
  long begin = -3600;
  long end = 86400;
};

/// @param names  Whom it is for, as OpenSSL writes alternative names.
TestCertificate MakeTestCertificate(const Validity& validity = {}, const std::string& subject = "localhost",
                                    const std::string& names = "DNS:localhost,IP:127.0.0.1");

/// What an issued certificate says.
struct CertificateWish {
  std::vector<std::string> common_names = {"SN1"};  ///< Whatever bytes are in them, and how many.
  std::string purpose = "clientAuth";               ///< As OpenSSL writes it; empty for none.
  std::string names;                                ///< As MakeTestCertificate()'s; empty for none.
  Validity validity;
};

/// A certificate of another's making. Its issuer need not be an authority.
/// @param issuer  Such as MakeTestCertificate() makes.
TestCertificate IssueTestCertificate(const TestCertificate& issuer, const CertificateWish& wish = {});

std::unique_ptr<X509, void (*)(X509*)> ParseCertificate(const std::string& pem);
std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> ParseKey(const std::string& pem);
std::string CertificateText(X509* certificate);

/// The same key, encrypted under a passphrase.
std::string EncryptKey(const std::string& key);

/// The name under which OpenSSL finds the certificate in a folder of trusted ones.
std::string HashedName(const std::string& certificate);

}  // namespace TarvoOrvane::Testing
