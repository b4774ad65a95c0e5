#include "tls_identity.h"

#include <gnutls/x509.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <type_traits>
#include <utility>

namespace TarvoOrvane::SupportService {
namespace {

/// Far more than lead to any authority.
constexpr unsigned int kMostCertificates = 16;
/// As the longest serial numbers of devices.
constexpr std::size_t kMaxCommonNameBytes = 128;

[[noreturn]] void Refuse(const char* what, const std::filesystem::path& file, const std::string& why,
                         const char* advice) {
  throw std::runtime_error("the " + std::string(what) + " " + file.string() + " can't be used: " + why +
                           "; " + advice);
}

std::string ReadText(const char* what, const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in.is_open()) {
    Refuse(what, file, std::generic_category().message(errno), "name a file that the service can read");
  }
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

gnutls_datum_t Datum(const std::string& text) {
  return {const_cast<unsigned char*>(reinterpret_cast<const unsigned char*>(text.data())),
          static_cast<unsigned int>(text.size())};
}

using ReadCertificate =
    std::unique_ptr<std::remove_pointer_t<gnutls_x509_crt_t>, void (*)(gnutls_x509_crt_t)>;
using PublicKey = std::unique_ptr<std::remove_pointer_t<gnutls_pubkey_t>, void (*)(gnutls_pubkey_t)>;

/// Tells keys apart.
std::vector<unsigned char> IdOf(gnutls_pubkey_t key) {
  std::vector<unsigned char> id(64);
  std::size_t size = id.size();
  if (gnutls_pubkey_get_key_id(key, GNUTLS_KEYID_USE_SHA256, id.data(), &size) < 0) size = 0;
  id.resize(size);
  return id;
}

/// A name's text, where it has one that is printable ASCII.
std::optional<std::string> NameText(const gnutls_x509_ava_st& part) {
  // Of a DirectoryString's forms those of one byte per character: UTF8String, PrintableString, IA5String.
  if (part.value_tag != 12 && part.value_tag != 19 && part.value_tag != 22) return std::nullopt;
  std::string text(reinterpret_cast<const char*>(part.value.data), part.value.size);
  if (text.empty() || text.size() > kMaxCommonNameBytes) return std::nullopt;
  for (const char byte : text) {
    if (byte < 0x20 || byte > 0x7e) return std::nullopt;
  }
  return text;
}

/// The certificate's only common name. The library's own functions escape it.
std::optional<std::string> CommonName(gnutls_x509_crt_t certificate) {
  gnutls_x509_dn_t subject = nullptr;
  if (gnutls_x509_crt_get_subject(certificate, &subject) < 0) return std::nullopt;
  std::optional<std::string> name;
  int found = 0;
  gnutls_x509_ava_st part{};
  for (int i = 0; gnutls_x509_dn_get_rdn_ava(subject, i, 0, &part) == 0; ++i) {
    for (int j = 0; gnutls_x509_dn_get_rdn_ava(subject, i, j, &part) == 0; ++j) {
      const std::string type(reinterpret_cast<const char*>(part.oid.data), part.oid.size);
      if (type.substr(0, type.find('\0')) != GNUTLS_OID_X520_COMMON_NAME) continue;
      ++found;
      name = NameText(part);
    }
  }
  return found == 1 ? name : std::nullopt;
}

}  // namespace

KeyPair::KeyPair(const std::filesystem::path& certificate, const std::filesystem::path& key) {
  try {
    ReadChain(certificate);
    ReadKey(key);
    CheckThatTheyMatch(certificate, key);
  } catch (const std::exception&) {
    Free();
    throw;
  }
}

KeyPair::~KeyPair() { Free(); }

void KeyPair::Free() {
  for (gnutls_pcert_st& certificate : chain_) gnutls_pcert_deinit(&certificate);
  if (key_ != nullptr) gnutls_privkey_deinit(key_);
}

void KeyPair::ReadChain(const std::filesystem::path& file) {
  const std::string text = ReadText("certificate", file);
  const gnutls_datum_t data = Datum(text);
  std::vector<gnutls_pcert_st> chain(kMostCertificates);
  unsigned int count = kMostCertificates;
  const int result = gnutls_pcert_list_import_x509_raw(
      chain.data(), &count, &data, GNUTLS_X509_FMT_PEM,
      GNUTLS_X509_CRT_LIST_IMPORT_FAIL_IF_EXCEED | GNUTLS_X509_CRT_LIST_FAIL_IF_UNSORTED);
  if (result < 0) {
    Refuse("certificate", file, gnutls_strerror(result),
           "name a PEM file with the server's certificate first, and each followed by its issuer's");
  }
  chain.resize(count);
  chain_ = std::move(chain);
}

void KeyPair::ReadKey(const std::filesystem::path& file) {
  const std::string text = ReadText("key", file);
  const gnutls_datum_t data = Datum(text);
  gnutls_privkey_init(&key_);
  const int result = gnutls_privkey_import_x509_raw(key_, &data, GNUTLS_X509_FMT_PEM, nullptr, 0);
  if (result < 0) {
    Refuse("key", file, gnutls_strerror(result), "name a PEM file with a private key without a passphrase");
  }
}

void KeyPair::CheckThatTheyMatch(const std::filesystem::path& certificate,
                                 const std::filesystem::path& key) const {
  gnutls_pubkey_t made = nullptr;
  gnutls_pubkey_init(&made);
  const PublicKey public_key(made, &gnutls_pubkey_deinit);
  const bool is_read = gnutls_pubkey_import_privkey(made, key_, 0, 0) >= 0;
  if (is_read && !IdOf(made).empty() && IdOf(made) == IdOf(chain_.front().pubkey)) return;
  Refuse("key", key, "it is not that of the certificate " + certificate.string(),
         "name the two that belong together");
}

TlsIdentity::TlsIdentity(std::filesystem::path certificate, std::filesystem::path key, LimitedEvents events)
    : certificate_(std::move(certificate)),
      key_(std::move(key)),
      events_(std::move(events)),
      state_{StateOf(certificate_), StateOf(key_)},
      pair_(std::make_shared<KeyPair>(certificate_, key_)),
      next_look_(std::chrono::steady_clock::now() + kLookInterval) {}

TlsIdentity::FileState TlsIdentity::StateOf(const std::filesystem::path& file) {
  struct stat status {};
  if (stat(file.c_str(), &status) == -1) return {};
  return {static_cast<std::int64_t>(status.st_dev), static_cast<std::int64_t>(status.st_ino),
          static_cast<std::int64_t>(status.st_size), status.st_mtim.tv_sec, status.st_mtim.tv_nsec,
          // Also tells of a file that has become readable.
          status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

std::shared_ptr<const KeyPair> TlsIdentity::Current() {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  if (now >= next_look_) {
    next_look_ = now + kLookInterval;
    Renew();
  }
  return pair_;
}

/// Under the mutex.
void TlsIdentity::Renew() {
  // Before they are read: what changes meanwhile is seen at the next look.
  const State state = {StateOf(certificate_), StateOf(key_)};
  if (state == state_) return;
  state_ = state;
  try {
    pair_ = std::make_shared<KeyPair>(certificate_, key_);
    events_.Write("the certificate " + certificate_.string() + " was replaced, and is in use");
  } catch (const std::exception& failure) {
    events_.Write("the former certificate stays in use: " + std::string(failure.what()));
  }
}

std::string ReadAuthority(const std::filesystem::path& file) {
  std::string text = ReadText("client authority", file);
  const gnutls_datum_t data = Datum(text);
  gnutls_x509_crt_t* list = nullptr;
  unsigned int count = 0;
  const int result = gnutls_x509_crt_list_import2(&list, &count, &data, GNUTLS_X509_FMT_PEM, 0);
  if (result < 0) {
    Refuse("client authority", file, gnutls_strerror(result),
           "name a PEM file with the certificates that clients' are issued under");
  }
  for (unsigned int i = 0; i < count; ++i) gnutls_x509_crt_deinit(list[i]);
  gnutls_free(list);
  return text;
}

std::optional<std::string> VerifiedName(gnutls_session_t session) {
  unsigned int count = 0;
  const gnutls_datum_t* sent = gnutls_certificate_get_peers(session, &count);
  if (sent == nullptr || count == 0) return std::nullopt;
  std::string purpose = GNUTLS_KP_TLS_WWW_CLIENT;
  gnutls_typed_vdata_st wanted{};
  wanted.type = GNUTLS_DT_KEY_PURPOSE_OID;
  wanted.data = reinterpret_cast<unsigned char*>(purpose.data());
  unsigned int status = 0;
  if (gnutls_certificate_verify_peers(session, &wanted, 1, &status) < 0 || status != 0) return std::nullopt;
  gnutls_x509_crt_t made = nullptr;
  gnutls_x509_crt_init(&made);
  const ReadCertificate certificate(made, &gnutls_x509_crt_deinit);
  if (gnutls_x509_crt_import(made, sent, GNUTLS_X509_FMT_DER) < 0) return std::nullopt;
  return CommonName(made);
}

}  // namespace TarvoOrvane::SupportService
