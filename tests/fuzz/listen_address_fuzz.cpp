/// The addresses that the support service's options name. The resolver gets numbers only: no input reaches the net.
#include <netdb.h>

#include <cstring>
#include <stdexcept>

#include "fuzz_support.h"
#include "listen_address.h"

extern "C" {
int __real_getaddrinfo(const char* host, const char* port, const addrinfo* hints, addrinfo** found);

int __wrap_getaddrinfo(const char* host, const char* port, const addrinfo* hints, addrinfo** found) {
  addrinfo numeric = *hints;
  numeric.ai_flags |= AI_NUMERICHOST;
  return __real_getaddrinfo(host, port, &numeric, found);
}
}

namespace {

using namespace TarvoOrvane::SupportService;
using fuzz::Require;

void CheckTcp(const ListenAddress& address) {
  const auto* socket_address = reinterpret_cast<const sockaddr*>(&address.socket_address);
  const std::string text = SocketAddressText(socket_address, address.socket_address_size);
  const auto port_of = [](const std::string& any) { return std::stoul(any.substr(any.rfind(':') + 1)); };
  Require(port_of(text) == port_of(address.text), "an address has its text's port");
  const ListenAddress again = ParseListenAddress(text, false);
  Require(again.socket_address_size == address.socket_address_size &&
              std::memcmp(&again.socket_address, &address.socket_address, address.socket_address_size) == 0,
          "an address's text stands for the address");
}

void CheckUnix(const std::string& path) {
  Require(path.front() == '/' && path.size() <= 107, "a socket's path is absolute, and short enough");
  Require(fuzz::IsPrintableAscii(UnixTarget(path)), "gRPC's address of it is plain");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An argument of a command line ends at its first zero byte.
  const std::string_view input = fuzz::AsText(data, size);
  const std::string text(input.substr(0, input.find('\0')));
  for (const bool unix_allowed : {false, true}) {
    try {
      const ListenAddress address = ParseListenAddress(text, unix_allowed);
      Require(address.text == text, "an address keeps its text");
      Require(unix_allowed || address.unix_path.empty(), "a unix socket is taken only where it may be");
      address.unix_path.empty() ? CheckTcp(address) : CheckUnix(address.unix_path);
    } catch (const std::invalid_argument& refusal) {
      Require(std::string(refusal.what()).rfind("address \"" + text + "\": ", 0) == 0,
              "a refusal names the address");
    }
  }
  return 0;
}
