#include "authority.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "private_files.h"
#include "serial_number.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;
using Hours = std::chrono::hours;

constexpr Hours kDay{24};
constexpr Hours kYear{8766};  // 365.25 days
constexpr Hours kAuthorityLife = 30 * kYear;
constexpr Hours kDeviceLife = 10 * kYear;
constexpr Hours kServerLife = kYear;
/// How far a device's clock may be behind.
constexpr Hours kBefore = kDay;

constexpr off_t kMaxFileBytes = off_t{1} << 20;
constexpr mode_t kAnyAccessByOthers = S_IRWXG | S_IRWXO;
constexpr mode_t kChangesByOthers = S_IWGRP | S_IWOTH;

constexpr char kBeginAnew[] =
    "move the folder away: a new authority is made, and every device needs a new certificate and the new "
    "ca.pem";

std::string Restore() {
  return std::string("restore ca.pem and ca.key from a backup. Without one, ") + kBeginAnew;
}

/// A certificate and its key, as two files hold them.
struct Pair {
  Certificate certificate;
  PrivateKey key;
};

[[noreturn]] void Refuse(const fs::path& path, const std::string& what, const std::string& advice) {
  throw std::runtime_error(path.string() + " " + what + ": " + advice);
}

void Wipe(std::string& secret) { OPENSSL_cleanse(secret.data(), secret.size()); }

/// Whether there is something under this name, be it a link to nothing.
bool IsThere(const fs::path& path) { return fs::symlink_status(path).type() != fs::file_type::not_found; }

/// @param forbidden  Mode bits that it must not have.
void RequireOurs(const fs::path& path, const struct stat& status, mode_t forbidden) {
  if (status.st_uid != 0 && status.st_uid != geteuid()) {
    Refuse(path, "belongs to another user", "give it to the service's user with chown");
  }
  if ((status.st_mode & forbidden) == 0) return;
  if (forbidden == kAnyAccessByOthers) {
    Refuse(path, "is a key that other users have access to",
           std::string("close it with chmod 600, if nobody can have read it. Else ") + kBeginAnew);
  }
  Refuse(path, "may be changed by other users", "take that from them with chmod go-w");
}

/// A file that is open for reading for as long as the object lives.
class OpenedFile {
 public:
  explicit OpenedFile(fs::path path) : path_(std::move(path)) {
    // O_NONBLOCK: to open a FIFO would wait for its writer.
    fd_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd_ != -1) return;
    Refuse(path_, "can't be opened (" + std::generic_category().message(errno) + ")",
           "let the service's user read it");
  }
  ~OpenedFile() { close(fd_); }
  OpenedFile(const OpenedFile&) = delete;
  OpenedFile& operator=(const OpenedFile&) = delete;

  /// @param forbidden  Mode bits that it must not have.
  /// @return Its text, in one piece of memory: it may be a key, which is to be wiped.
  [[nodiscard]] std::string Read(mode_t forbidden) const {
    struct stat status {};
    if (fstat(fd_, &status) == -1) ThrowErrno("cannot look at " + path_.string());
    if (!S_ISREG(status.st_mode)) Refuse(path_, "is no regular file", Restore());
    RequireOurs(path_, status, forbidden);
    if (status.st_size > kMaxFileBytes) Refuse(path_, "is longer than 1 MiB", Restore());
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t size = 0;
    while (size < text.size()) {
      const ssize_t count = read(fd_, &text[size], text.size() - size);
      if (count == -1 && errno == EINTR) continue;
      if (count == -1) ThrowErrno("cannot read " + path_.string());
      if (count == 0) break;
      size += static_cast<std::size_t>(count);
    }
    text.resize(size);
    return text;
  }

 private:
  const fs::path path_;
  int fd_ = -1;
};

/// @throws std::runtime_error when they can't be used, with what is wrong and how an authority's are mended.
Pair ReadPair(const fs::path& certificate_path, const fs::path& key_path) {
  Pair pair;
  pair.certificate = CertificateOf(OpenedFile(certificate_path).Read(kChangesByOthers));
  if (!pair.certificate) {
    Refuse(certificate_path, "holds no PEM certificate, a damaged one, or more than one", Restore());
  }
  std::string key_text = OpenedFile(key_path).Read(kAnyAccessByOthers);
  pair.key = KeyOf(key_text);
  Wipe(key_text);
  if (!pair.key) Refuse(key_path, "holds no PEM private key, a damaged or an encrypted one", Restore());
  if (!IsKeyOf(pair.certificate.get(), pair.key.get())) {
    Refuse(key_path, "is not the key of " + certificate_path.filename().string(), Restore());
  }
  return pair;
}

void RequireValid(const fs::path& certificate_path, const X509* certificate, WallTime now) {
  if (now < BeginOf(certificate)) {
    Refuse(certificate_path, "is not valid before " + TimeText(BeginOf(certificate)),
           "set this machine's clock");
  }
  if (now < EndOf(certificate)) return;
  Refuse(certificate_path, "expired at " + TimeText(EndOf(certificate)),
         std::string("set this machine's clock. If that is right, ") + kBeginAnew);
}

/// Checks the folder of an authority that is there.
void RequireFolder(const fs::path& folder) {
  struct stat status {};
  if (stat(folder.c_str(), &status) == -1) ThrowErrno("cannot look at " + folder.string());
  if (!S_ISDIR(status.st_mode)) Refuse(folder, "is no folder", "move it away");
  RequireOurs(folder, status, kChangesByOthers);
}

/// Makes a self-signed certificate and its key.
void MakeAuthority(const fs::path& folder, WallTime now) {
  CertificateForm form;
  form.purpose = Purpose::kAuthority;
  // The date tells an old authority from its successor, where devices trust both for a while.
  form.common_name = "support service authority " + TimeText(now).substr(0, 10);
  form.begin = now - kBefore;
  form.end = now + kAuthorityLife;
  const PrivateKey key = MakeKey();
  const Certificate certificate = MakeCertificate(form, key.get(), {nullptr, key.get()});
  Credentials made;
  made.certificate = ToPem(certificate.get());
  made.key = ToPem(key.get());

  // The two files become the authority by one renaming, that of their folder.
  const fs::path unfinished = folder.string() + ".new";
  fs::remove_all(unfinished);
  MakePrivateFolder(unfinished);
  ReplacePrivateFile(unfinished / "ca.key", made.key);
  ReplacePrivateFile(unfinished / "ca.pem", made.certificate);
  if (rename(unfinished.c_str(), folder.c_str()) == -1) ThrowErrno("cannot make " + folder.string());
  SyncFolder(FolderOf(folder));
}

/// Whether a server may go on with these files.
bool IsGood(const Authority& authority, const std::vector<std::string>& names,
            const fs::path& certificate_path, const fs::path& key_path, WallTime now) {
  Pair pair;
  try {
    pair = ReadPair(certificate_path, key_path);
  } catch (const std::runtime_error&) {
    return false;
  }
  X509* const certificate = pair.certificate.get();
  const Certificate trusted = CertificateOf(authority.certificate());
  return IsServersCertificate(certificate, trusted.get(), now) && IsForNames(certificate, names) &&
         EndOf(certificate) - now >= (EndOf(certificate) - BeginOf(certificate)) / 3;
}

}  // namespace

Credentials::~Credentials() { Wipe(key); }

Authority::Authority(const fs::path& folder, WallTime now) : certificate_path_(folder / "ca.pem") {
  const fs::path key_path = folder / "ca.key";
  // Where the folder is, a complete authority was: an empty one may be a disk that is not mounted.
  if (!IsThere(folder)) MakeAuthority(folder, now);
  RequireFolder(folder);
  for (const fs::path& path : {certificate_path_, key_path}) {
    if (!IsThere(path)) Refuse(path, "is missing, though its folder is there", Restore());
  }
  Pair pair = ReadPair(certificate_path_, key_path);
  if (!IsSelfSignedAuthority(pair.certificate.get())) {
    Refuse(certificate_path_, "is no self-signed certificate of an authority", Restore());
  }
  RequireValid(certificate_path_, pair.certificate.get(), now);
  certificate_ = std::move(pair.certificate);
  key_ = std::move(pair.key);
  certificate_text_ = ToPem(certificate_.get());
}

Credentials Authority::IssueForDevice(const std::string& serial_number, WallTime now) const {
  if (const std::string fault = SerialFault(serial_number); !fault.empty()) {
    throw std::invalid_argument(fault + ": name 1 to 128 characters of printable ASCII");
  }
  CertificateForm form;
  form.purpose = Purpose::kClient;
  form.common_name = serial_number;
  return Issue(std::move(form), kDeviceLife, now);
}

Credentials Authority::IssueForServer(const std::vector<std::string>& names, WallTime now) const {
  if (names.empty()) {
    throw std::invalid_argument("a server's certificate needs a name: give a DNS name or an IP address");
  }
  CertificateForm form;
  form.purpose = Purpose::kServer;
  form.common_name = "support service";
  form.names = names;
  return Issue(std::move(form), kServerLife, now);
}

Credentials Authority::Issue(CertificateForm form, Hours life, WallTime now) const {
  RequireValid(certificate_path_, certificate_.get(), now);
  form.begin = now - kBefore;
  form.end = std::min(now + life, EndOf(certificate_.get()));
  const PrivateKey key = MakeKey();
  const Certificate certificate = MakeCertificate(form, key.get(), {certificate_.get(), key_.get()});
  Credentials issued;
  issued.certificate = ToPem(certificate.get());
  issued.key = ToPem(key.get());
  issued.until = EndOf(certificate.get());
  return issued;
}

bool KeepServerCertificate(const Authority& authority, const std::vector<std::string>& names,
                           const fs::path& folder, WallTime now) {
  MakePrivateFolder(folder);
  const fs::path certificate_path = folder / "server.pem";
  const fs::path key_path = folder / "server.key";
  if (IsGood(authority, names, certificate_path, key_path, now)) return false;
  const Credentials issued = authority.IssueForServer(names, now);
  ReplacePrivateFile(key_path, issued.key);
  ReplacePrivateFile(certificate_path, issued.certificate);
  return true;
}

std::vector<std::string> OwnNames() {
  std::vector<std::string> names = {"localhost", "127.0.0.1", "::1"};
  std::array<char, 256> host{};
  // A name that is cut has no end there.
  if (gethostname(host.data(), host.size() - 1) == -1) return names;
  const std::string name = host.data();
  const bool is_new = std::find(names.begin(), names.end(), name) == names.end();
  if (is_new && ServerNameFault(name).empty()) names.push_back(name);
  return names;
}

}  // namespace TarvoOrvane::SupportService
