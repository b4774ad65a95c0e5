/// The notification server's address, as the client library reads it.
#include <string_view>

#include "address.h"
#include "fuzz_support.h"

namespace {

using fuzz::Require;

bool BeginsWith(std::string_view text, std::string_view beginning) {
  return text.substr(0, beginning.size()) == beginning;
}

/// What gRPC takes is a URI: these characters have no other meaning there.
bool IsPlain(std::string_view target) {
  constexpr std::string_view kPunctuation = "/._-+,=~@:[]";
  for (const char c : target) {
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!letter && kPunctuation.find(c) == std::string_view::npos) return false;
  }
  return true;
}

/// From 1 to 65535, in at most five digits.
bool EndsInPort(std::string_view target) {
  const std::string_view port = target.substr(target.rfind(':') + 1);
  if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string_view::npos) {
    return false;
  }
  const int number = std::stoi(std::string(port));
  return number >= 1 && number <= 65535;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(fuzz::AsText(data, size));
  TarvoOrvane::Internal::Address address;
  std::string fault;
  if (!TarvoOrvane::Internal::ParseAddress(text, address, fault)) {
    Require(!fault.empty() && fuzz::IsPrintableAscii(fault), "a refusal is one printable line");
    return 0;
  }
  const std::string& target = address.target;
  Require(IsPlain(target), "gRPC gets no character that means something else in its addresses");
  const bool is_unix = BeginsWith(target, "unix:/");
  Require(
      is_unix || BeginsWith(target, "dns:///") || BeginsWith(target, "ipv4:") || BeginsWith(target, "ipv6:["),
      "gRPC gets an address of a known kind");
  Require(is_unix || EndsInPort(target), "gRPC gets a port");
  Require(!address.tls || !is_unix, "a unix socket is plaintext");
  Require(!address.tls || !BeginsWith(text, "http://"), "http is plaintext");
  Require(address.tls || is_unix || BeginsWith(text, "http://"), "all else is TLS");
  return 0;
}
