#include "certificate.h"

#include <arpa/inet.h>
#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <set>
#include <sstream>
#include <stdexcept>

#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

using Bio = std::unique_ptr<BIO, OpenSslDeleter<BIO_free>>;
using Time = std::unique_ptr<ASN1_TIME, OpenSslDeleter<ASN1_TIME_free>>;
using GeneralNames = std::unique_ptr<GENERAL_NAMES, OpenSslDeleter<GENERAL_NAMES_free>>;

constexpr int kSerialNumberBits = 128;

/// Takes what OpenSSL notes during its life from OpenSSL's list of errors.
class ErrorsTaken {
 public:
  ErrorsTaken() { ERR_set_mark(); }
  ~ErrorsTaken() { ERR_pop_to_mark(); }
  ErrorsTaken(const ErrorsTaken&) = delete;
  ErrorsTaken& operator=(const ErrorsTaken&) = delete;
};

/// @param what  What was to be made, for the error's text.
void Require(bool made, const std::string& what) {
  if (made) return;
  const char* reason = ERR_reason_error_string(ERR_peek_last_error());
  throw std::runtime_error("OpenSSL cannot make " + what + ": " +
                           (reason == nullptr ? "no memory?" : reason));
}

/// 1970 and a number of days and seconds. time_t is not asked for more: where it has 32 bits, it ends in 2038.
Time Asn1TimeOf(WallTime time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
  constexpr int kSecondsOfADay = 86400;
  Time made(ASN1_TIME_adj(nullptr, 0, static_cast<int>(seconds / kSecondsOfADay),
                          static_cast<long>(seconds % kSecondsOfADay)));
  Require(made != nullptr, "a time");
  return made;
}

WallTime WallTimeOf(const ASN1_TIME* time) {
  int days = 0;
  int seconds = 0;
  Require(ASN1_TIME_diff(&days, &seconds, Asn1TimeOf(WallTime()).get(), time) == 1, "a time");
  constexpr int kMostDays = 65000;  // WallTime counts nanoseconds, and so it reaches 292 years
  return WallTime() + std::chrono::hours(24) * std::clamp(days, -kMostDays / 2, kMostDays) +
         std::chrono::seconds(seconds);
}

void SetSerialNumber(X509* certificate) {
  const std::unique_ptr<BIGNUM, OpenSslDeleter<BN_free>> number(BN_new());
  // With its top bit set it is never 0. It is positive: the encoding gets a zero byte in front.
  Require(number && BN_rand(number.get(), kSerialNumberBits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1 &&
              BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) != nullptr,
          "a certificate's serial number");
}

void SetCommonName(X509* certificate, const std::string& common_name) {
  // OpenSSL's limit of 64 characters is one of its multi-byte string types alone.
  Require(X509_NAME_add_entry_by_NID(X509_get_subject_name(certificate), NID_commonName, V_ASN1_UTF8STRING,
                                     reinterpret_cast<const unsigned char*>(common_name.data()),
                                     static_cast<int>(common_name.size()), -1, 0) == 1,
          "a certificate's common name");
}

/// @param value  As OpenSSL's configuration files write it.
void AddExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context{};
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, OpenSslDeleter<X509_EXTENSION_free>> extension(
      X509V3_EXT_conf_nid(nullptr, &context, nid, value));
  Require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "a certificate's extension");
}

/// The address as a certificate holds it, in the network's byte order; empty for what is none.
std::string AddressBytes(const std::string& name) {
  if (name.find('\0') != std::string::npos) return {};  // what stands behind it would count for nothing
  std::array<char, sizeof(in6_addr)> bytes{};
  if (inet_pton(AF_INET, name.c_str(), bytes.data()) == 1) return {bytes.data(), sizeof(in_addr)};
  if (inet_pton(AF_INET6, name.c_str(), bytes.data()) == 1) return {bytes.data(), sizeof(in6_addr)};
  return {};
}

bool IsDnsLabel(const std::string& label) {
  // An underscore belongs in no host's name, and yet some networks of containers have them there.
  return !label.empty() && label.size() <= 63 && label.front() != '-' && label.back() != '-' &&
         label.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_") ==
             std::string::npos;
}

bool IsDnsName(const std::string& name) {
  if (name.empty() || name.size() > 253 || name.back() == '.') return false;
  // An address with a mistake in it, such as 10.0.0.300. One number alone may be a host's name.
  if (name.find('.') != std::string::npos && name.find_first_not_of("0123456789.") == std::string::npos) {
    return false;
  }
  std::istringstream labels(name);
  for (std::string label; std::getline(labels, label, '.');) {
    if (!IsDnsLabel(label)) return false;
  }
  return true;
}

void AddName(GENERAL_NAMES* names, const std::string& name) {
  if (const std::string fault = ServerNameFault(name); !fault.empty()) {
    throw std::invalid_argument(Quoted(name) + " " + fault);
  }
  const std::string address = AddressBytes(name);
  const std::string& bytes = address.empty() ? name : address;
  std::unique_ptr<GENERAL_NAME, OpenSslDeleter<GENERAL_NAME_free>> entry(GENERAL_NAME_new());
  std::unique_ptr<ASN1_STRING, OpenSslDeleter<ASN1_STRING_free>> value(
      ASN1_STRING_type_new(address.empty() ? V_ASN1_IA5STRING : V_ASN1_OCTET_STRING));
  Require(entry && value && ASN1_STRING_set(value.get(), bytes.data(), static_cast<int>(bytes.size())) == 1,
          "a certificate's list of names");
  GENERAL_NAME_set0_value(entry.get(), address.empty() ? GEN_DNS : GEN_IPADD, value.release());
  Require(sk_GENERAL_NAME_push(names, entry.get()) > 0, "a certificate's list of names");
  static_cast<void>(entry.release());  // the list's now
}

/// The list that a certificate gets, in an order that does not depend on the names' own.
GeneralNames AlternativeNames(const std::vector<std::string>& names) {
  GeneralNames list(GENERAL_NAMES_new());
  Require(list != nullptr, "a certificate's list of names");
  for (const std::string& name : std::set<std::string>(names.begin(), names.end())) AddName(list.get(), name);
  return list;
}

std::string Encoded(const GENERAL_NAMES* names) {
  unsigned char* bytes = nullptr;
  const int size = i2d_GENERAL_NAMES(names, &bytes);
  const std::unique_ptr<unsigned char, void (*)(unsigned char*)> owner(
      bytes, [](unsigned char* made) { OPENSSL_free(made); });
  Require(size > 0, "a certificate's list of names");
  return {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size)};
}

void AddExtensions(X509* certificate, X509* issuer, const CertificateForm& form) {
  const auto add = [&](int nid, const char* value) { AddExtension(certificate, issuer, nid, value); };
  if (form.purpose == Purpose::kAuthority) {
    add(NID_basic_constraints, "critical,CA:TRUE,pathlen:0");
    add(NID_key_usage, "critical,keyCertSign");
  } else {
    add(NID_basic_constraints, "critical,CA:FALSE");
    add(NID_key_usage, "critical,digitalSignature");
    add(NID_ext_key_usage, form.purpose == Purpose::kServer ? "serverAuth" : "clientAuth");
  }
  add(NID_subject_key_identifier, "hash");
  add(NID_authority_key_identifier, "keyid:always");  // behind the other one: an authority's is its own
  if (form.names.empty()) return;
  const GeneralNames names = AlternativeNames(form.names);
  Require(X509_add1_ext_i2d(certificate, NID_subject_alt_name, names.get(), 0, X509V3_ADD_DEFAULT) == 1,
          "a certificate's list of names");
}

Bio OpenText(const std::string& text) {
  Bio bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  Require(bio != nullptr, "a text");
  return bio;
}

/// @param write  Whether the object was written to the BIO, which clears its memory when it goes.
template <typename Write>
std::string PemText(const Write& write) {
  const ErrorsTaken taken;
  const Bio bio(BIO_new(BIO_s_mem()));
  Require(bio && write(bio.get()), "a PEM text");
  char* data = nullptr;
  const auto size = static_cast<std::size_t>(BIO_get_mem_data(bio.get(), &data));
  return {data, size};
}

/// Answers OpenSSL's question for a passphrase: there is none, and its own question would go to the terminal.
int RefusePassphrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) { return -1; }

}  // namespace

PrivateKey MakeKey() {
  const ErrorsTaken taken;
  PrivateKey key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  Require(key != nullptr, "a private key");
  return key;
}

Certificate MakeCertificate(const CertificateForm& form, EVP_PKEY* key, const Signer& signer) {
  const ErrorsTaken taken;
  Certificate certificate(X509_new());
  X509* const made = certificate.get();
  Require(made != nullptr && X509_set_version(made, X509_VERSION_3) == 1 && X509_set_pubkey(made, key) == 1 &&
              X509_set1_notBefore(made, Asn1TimeOf(form.begin).get()) == 1 &&
              X509_set1_notAfter(made, Asn1TimeOf(form.end).get()) == 1,
          "a certificate");
  SetSerialNumber(made);
  SetCommonName(made, form.common_name);
  X509* const issuer = signer.certificate == nullptr ? made : signer.certificate;
  Require(X509_set_issuer_name(made, X509_get_subject_name(issuer)) == 1, "a certificate's issuer");
  AddExtensions(made, issuer, form);
  Require(X509_sign(made, signer.key, EVP_sha256()) > 0, "a signature");
  return certificate;
}

std::string ServerNameFault(const std::string& name) {
  if (!AddressBytes(name).empty() || IsDnsName(name)) return "";
  return "is neither a DNS name nor an IP address: write it as support.example.com, 192.0.2.1 or "
         "2001:db8::1, "
         "without port, brackets, \"*\" or a dot at its end, and letters beyond ASCII as xn--...";
}

bool IsForNames(const X509* certificate, const std::vector<std::string>& names) {
  const ErrorsTaken taken;
  const GeneralNames had(
      static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  return Encoded(AlternativeNames(names).get()) == (had ? Encoded(had.get()) : "");
}

bool IsServersCertificate(X509* certificate, X509* authority, WallTime now) {
  const ErrorsTaken taken;
  const std::unique_ptr<X509_STORE, OpenSslDeleter<X509_STORE_free>> trusted(X509_STORE_new());
  const std::unique_ptr<X509_STORE_CTX, OpenSslDeleter<X509_STORE_CTX_free>> context(X509_STORE_CTX_new());
  Require(trusted && context && X509_STORE_add_cert(trusted.get(), authority) == 1 &&
              X509_STORE_CTX_init(context.get(), trusted.get(), certificate, nullptr) == 1,
          "a check of a certificate");
  X509_STORE_CTX_set_purpose(context.get(), X509_PURPOSE_SSL_SERVER);
  X509_STORE_CTX_set_time(context.get(), 0, std::chrono::system_clock::to_time_t(now));
  return X509_verify_cert(context.get()) == 1;
}

bool IsSelfSignedAuthority(X509* certificate) {
  const ErrorsTaken taken;
  return X509_check_ca(certificate) == 1 && X509_self_signed(certificate, 1) == 1;
}

bool IsKeyOf(const X509* certificate, const EVP_PKEY* key) {
  const ErrorsTaken taken;
  return EVP_PKEY_eq(X509_get0_pubkey(certificate), key) == 1;
}

std::optional<std::string> CommonNameOf(const X509* certificate) {
  const X509_NAME* subject = X509_get_subject_name(certificate);
  const int place = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (place == -1 || X509_NAME_get_index_by_NID(subject, NID_commonName, place) != -1) return std::nullopt;
  const ASN1_STRING* name = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, place));
  const auto* bytes = reinterpret_cast<const char*>(ASN1_STRING_get0_data(name));
  return std::string(bytes, static_cast<std::size_t>(ASN1_STRING_length(name)));
}

WallTime BeginOf(const X509* certificate) { return WallTimeOf(X509_get0_notBefore(certificate)); }

WallTime EndOf(const X509* certificate) { return WallTimeOf(X509_get0_notAfter(certificate)); }

std::string ToPem(X509* certificate) {
  return PemText([certificate](BIO* bio) { return PEM_write_bio_X509(bio, certificate) == 1; });
}

std::string ToPem(EVP_PKEY* key) {
  return PemText([key](BIO* bio) {
    return PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
  });
}

Certificate CertificateOf(const std::string& pem) {
  const ErrorsTaken taken;
  const Bio bio = OpenText(pem);
  Certificate certificate(PEM_read_bio_X509(bio.get(), nullptr, RefusePassphrase, nullptr));
  const Certificate second(PEM_read_bio_X509(bio.get(), nullptr, RefusePassphrase, nullptr));
  if (second) certificate.reset();
  return certificate;
}

PrivateKey KeyOf(const std::string& pem) {
  const ErrorsTaken taken;
  return PrivateKey(PEM_read_bio_PrivateKey(OpenText(pem).get(), nullptr, RefusePassphrase, nullptr));
}

}  // namespace TarvoOrvane::SupportService
