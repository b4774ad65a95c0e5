/// The support service for tests in which devices report to nobody, or to another server. It tries a device's next
/// ticket at once, where the real one waits half an hour for the report. All else is as the real one has it.
#include <chrono>

#include "options.h"

namespace TarvoOrvane::SupportService {

// Linked in the place of ParseOptions(), which it calls.
ParsedOptions ParseReally(int argc, const char* const* argv) __asm__(
    "__real__ZN11TarvoOrvane14SupportService12ParseOptionsEiPKPKc");
ParsedOptions ParseImpatiently(int argc, const char* const* argv) __asm__(
    "__wrap__ZN11TarvoOrvane14SupportService12ParseOptionsEiPKPKc");

ParsedOptions ParseImpatiently(int argc, const char* const* argv) {
  ParsedOptions parsed = ParseReally(argc, argv);
  parsed.settings.tickets.overdue_after = std::chrono::minutes(0);
  return parsed;
}

}  // namespace TarvoOrvane::SupportService
