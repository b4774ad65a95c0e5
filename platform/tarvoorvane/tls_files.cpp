#include "tls_files.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <system_error>
#include <utility>

#include "library_log.h"
#include "scoped_fd.h"

namespace TarvoOrvane::Internal {
namespace {

/// Far more than a system's whole list of roots (about 220 KiB).
constexpr std::size_t kMaxFileBytes = 1UL << 20;

constexpr mode_t kWritableByOthers = S_IWGRP | S_IWOTH;
constexpr mode_t kAnyAccessByOthers = S_IRWXG | S_IRWXO;

using Faults = std::vector<TlsFault>;
using Certificate = std::unique_ptr<X509, void (*)(X509*)>;
using Key = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;
using MemoryBio = std::unique_ptr<BIO, int (*)(BIO*)>;

std::string ErrorText(int error) { return std::generic_category().message(error); }

/// Whether there is something under this name, be it a link to nothing.
bool IsThere(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 || (errno != ENOENT);
}

/// What is wrong with the open file itself, if anything is.
std::optional<TlsFault> FaultOfFile(const std::string& path, int fd, mode_t forbidden) {
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    const int error = errno;
    return TlsFault{path, "can't be read (" + ErrorText(error) + ")", "put a readable file there", error};
  }
  if (!S_ISREG(status.st_mode)) return TlsFault{path, "is no regular file", "put a PEM file there"};
  if (status.st_uid != 0 && status.st_uid != geteuid()) {
    return TlsFault{path, "belongs to a user who is neither root nor the one who runs this",
                    "change its owner to root"};
  }
  if ((status.st_mode & forbidden) == 0) return std::nullopt;
  return forbidden == kAnyAccessByOthers
             ? TlsFault{path, "holds a secret that other users have access to", "set its mode to 0600"}
             : TlsFault{path, "may be changed by other users", "set its mode to 0644"};
}

/// Reads to the end.
/// @return Whether all of it was read; errno tells why not, EFBIG for a file beyond kMaxFileBytes.
bool ReadAll(int fd, std::string& text) {
  char chunk[16384];
  ssize_t count = 0;
  while ((count = TEMP_FAILURE_RETRY(read(fd, chunk, sizeof chunk))) > 0) {
    text.append(chunk, static_cast<std::size_t>(count));
    if (text.size() <= kMaxFileBytes) continue;
    errno = EFBIG;
    return false;
  }
  return count == 0;
}

/// Reads one file that is there.
/// @param forbidden  Mode bits that it must not have.
/// @return Its text; empty after a fault was noted.
std::string ReadFile(const std::string& path, mode_t forbidden, Faults& faults) {
  // O_NONBLOCK: to open a FIFO would wait for its writer.
  const ScopedFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  std::string text;
  if (!file) {
    const int error = errno;
    faults.push_back(
        {path, "can't be opened (" + ErrorText(error) + ")", "make it readable or remove it", error});
  } else if (auto fault = FaultOfFile(path, file.get(), forbidden)) {
    faults.push_back(*std::move(fault));
  } else if (!ReadAll(file.get(), text)) {
    const int error = errno;
    faults.push_back({path, "can't be read (" + ErrorText(error) + ")",
                      "put a PEM file of at most " + std::to_string(kMaxFileBytes) + " bytes there", error});
    text.clear();
  } else if (text.empty()) {
    faults.push_back({path, "is empty", "put a PEM file there or remove it"});
  }
  return text;
}

MemoryBio OpenText(const std::string& text) {
  return {BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), &BIO_free};
}

/// The text's certificates in their order.
/// @return false when one of them is damaged or there is none.
bool ParseCertificates(const std::string& text, std::vector<Certificate>& certificates) {
  const MemoryBio bio = OpenText(text);
  while (X509* certificate = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
    certificates.emplace_back(certificate, &X509_free);
  }
  return !certificates.empty() && ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
}

std::string TimeText(const ASN1_TIME* time) {
  tm fields{};
  char text[32] = "a time that can't be read";
  if (ASN1_TIME_to_tm(time, &fields) == 1) {
    static_cast<void>(strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &fields));
  }
  return text;
}

/// Why the certificate is not valid now; empty when it is.
std::string FaultOfValidity(const X509* certificate) {
  const ASN1_TIME* begin = X509_get0_notBefore(certificate);
  const ASN1_TIME* end = X509_get0_notAfter(certificate);
  if (X509_cmp_current_time(begin) >= 0) return "not valid before " + TimeText(begin);
  if (X509_cmp_current_time(end) <= 0) return "expired on " + TimeText(end);
  return {};
}

constexpr char kNoCertificate[] = "holds no PEM certificate or a damaged one";

void CheckAuthorities(const std::string& path, const std::string& text, Faults& faults) {
  std::vector<Certificate> certificates;
  if (!ParseCertificates(text, certificates)) {
    faults.push_back({path, kNoCertificate,
                      "put the authorities' certificates there, or remove the file to trust the system's"});
    return;
  }
  // One that is valid is enough: an old authority may stay in the file while its successor takes over.
  const auto is_valid = [](const Certificate& one) { return FaultOfValidity(one.get()).empty(); };
  if (std::none_of(certificates.begin(), certificates.end(), is_valid)) {
    faults.push_back({path,
                      "none of its certificates is valid now (the first is " +
                          FaultOfValidity(certificates.front().get()) + ")",
                      "renew them, or set the device's clock"});
  }
}

/// The first certificate of client.pem, which is the device's own; null after a fault was noted.
Certificate CheckClientCertificate(const std::string& path, const std::string& text, Faults& faults) {
  std::vector<Certificate> chain;
  if (!ParseCertificates(text, chain)) {
    faults.push_back({path, kNoCertificate,
                      "put the device's certificate there, then those between it and its authority"});
    return {nullptr, &X509_free};
  }
  if (const std::string fault = FaultOfValidity(chain.front().get()); !fault.empty()) {
    faults.push_back({path, "the certificate is " + fault, "renew it, or set the device's clock"});
  }
  return std::move(chain.front());
}

/// Answers OpenSSL's question for a passphrase: there is none, and its own question would go to the terminal.
int RefusePassphrase(char*, int, int, void* asked) {
  *static_cast<bool*>(asked) = true;
  return -1;
}

/// The private key; null after a fault was noted.
Key CheckClientKey(const std::string& path, const std::string& text, Faults& faults) {
  bool encrypted = false;
  Key key(PEM_read_bio_PrivateKey(OpenText(text).get(), nullptr, &RefusePassphrase, &encrypted),
          &EVP_PKEY_free);
  if (encrypted) {
    faults.push_back({path, "is encrypted, and nobody is there to be asked for the passphrase",
                      "store the key without one (openssl pkey -in OLD -out NEW)"});
  } else if (!key) {
    faults.push_back({path, "holds no PEM private key or a damaged one", "put the key of client.pem there"});
  }
  return key;
}

/// Reads and checks client.pem with client.key, at least one of which is there.
void LoadClientFiles(const std::string& folder, TlsFiles& files, Faults& faults) {
  const std::string certificate_path = folder + "/client.pem";
  const std::string key_path = folder + "/client.key";
  if (!IsThere(key_path)) {
    faults.push_back({key_path, "is missing, though there is client.pem",
                      "put its private key there, or remove client.pem"});
    return;
  }
  if (!IsThere(certificate_path)) {
    faults.push_back({certificate_path, "is missing, though there is client.key",
                      "put the key's certificate there, or remove client.key"});
    return;
  }
  files.client_certificate = ReadFile(certificate_path, kWritableByOthers, faults);
  files.client_key = ReadFile(key_path, kAnyAccessByOthers, faults);
  if (files.client_certificate.empty() || files.client_key.empty()) return;

  const Certificate certificate = CheckClientCertificate(certificate_path, files.client_certificate, faults);
  const Key key = CheckClientKey(key_path, files.client_key, faults);
  if (certificate && key && X509_check_private_key(certificate.get(), key.get()) != 1) {
    faults.push_back({key_path, "is not the key of the first certificate in client.pem",
                      "put the device's own certificate first, and its key here"});
  }
}

}  // namespace

std::string LineOf(const TlsFault& fault) { return fault.file + ": " + fault.what + "; " + fault.advice; }

std::vector<TlsFault> LoadTlsFiles(const std::string& folder, TlsFiles& out) {
  // What OpenSSL notes about a bad file must not pass for the fault of a later connection.
  ERR_set_mark();
  Faults faults;
  TlsFiles files;
  const std::string authorities_path = folder + "/ca.pem";
  if (IsThere(authorities_path)) {
    files.authorities = ReadFile(authorities_path, kWritableByOthers, faults);
    if (!files.authorities.empty()) CheckAuthorities(authorities_path, files.authorities, faults);
  }
  if (IsThere(folder + "/client.pem") || IsThere(folder + "/client.key")) {
    LoadClientFiles(folder, files, faults);
  }
  ERR_pop_to_mark();
  if (faults.empty()) out = std::move(files);
  return faults;
}

std::string LogTlsFaults(const std::vector<TlsFault>& faults) {
  for (const TlsFault& fault : faults) LogLine(LOG_ERR, LineOf(fault));
  return faults.empty() ? "" : LineOf(faults.front());
}

std::string ReadSystemRoots(const std::string& path, std::string& out) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return path + " can't be read: " + ErrorText(errno) +
           "; install ca-certificates, or put the service's authority into ca.pem";
  }
  std::ostringstream text;
  text << file.rdbuf();
  out = text.str();
  if (out.find("-----BEGIN CERTIFICATE-----") != std::string::npos) return {};
  return path + " holds no certificate; install ca-certificates";
}

}  // namespace TarvoOrvane::Internal
