/// The test's end of a probe process (probe_main.cpp).
#pragma once

#include <array>
#include <chrono>
#include <string>
#include <vector>

#include "child_process.h"
#include "scoped_fd.h"

namespace TarvoOrvane::Testing {

class Probe {
 public:
  /// Starts it.
  /// @param environment  "NAME=value" entries; all of its environment.
  /// @param path         The program; another one for what this one can't do.
  explicit Probe(std::vector<std::string> environment = {}, const std::string& path = PROBE_PATH);

  void Command(const std::string& line) const;
  void Signal(int number) const;

  /// The next line it prints; "(nothing)" when none comes in time.
  std::string Line(std::chrono::milliseconds limit = test_support::kPatience);

  /// Reads lines until one starts with `prefix` and returns it; "(nothing)" when none comes in time.
  std::string LineStartingWith(const std::string& prefix,
                               std::chrono::milliseconds limit = test_support::kPatience);

  test_support::Ending AwaitEnd(std::chrono::milliseconds limit = test_support::kPatience);

  /// Waits until its main thread is in a system call that is `name`: "ppoll" or "clock_nanosleep".
  bool AwaitBlockedIn(const std::string& name,
                      std::chrono::milliseconds limit = test_support::kPatience) const;

 private:
  std::array<Internal::ScopedFd, 2> to_;
  std::array<Internal::ScopedFd, 2> from_;
  test_support::ChildProcess process_;
  std::string buffer_;
};

}  // namespace TarvoOrvane::Testing
