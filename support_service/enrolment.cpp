#include "enrolment.h"

#include <stdexcept>
#include <utility>

#include "serial_number.h"

namespace TarvoOrvane::SupportService {

Enroller::Enroller(Trust trust, const Authority* own, std::optional<std::string> server_authority,
                   std::string grpc_url, std::string css_url)
    : trust_(trust),
      own_(own),
      server_authority_(std::move(server_authority)),
      grpc_url_(std::move(grpc_url)),
      css_url_(std::move(css_url)) {}

EnrolmentBundle Enroller::BundleFor(const std::string& serial_number) const {
  if (const std::string fault = SerialFault(serial_number); !fault.empty()) {
    throw std::invalid_argument(fault);
  }
  EnrolmentBundle bundle;
  bundle.configuration = "{\n  \"debug_dat_file_transmitter\": {\n    \"grpc_server\": {\"url\": \"" +
                         grpc_url_ + "\"},\n    \"css_server\": {\"url\": \"" + css_url_ + "\"}\n  }\n}\n";
  bundle.authority = server_authority_;
  if (trust_ == Trust::kOwnAuthority && own_ != nullptr) {
    bundle.credentials.emplace(own_->IssueForDevice(serial_number));
  }
  return bundle;
}

std::string WithHost(const std::string& url, const std::string& name) {
  const std::size_t start = url.find("://");
  const std::size_t port = url.rfind(':');
  if (start == std::string::npos || port <= start) return url;  // a unix socket
  const bool is_v6 = name.find(':') != std::string::npos;
  return url.substr(0, start + 3) + (is_v6 ? "[" + name + "]" : name) + url.substr(port);
}

}  // namespace TarvoOrvane::SupportService
