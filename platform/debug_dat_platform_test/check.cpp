#include "check.h"

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace DebugDatPlatformTest {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxText = 600;

// What the child writes before its text.
constexpr char kFine = '+';
constexpr char kFaulty = '-';
constexpr char kUnknown = '?';

std::string RunHere(const Check& check) {
  try {
    check.run();
    return {kFine};
  } catch (const CannotTell& reason) {
    return kUnknown + std::string(reason.what());
  } catch (const Fault& fault) {
    return kFaulty + std::string(fault.what());
  } catch (const std::exception& error) {
    return kFaulty + ("an exception came out that the header does not name: " + std::string(error.what()));
  } catch (...) {
    return std::string({kFaulty}) + "something was thrown that is no std::exception";
  }
}

/// As the daemon is after its start. What was freed is overwritten, so that a use of it shows.
[[noreturn]] void BeChild(const Check& check, int out) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // Ctrl-C does not reach another group
  // The servers of the checks are on this machine, whatever the caller has for others.
  setenv("no_proxy", "*", 1);
  setenv("NO_PROXY", "*", 1);
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(nowhere, fd);
  static_cast<void>(!chdir("/"));
  mallopt(M_PERTURB, 0xa5);
  const std::string result = RunHere(check);
  static_cast<void>(!write(out, result.data(), std::min(result.size(), kMaxText)));
  _exit(0);
}

/// Reads until the child has closed its end or the time is over.
/// @return Whether it was in time.
bool ReadAll(int fd, Clock::time_point deadline, std::string& text) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd wait = {fd, POLLIN, 0};
    const int ready = left <= 0 ? 0 : poll(&wait, 1, static_cast<int>(left));
    if (ready == 0) return false;
    std::array<char, kMaxText> chunk = {};
    const ssize_t size = ready < 0 ? -1 : read(fd, chunk.data(), chunk.size());
    if (size == 0) return true;
    if (size > 0) text.append(chunk.data(), static_cast<std::size_t>(size));
  }
}

std::string EndText(int status) {
  if (WIFSIGNALED(status)) {
    return "the call ended its process by signal " + std::to_string(WTERMSIG(status)) + " (" +
           strsignal(WTERMSIG(status)) + ")";
  }
  return "the call ended its process with status " + std::to_string(WEXITSTATUS(status));
}

Verdict TooLate(Patience patience, long seconds) {
  const std::string time = std::to_string(seconds) + " s";
  if (patience == Patience::kMayWait) {
    return {State::kSkipped, "it still waited after " + time + ", as it may"};
  }
  return {State::kFailed, "it had not returned after " + time};
}

Verdict VerdictOf(const std::string& text, int status) {
  if (text.empty()) return {State::kFailed, EndText(status)};
  switch (text[0]) {
    case kFine:
      return {};
    case kUnknown:
      return {State::kSkipped, text.substr(1)};
    default:
      return {State::kFailed, text.substr(1)};
  }
}

const char* WordFor(State state) {
  switch (state) {
    case State::kOk:
      return "ok";
    case State::kFailed:
      return "FAILED";
    default:
      return "skipped";
  }
}

std::string Printable(std::string_view text) {
  std::string printable;
  for (const char c : text) printable += c >= ' ' && c <= '~' ? c : '?';
  return printable;
}

}  // namespace

void Expect(bool holds, const std::string& fault) {
  if (!holds) throw Fault(fault);
}

Verdict RunInChild(const Check& check, unsigned deadline_seconds) {
  const long seconds =
      static_cast<long>(deadline_seconds) * (check.patience == Patience::kTenDeadlines ? 10 : 1);
  std::array<int, 2> ends = {-1, -1};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return {State::kSkipped, "there is no pipe to the check"};
  const pid_t child = fork();
  if (child == 0) BeChild(check, ends[1]);
  close(ends[1]);
  std::string text;
  const bool in_time = child > 0 && ReadAll(ends[0], Clock::now() + std::chrono::seconds(seconds), text);
  close(ends[0]);
  if (child < 0) return {State::kSkipped, "there is no process for the check"};
  if (!in_time) kill(child, SIGKILL);
  siginfo_t ended{};
  waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT);
  kill(-child, SIGKILL);  // before the child is reaped: then its number may be another group's
  int status = 0;
  waitpid(child, &status, 0);
  // A result that came counts, whoever kept the pipe open.
  return in_time || !text.empty() ? VerdictOf(text, status) : TooLate(check.patience, seconds);
}

std::string LineOf(const Check& check, const Verdict& verdict) {
  std::string line = WordFor(verdict.state);
  line.resize(9, ' ');
  line += check.name;
  line.resize(std::max<std::size_t>(line.size() + 1, 33), ' ');
  switch (verdict.state) {
    case State::kOk:
      line += check.promise;
      break;
    case State::kFailed:
      line += verdict.text + ". " + check.remedy;
      break;
    case State::kSkipped:
      line += verdict.text;
      break;
  }
  return Printable(line) + "\n";
}

}  // namespace DebugDatPlatformTest
