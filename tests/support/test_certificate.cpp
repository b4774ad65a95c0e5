#include "test_certificate.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace TarvoOrvane::Testing {
namespace {

void AddExtension(X509* certificate, int nid, const char* value) {
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, nid, value);
  if (extension == nullptr) throw std::runtime_error("X509V3_EXT_conf_nid failed");
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

template <typename Writer>
std::string ToPem(const Writer& write) {
  const std::unique_ptr<BIO, int (*)(BIO*)> memory(BIO_new(BIO_s_mem()), &BIO_free);
  write(memory.get());
  char* data = nullptr;
  const auto size = static_cast<std::size_t>(BIO_get_mem_data(memory.get(), &data));
  return {data, size};
}

std::unique_ptr<BIO, int (*)(BIO*)> OpenText(const std::string& text) {
  return {BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), &BIO_free};
}

using OwnedKey = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;
using OwnedCertificate = std::unique_ptr<X509, void (*)(X509*)>;

OwnedKey MakeKey() { return {EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), &EVP_PKEY_free}; }

OwnedCertificate MakeUnsigned(const Validity& validity, EVP_PKEY* key) {
  OwnedCertificate certificate(X509_new(), &X509_free);
  X509_set_version(certificate.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), validity.begin);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), validity.end);
  X509_set_pubkey(certificate.get(), key);
  return certificate;
}

TestCertificate Signed(X509* certificate, EVP_PKEY* key, EVP_PKEY* issuer_key) {
  if (X509_sign(certificate, issuer_key, EVP_sha256()) == 0) throw std::runtime_error("X509_sign failed");
  TestCertificate result;
  result.certificate = CertificateText(certificate);
  result.key =
      ToPem([&](BIO* out) { PEM_write_bio_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr); });
  return result;
}

}  // namespace

TestCertificate MakeTestCertificate(const Validity& validity, const std::string& subject,
                                    const std::string& names) {
  const OwnedKey key = MakeKey();
  const OwnedCertificate certificate = MakeUnsigned(validity, key.get());
  X509_NAME* name = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(subject.c_str()), -1, -1, 0);
  X509_set_issuer_name(certificate.get(), name);
  AddExtension(certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(certificate.get(), NID_subject_alt_name, names.c_str());
  return Signed(certificate.get(), key.get(), key.get());
}

TestCertificate IssueTestCertificate(const TestCertificate& issuer, const CertificateWish& wish) {
  const OwnedKey key = MakeKey();
  const OwnedCertificate certificate = MakeUnsigned(wish.validity, key.get());
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  // An ASN.1 type rather than an encoding: names then have no rules.
  for (const std::string& name : wish.common_names) {
    X509_NAME_add_entry_by_txt(subject, "CN", V_ASN1_UTF8STRING,
                               reinterpret_cast<const unsigned char*>(name.data()),
                               static_cast<int>(name.size()), -1, 0);
  }
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(ParseCertificate(issuer.certificate).get()));
  AddExtension(certificate.get(), NID_basic_constraints, "critical,CA:FALSE");
  if (!wish.purpose.empty()) AddExtension(certificate.get(), NID_ext_key_usage, wish.purpose.c_str());
  if (!wish.names.empty()) AddExtension(certificate.get(), NID_subject_alt_name, wish.names.c_str());
  return Signed(certificate.get(), key.get(), ParseKey(issuer.key).get());
}

std::unique_ptr<X509, void (*)(X509*)> ParseCertificate(const std::string& pem) {
  return {PEM_read_bio_X509(OpenText(pem).get(), nullptr, nullptr, nullptr), &X509_free};
}

std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> ParseKey(const std::string& pem) {
  return {PEM_read_bio_PrivateKey(OpenText(pem).get(), nullptr, nullptr, nullptr), &EVP_PKEY_free};
}

std::string CertificateText(X509* certificate) {
  return ToPem([certificate](BIO* out) { PEM_write_bio_X509(out, certificate); });
}

std::string EncryptKey(const std::string& key) {
  return ToPem([parsed = ParseKey(key)](BIO* out) {
    PEM_write_bio_PKCS8PrivateKey(out, parsed.get(), EVP_aes_128_cbc(), "passphrase", 10, nullptr, nullptr);
  });
}

std::string HashedName(const std::string& certificate) {
  char name[16];
  static_cast<void>(std::snprintf(name, sizeof name, "%08lx.0",
                                  X509_subject_name_hash(ParseCertificate(certificate).get())));
  return name;
}

}  // namespace TarvoOrvane::Testing
