/// upload_archive FILE: uploads a file by the daemon's own code, with the platform libraries that it was built
/// with, to the server that the service configuration file names. Exit status 0 if the server took it.
///
/// As in the daemon it is a forked child that uploads. Prints what the child took, from the fork to its end: wall
/// time and CPU time in seconds, and its peak of resident memory in KiB.
#include <json/value.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "transmitter.h"

namespace {

[[noreturn]] void Upload(const char* file) {
  Json::Value apps(Json::arrayValue);
  apps.append("bench");
  TarvoOrvane::Transmitter::DebugFileTransmitter transmitter("benchmark-token");
  _exit(transmitter.UploadFile(file, apps) ? 0 : 1);
}

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    static_cast<void>(std::fprintf(stderr, "usage: upload_archive FILE\n"));
    return 2;
  }
  openlog("upload_archive", LOG_PERROR, LOG_DAEMON);  // the daemon's lines tell why it failed
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child == 0) Upload(argv[1]);
  int status = 0;
  rusage usage{};
  if (child == -1 || wait4(child, &status, 0, &usage) != child) {
    std::perror("upload_archive");
    return 1;
  }
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
  std::printf("%.6f %.6f %ld\n", wall.count(), Seconds(usage.ru_utime) + Seconds(usage.ru_stime),
              usage.ru_maxrss);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
