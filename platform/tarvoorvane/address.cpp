#include "address.h"

#include <arpa/inet.h>
#include <sys/un.h>

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "library_log.h"

namespace TarvoOrvane::Internal {
namespace {

constexpr char kAcceptedForms[] =
    "; accepted are http://HOST:PORT (plaintext), https://HOST[:PORT], HOST:PORT (TLS), unix:/PATH";
constexpr char kHttpsPort[] = "443";
constexpr char kAlphanumeric[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
constexpr std::size_t kMaxHostName = 253;  // both as the name system has them
constexpr std::size_t kMaxLabel = 63;

bool ConsistsOf(std::string_view text, const std::string& allowed) {
  return text.find_first_not_of(allowed) == std::string_view::npos;
}

bool TakePrefix(std::string_view& text, std::string_view prefix) {
  if (text.substr(0, prefix.size()) != prefix) return false;
  text.remove_prefix(prefix.size());
  return true;
}

std::string Quoted(std::string_view text) { return "\"" + MakePrintable(text, 40) + "\""; }

bool IsPort(std::string_view text) {
  if (text.empty() || text.size() > 5 || !ConsistsOf(text, "0123456789")) return false;
  const int port = std::stoi(std::string(text));
  return port >= 1 && port <= 65535;
}

bool IsLabel(std::string_view label) {
  return !label.empty() && label.size() <= kMaxLabel && label.front() != '-' && label.back() != '-' &&
         ConsistsOf(label, std::string(kAlphanumeric) + "-_");
}

bool IsHostName(std::string_view host) {
  if (!host.empty() && host.back() == '.') host.remove_suffix(1);
  if (host.size() > kMaxHostName) return false;
  for (std::size_t dot = host.find('.'); dot != std::string_view::npos; dot = host.find('.')) {
    if (!IsLabel(host.substr(0, dot))) return false;
    host.remove_prefix(dot + 1);
  }
  // A last label of digits alone is a mistyped IPv4 address: no top-level domain looks so.
  return IsLabel(host) && !ConsistsOf(host, "0123456789");
}

bool IsIp(int family, const std::string& host) {
  unsigned char address[sizeof(in6_addr)];
  // inet_pton() sees nothing behind a NUL byte.
  return host.find('\0') == std::string::npos && inet_pton(family, host.c_str(), address) == 1;
}

/// What a text of the form HOST[:PORT] holds, not judged yet.
struct HostAndPort {
  std::string host;  ///< Without brackets.
  bool bracketed = false;
  std::optional<std::string> port;  ///< What follows the colon, be it nothing; none without a colon.
};

bool SplitHostAndPort(std::string_view text, HostAndPort& out, std::string& fault) {
  out.bracketed = TakePrefix(text, "[");
  const std::size_t host_end = text.find(out.bracketed ? ']' : ':');
  if (out.bracketed && host_end == std::string_view::npos) {
    fault = "the closing bracket of the IPv6 address is missing";
    return false;
  }
  out.host = text.substr(0, host_end);
  text.remove_prefix(std::min(text.size(), out.host.size() + (out.bracketed ? 1 : 0)));
  if (text.empty()) return true;
  if (!TakePrefix(text, ":")) {
    fault = Quoted(text) + " after the host is not understood";
    return false;
  }
  if (!out.bracketed && text.find(':') != std::string_view::npos) {
    fault = "an IPv6 address needs brackets, as in [2001:db8::1]:50051";
    return false;
  }
  out.port = text;
  return true;
}

/// Takes the host, and tells gRPC which kind it is.
bool TakeHost(const HostAndPort& parts, const std::string& port, Address& out, std::string& fault) {
  const std::string& host = parts.host;
  if (parts.bracketed) {
    if (!IsIp(AF_INET6, host)) {
      fault = Quoted(host) + " is no IPv6 address";
      return false;
    }
    out.target = "ipv6:[" + host + "]:" + port;
  } else if (IsIp(AF_INET, host)) {
    out.target = "ipv4:" + host + ":" + port;
  } else if (IsHostName(host)) {
    out.target = "dns:///" + host + ":" + port;
  } else {
    fault = host.empty() ? "the host is missing" : Quoted(host) + " is neither a host name nor an IP address";
    return false;
  }
  out.host = host;
  return true;
}

bool ParseHostAndPort(std::string_view text, const std::string& default_port, Address& out,
                      std::string& fault) {
  if (text.find('@') != std::string_view::npos) {
    // Not quoted: what stands before the @ may be a password.
    fault = "user names are not supported";
    return false;
  }
  HostAndPort parts;
  if (!SplitHostAndPort(text, parts, fault)) return false;
  const std::string port = parts.port.value_or(default_port);
  if (port.empty()) {
    fault = "the port is missing";
    return false;
  }
  if (!IsPort(port)) {
    fault = "the port " + Quoted(port) + " is no number from 1 to 65535";
    return false;
  }
  out.port = static_cast<std::uint16_t>(std::stoi(port));
  return TakeHost(parts, port, out, fault);
}

bool ParseUnixPath(std::string_view path, Address& out, std::string& fault) {
  if (path.empty() || path.front() != '/') {
    fault = "the path of a unix socket must be absolute";
  } else if (path.size() >= sizeof(sockaddr_un::sun_path)) {
    fault = "the path of the unix socket is longer than 107 bytes";
  } else if (!ConsistsOf(path, std::string(kAlphanumeric) + "/._-+,=~@:")) {
    // gRPC reads the path as part of a URI, in which %, ? and # would mean something else.
    fault = "the path of the unix socket has a character that is not supported";
  } else {
    out.socket_path = path;
    out.target = "unix:" + out.socket_path;
    return true;
  }
  return false;
}

bool Parse(std::string_view text, Address& out, std::string& fault) {
  if (text.empty()) {
    fault = "it is empty";
    return false;
  }
  if (TakePrefix(text, "unix:")) return ParseUnixPath(text, out, fault);
  if (TakePrefix(text, "http://")) return ParseHostAndPort(text, "", out, fault);
  out.tls = true;
  if (TakePrefix(text, "https://")) return ParseHostAndPort(text, kHttpsPort, out, fault);
  if (const std::size_t scheme = text.find("://"); scheme != std::string_view::npos) {
    fault = "the scheme " + Quoted(text.substr(0, scheme)) + " is not supported";
    return false;
  }
  return ParseHostAndPort(text, "", out, fault);
}

}  // namespace

bool ParseAddress(const std::string& text, Address& out, std::string& fault) {
  Address address;
  if (Parse(text, address, fault)) {
    out = std::move(address);
    return true;
  }
  fault = "The address of the notification server can't be used: " + fault + kAcceptedForms;
  return false;
}

}  // namespace TarvoOrvane::Internal
