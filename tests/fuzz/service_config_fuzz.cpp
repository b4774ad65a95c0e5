/// The service configuration file, as the worker and the transmission child read it.
#include <curl/curl.h>

#include "daemon_fuzz.h"
#include "fuzz_support.h"
#include "transmitter_peer.h"

namespace {

using TarvoOrvane::Transmitter::DebugFileTransmitter;
using TarvoOrvane::Transmitter::DebugFileTransmitterPeer;

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& platform = fuzz::Platform();
  test_support::ScriptedPlatform::UseLogger(size % 2 == 1);
  platform.SetServiceConfig(std::string(fuzz::AsText(data, size)));
  bool url_was_set = false;
  platform.curl_easy_setopt = [&](const std::string& name) {
    url_was_set = url_was_set || name == "URL";
    return CURLE_OK;
  };
  fuzz::SetAnswers({R"({"success":true})"});

  static_cast<void>(DebugDatTransmitterDaemon().GetGrpcServerUrl());
  DebugFileTransmitter transmitter("token");
  const std::string css_url = DebugFileTransmitterPeer::GetCssServerUrl(transmitter);
  const bool updated = transmitter.UpdateResult(TarvoOrvane::Transmitter::kSuccess);
  fuzz::Require(url_was_set == !css_url.empty(), "a request is made only where the file names a server");
  fuzz::Require(updated == url_was_set, "with an address the request is made");
  return 0;
}
