#include "server_identity.h"

#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace TarvoOrvane::SupportService {
namespace {

/// A third of its life is left when the certificate is renewed: there is much time for the look.
constexpr std::chrono::hours kLookPause{1};

std::string TextIn(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  std::ostringstream content;
  content << stream.rdbuf();
  std::string text = content.str();
  if (!stream || text.empty()) throw std::runtime_error(file.string() + " can't be read, or is empty");
  return text;
}

}  // namespace

ServerIdentity::ServerIdentity(IdentitySettings settings, Trust trust, bool uses_tls,
                               std::filesystem::path folder, EventSink events)
    : settings_(std::move(settings)),
      trust_(trust),
      uses_tls_(uses_tls),
      folder_(std::move(folder)),
      events_(std::move(events)) {
  const bool issues_server = uses_tls && settings_.certificate.empty();
  if (issues_server || trust_ == Trust::kOwnAuthority) {
    own_ = std::make_unique<Authority>(folder_ / "authority");
  }
  if (uses_tls) trusted_by_devices_ = issues_server ? own_->certificate() : TextIn(settings_.authority);
  if (!issues_server) return;
  KeepServerCertificate(*own_, settings_.names.empty() ? OwnNames() : settings_.names, folder_ / "server");
  thread_ = std::thread([this] { Run(); });
}

ServerIdentity::~ServerIdentity() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
    changed_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

TlsSettings ServerIdentity::ForPeople() const {
  if (!settings_.certificate.empty()) return {settings_.certificate, settings_.key, std::nullopt};
  return {folder_ / "server" / "server.pem", folder_ / "server" / "server.key", std::nullopt};
}

TlsSettings ServerIdentity::ForDevices() const {
  TlsSettings tls = ForPeople();
  if (trust_ == Trust::kOwnAuthority) tls.client_authority = folder_ / "authority" / "ca.pem";
  if (trust_ == Trust::kOtherAuthority) tls.client_authority = settings_.device_authority;
  return tls;
}

std::optional<WallTime> ServerIdentity::certificate_until() const {
  if (!trusted_by_devices_) return std::nullopt;
  std::ostringstream text;
  text << std::ifstream(ForPeople().certificate).rdbuf();
  const std::string pem = text.str();
  constexpr std::string_view kEnd = "-----END CERTIFICATE-----";
  const std::size_t end = pem.find(kEnd);  // of the first one; those behind it lead to its authority
  const Certificate own =
      end == std::string::npos ? nullptr : CertificateOf(pem.substr(0, end + kEnd.size()) + "\n");
  if (!own) return std::nullopt;
  return EndOf(own.get());
}

const Authority* ServerIdentity::device_authority() const {
  return trust_ == Trust::kOwnAuthority ? own_.get() : nullptr;
}

std::vector<std::pair<const char*, std::filesystem::path>> ServerIdentity::Certificates() const {
  std::vector<std::pair<const char*, std::filesystem::path>> files;
  if (uses_tls_) files.emplace_back("server", ForPeople().certificate);
  if (own_) files.emplace_back("own_authority", folder_ / "authority" / "ca.pem");
  if (trust_ == Trust::kOtherAuthority) files.emplace_back("device_authority", settings_.device_authority);
  return files;
}

void ServerIdentity::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!changed_.wait_for(lock, kLookPause, [this] { return ending_; })) Renew();
}

void ServerIdentity::Renew() {
  try {
    const auto names = settings_.names.empty() ? OwnNames() : settings_.names;
    if (KeepServerCertificate(*own_, names, folder_ / "server")) {
      events_("the server's certificate was issued anew");
    }
  } catch (const std::exception& failure) {
    events_(std::string("the server's certificate can't be issued anew: ") + failure.what());
  }
}

}  // namespace TarvoOrvane::SupportService
