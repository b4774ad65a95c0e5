#include <unistd.h>

#include <cerrno>

#include "debug_dat_transmitter.h"
#include "logging.h"
#include "platform/core.h"

namespace {

constexpr char kPidFilePath[] = "/var/run/kestrix_debug_dat_transmitter.pid";

}  // namespace

int main() {
  DebugDatTransmitterDaemon transmitter_daemon;
  if (daemon(0, 0) != 0) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to daemonize, errno=%d", errno);
    return 1;
  }
  if (TLIBCProcPidFileCreate(kPidFilePath) < 0) {
    LogAt(LOG_ERR, "%s:%d Failed to write pid file=%s", __FILE_NAME__, __LINE__, kPidFilePath);
    return 1;
  }
  transmitter_daemon.Run();  // only the start decides the exit status
  return 0;
}
