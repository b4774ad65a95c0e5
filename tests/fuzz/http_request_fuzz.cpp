/// Any bytes at the support service's HTTP port. "@TOKEN@" stands for the token of a ticket; the byte 0x1E tells where
/// the network cuts the rest.
#include "in_process_css.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static fuzz::InProcessCss css;
  const std::string kPlaceholder = "@TOKEN@";
  std::string request(fuzz::AsText(data, size));
  const std::string token = css.Token();
  for (std::size_t at = 0; (at = request.find(kPlaceholder, at)) != std::string::npos; at += token.size()) {
    request.replace(at, kPlaceholder.size(), token);
  }
  static_cast<void>(css.Send(fuzz::Records(request)));
  return 0;
}
