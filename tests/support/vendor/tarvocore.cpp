/// Another maker's libtarvocore: the plain system calls.

#include <unistd.h>

#include <fstream>

#include "platform/core.h"
#include "record_call.h"

int TLIBCProcPidFileCreate(const char* path) {
  RecordCall("TLIBCProcPidFileCreate");
  std::ofstream file(path);
  file << getpid() << std::endl;
  return file ? 0 : -1;
}

int TLIBCProcFork() {
  RecordCall("TLIBCProcFork");
  return fork();
}

int TLIBCProcForkEx(int flags) {
  RecordCall("TLIBCProcForkEx(" + std::to_string(flags) + ")");
  return fork();
}

int TLIBCFileExist(const char* path) {
  RecordCall("TLIBCFileExist");
  return access(path, F_OK) == 0 ? 1 : 0;
}
