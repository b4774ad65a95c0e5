#include "environment.h"

#include <strings.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace TarvoOrvane::Internal {
namespace {

constexpr std::string_view kPrefixes[] = {"GRPC_", "OPENSSL_", "CURL_", "CARES_", "RESOLV_"};
constexpr std::string_view kSuffixes[] = {"_PROXY"};
constexpr std::string_view kNames[] = {
    "SSLKEYLOGFILE", "SSL_CERT_FILE", "SSL_CERT_DIR", "SSL_DIR", "QLOGDIR", "LOCALDOMAIN", "HOSTALIASES",
    "RES_OPTIONS",   "CTLOG_FILE",    "NETRC",        "TZ",      "TZDIR",   "LOCPATH",     "GCONV_PATH"};

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool StartsWith(std::string_view text, std::string_view prefix) {
  return EqualsIgnoringCase(text.substr(0, prefix.size()), prefix);
}

bool EndsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && EqualsIgnoringCase(text.substr(text.size() - suffix.size()), suffix);
}

__attribute__((constructor)) void ScrubEnvironmentAtLoad() { ScrubEnvironment(); }

}  // namespace

bool SteersOurLibraries(std::string_view name) {
  for (const auto prefix : kPrefixes) {
    if (StartsWith(name, prefix)) return true;
  }
  for (const auto suffix : kSuffixes) {
    if (EndsWith(name, suffix)) return true;
  }
  for (const auto fixed : kNames) {
    if (EqualsIgnoringCase(name, fixed)) return true;
  }
  return false;
}

void ScrubEnvironment() {
  std::vector<std::string> names;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view text(*entry);
    const std::string_view name = text.substr(0, text.find('='));
    if (SteersOurLibraries(name)) names.emplace_back(name);
  }
  for (const auto& name : names) unsetenv(name.c_str());
}

}  // namespace TarvoOrvane::Internal
