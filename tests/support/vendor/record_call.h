/// How the replacement libraries show a test that they were called, by which process.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>

/// Folder through which a test and the replacement libraries speak; the test makes it.
inline constexpr char kVendorFolder[] = "/run/vendor";

/// Appends "NAME PID" to the file `calls` in kVendorFolder.
inline void RecordCall(const std::string& name) {
  const std::string path = std::string(kVendorFolder) + "/calls";
  const std::string line = name + ' ' + std::to_string(getpid()) + '\n';
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd >= 0) {
    static_cast<void>(!write(fd, line.data(), line.size()));
    close(fd);
  }
}
