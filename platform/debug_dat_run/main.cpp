/// Runs the daemon in the foreground, for a service manager or a container, and watches its processes.
#include "daemon_run.h"
#include "options.h"

int main(int argc, char** argv) {
  using namespace DebugDatRun;
  const Parsed parsed = ParseOptions(argc, argv);
  return parsed.run ? DaemonRun(parsed.options, {}, {}).Run() : parsed.status;
}
