#include "probe.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace TarvoOrvane::Testing {
namespace {

using Clock = std::chrono::steady_clock;
constexpr char kNothing[] = "(nothing)";

int MillisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<long>(0, left.count()));
}

std::array<Internal::ScopedFd, 2> MakePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  return {Internal::ScopedFd(ends[0]), Internal::ScopedFd(ends[1])};
}

}  // namespace

Probe::Probe(std::vector<std::string> environment, const std::string& path)
    : to_(MakePipe()),
      from_(MakePipe()),
      process_(test_support::StartProgram({path}, std::move(environment), {to_[0].get(), from_[1].get()})) {
  to_[0] = Internal::ScopedFd();
  from_[1] = Internal::ScopedFd();
}

void Probe::Command(const std::string& line) const {
  const std::string text = line + "\n";
  if (write(to_[1].get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("the probe takes no command");
  }
}

void Probe::Signal(int number) const { process_.Signal(number); }

std::string Probe::Line(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    if (const std::size_t end = buffer_.find('\n'); end != std::string::npos) {
      std::string line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      return line;
    }
    pollfd readable{from_[0].get(), POLLIN, 0};
    if (poll(&readable, 1, MillisecondsUntil(deadline)) <= 0) return kNothing;
    char chunk[4096];
    const ssize_t size = read(from_[0].get(), chunk, sizeof chunk);
    if (size <= 0) return kNothing;
    buffer_.append(chunk, static_cast<std::size_t>(size));
  }
}

std::string Probe::LineStartingWith(const std::string& prefix, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    std::string line = Line(std::chrono::milliseconds(MillisecondsUntil(deadline)));
    if (line == kNothing || line.rfind(prefix, 0) == 0) return line;
  }
}

test_support::Ending Probe::AwaitEnd(std::chrono::milliseconds limit) { return process_.WaitForEnd(limit); }

bool Probe::AwaitBlockedIn(const std::string& name, std::chrono::milliseconds limit) const {
  const long wanted = name == "ppoll" ? SYS_ppoll : SYS_clock_nanosleep;
  return test_support::Eventually(
      [&] {
        std::ifstream file("/proc/" + std::to_string(process_.pid()) + "/syscall");
        long number = -1;
        return file >> number && number == wanted;
      },
      limit);
}

}  // namespace TarvoOrvane::Testing
