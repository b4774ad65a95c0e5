/// What the CSS server answers to an upload. The input: a record per attempt, see SetAnswers().
#include "daemon_fuzz.h"
#include "fuzz_support.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Platform();
  test_support::ScriptedPlatform::UseLogger(size % 2 == 1);
  fuzz::SetAnswers(fuzz::Records(fuzz::AsText(data, size)));
  Json::Value apps(Json::arrayValue);
  apps.append("mail");
  const bool uploaded = DebugDatTransmitterDaemon().TransmitDebugDat("token", apps, "/nonexistent/debug.dat");
  fuzz::Require(!uploaded || fuzz::Arrived().find("true") != std::string::npos,
                "an upload counts only where the server said true");
  return 0;
}
