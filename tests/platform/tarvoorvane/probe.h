/// The test's end of a probe process (probe_main.cpp).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "scripted_server.h"

namespace TarvoOrvane::Testing {

class Probe {
 public:
  /// Starts it.
  /// @param environment  "NAME=value" entries; all of its environment.
  /// @param path         The program; another one for what this one can't do.
  explicit Probe(std::vector<std::string> environment = {}, std::string path = PROBE_PATH);

  /// Kills it if it still runs.
  ~Probe();
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;

  void Command(const std::string& line) const;
  void Signal(int number) const;

  /// The next line it prints; "(nothing)" when none comes in time.
  std::string Line(std::chrono::milliseconds limit = kDeadline);

  /// Reads lines until one starts with `prefix` and returns it; "(nothing)" when none comes in time.
  std::string LineStartingWith(const std::string& prefix, std::chrono::milliseconds limit = kDeadline);

  /// The status of waitpid() once it has ended; none when it does not end in time.
  std::optional<int> AwaitEnd(std::chrono::milliseconds limit = kDeadline);

  /// Waits until its main thread is in a system call that is `name`: "ppoll" or "clock_nanosleep".
  bool AwaitBlockedIn(const std::string& name, std::chrono::milliseconds limit = kDeadline) const;

 private:
  pid_t pid_ = -1;
  int to_fd_ = -1;
  int from_fd_ = -1;
  std::string buffer_;
};

}  // namespace TarvoOrvane::Testing
