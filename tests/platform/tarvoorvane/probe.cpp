#include "probe.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace TarvoOrvane::Testing {
namespace {

using Clock = std::chrono::steady_clock;
constexpr char kNothing[] = "(nothing)";
constexpr std::chrono::milliseconds kPollInterval{2};

int MillisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<long>(0, left.count()));
}

}  // namespace

Probe::Probe(std::vector<std::string> environment, std::string path) {
  int to[2];
  int from[2];
  if (pipe2(to, O_CLOEXEC) != 0 || pipe2(from, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, to[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, from[1], STDOUT_FILENO);
  char* arguments[] = {path.data(), nullptr};
  std::vector<char*> entries;
  entries.reserve(environment.size() + 1);
  for (auto& entry : environment) entries.push_back(entry.data());
  entries.push_back(nullptr);
  const int error = posix_spawn(&pid_, path.c_str(), &actions, nullptr, arguments, entries.data());
  posix_spawn_file_actions_destroy(&actions);
  close(to[0]);
  close(from[1]);
  to_fd_ = to[1];
  from_fd_ = from[0];
  if (error != 0) throw std::runtime_error("posix_spawn failed");
}

Probe::~Probe() {
  close(to_fd_);
  close(from_fd_);
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

void Probe::Command(const std::string& line) const {
  const std::string text = line + "\n";
  if (write(to_fd_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("the probe takes no command");
  }
}

void Probe::Signal(int number) const { kill(pid_, number); }

std::string Probe::Line(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    if (const size_t end = buffer_.find('\n'); end != std::string::npos) {
      std::string line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      return line;
    }
    pollfd readable{from_fd_, POLLIN, 0};
    if (poll(&readable, 1, MillisecondsUntil(deadline)) <= 0) return kNothing;
    char chunk[4096];
    const ssize_t size = read(from_fd_, chunk, sizeof chunk);
    if (size <= 0) return kNothing;
    buffer_.append(chunk, static_cast<size_t>(size));
  }
}

std::string Probe::LineStartingWith(const std::string& prefix, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    std::string line = Line(std::chrono::milliseconds(MillisecondsUntil(deadline)));
    if (line == kNothing || line.rfind(prefix, 0) == 0) return line;
  }
}

std::optional<int> Probe::AwaitEnd(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  do {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return status;
    }
    std::this_thread::sleep_for(kPollInterval);
  } while (Clock::now() < deadline);
  return std::nullopt;
}

bool Probe::AwaitBlockedIn(const std::string& name, std::chrono::milliseconds limit) const {
  const long wanted = name == "ppoll" ? SYS_ppoll : SYS_clock_nanosleep;
  const auto deadline = Clock::now() + limit;
  do {
    std::ifstream file("/proc/" + std::to_string(pid_) + "/syscall");
    long number = -1;
    if (file >> number && number == wanted) return true;
    std::this_thread::sleep_for(kPollInterval);
  } while (Clock::now() < deadline);
  return false;
}

}  // namespace TarvoOrvane::Testing
