/// serve_ticket APP: serves one ticket for an application as the daemon's transmission child does, for this is
/// its code: collects, uploads, reports and deletes. Exit status 0 if every step succeeded.
#include <json/value.h>
#include <syslog.h>

#include <cstdio>

#include "debug_dat_transmitter.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    static_cast<void>(std::fprintf(stderr, "usage: serve_ticket APP\n"));
    return 2;
  }
  openlog("serve_ticket", LOG_PERROR, LOG_DAEMON);  // the daemon's lines tell why it failed
  Json::Value ticket(Json::objectValue);
  ticket["token"] = "benchmark-token";
  ticket["apps"].append(argv[1]);
  DebugDatTransmitterDaemon().RunTransmissionChild("benchmark-token", ticket["apps"], ticket);
}
