/// What the CSS server answers to a report. The input: a record per attempt, see SetAnswers().
#include "daemon_fuzz.h"
#include "fuzz_support.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Platform();
  test_support::ScriptedPlatform::UseLogger(size % 2 == 1);
  fuzz::SetAnswers(fuzz::Records(fuzz::AsText(data, size)));
  const bool updated =
      DebugDatTransmitterDaemon().UpdateResultToServer("token", TarvoOrvane::Transmitter::kSuccess);
  fuzz::Require(!updated || fuzz::Arrived().find("true") != std::string::npos,
                "a report counts only where the server said true");
  return 0;
}
