/// libtarvoorvane: no logger, so the daemon's lines go to syslog. A logger of your own is an object of a class derived
/// from LoggerManager, to which ReconfigureByDebugFlag() sets instance_ while your device's debug setting is on. It
/// clears instance_ when it is off.
#include "platform/support_service_client.h"

namespace TarvoOrvane::Utils {

LoggerManager* LoggerManager::instance_ = nullptr;

void LoggerManager::ReconfigureByDebugFlag() {}

}  // namespace TarvoOrvane::Utils
