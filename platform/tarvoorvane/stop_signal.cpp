#include "stop_signal.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <system_error>

#include "library_log.h"

namespace TarvoOrvane::Internal {
namespace {

using std::chrono::steady_clock;

constexpr itimerspec kRepeat = {{0, 500'000'000}, {0, 100'000'000}};  // the interval, and the first time

// Of the whole process, as a signal's disposition is. Written with all signals blocked, read by the handler.
int g_users = 0;
timer_t g_timer;
std::atomic<bool> g_has_timer{false};
std::atomic<bool> g_armed{false};
bool g_wrapped = false;
struct sigaction g_former;

// Async-signal-safe: the handler calls it.
void ArmTimer() {
  if (g_has_timer.load() && !g_armed.exchange(true)) timer_settime(g_timer, 0, &kRepeat, nullptr);
}

void CallFormerHandler(int number, siginfo_t* info, void* context) {
  if ((g_former.sa_flags & SA_SIGINFO) != 0) {
    g_former.sa_sigaction(number, info, context);
  } else {
    g_former.sa_handler(number);
  }
}

void OnStopSignal(int number, siginfo_t* info, void* context) {
  const int saved_errno = errno;
  ArmTimer();
  errno = saved_errno;
  CallFormerHandler(number, info, context);
}

bool HasHandler(const struct sigaction& action) {
  return (action.sa_flags & SA_SIGINFO) != 0 ||
         (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN);
}

struct sigaction CurrentAction() {
  struct sigaction action {};
  sigaction(SIGTERM, nullptr, &action);
  return action;
}

bool IsIgnored() {
  const struct sigaction action = CurrentAction();
  return !HasHandler(action) && action.sa_handler == SIG_IGN;
}

void WrapHandler() {
  g_former = CurrentAction();
  if (!HasHandler(g_former)) return;
  struct sigaction wrapper = g_former;
  wrapper.sa_flags |= SA_SIGINFO;
  wrapper.sa_sigaction = &OnStopSignal;
  g_wrapped = sigaction(SIGTERM, &wrapper, nullptr) == 0;
}

void UnwrapHandler() {
  const struct sigaction current = CurrentAction();
  const bool still_ours = (current.sa_flags & SA_SIGINFO) != 0 && current.sa_sigaction == &OnStopSignal;
  if (g_wrapped && still_ours) sigaction(SIGTERM, &g_former, nullptr);
  g_wrapped = false;
}

void CreateTimer() {
  sigevent event{};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGTERM;
  g_armed = false;
  g_has_timer = timer_create(CLOCK_MONOTONIC, &event, &g_timer) == 0;
  if (!g_has_timer) {
    LogLine(LOG_WARNING,
            std::string("No timer, so a stop may take until the next wait ends: ") + strerror(errno));
  }
}

sigset_t OnlySigTerm() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  return set;
}

/// The time left until `deadline`, or null when there is none; `storage` holds it.
const timespec* TimeLeft(const StopSignal::Deadline& deadline, timespec& storage) {
  if (!deadline) return nullptr;
  using std::chrono::nanoseconds;
  const auto left =
      std::max(std::chrono::duration_cast<nanoseconds>(*deadline - steady_clock::now()), nanoseconds(0));
  storage.tv_sec = static_cast<std::time_t>(left.count() / std::nano::den);
  storage.tv_nsec = static_cast<long>(left.count() % std::nano::den);
  return &storage;
}

}  // namespace

SignalBlock::SignalBlock() {
  sigset_t all;
  sigfillset(&all);
  for (const int synchronous : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
    sigdelset(&all, synchronous);
  }
  pthread_sigmask(SIG_BLOCK, &all, &callers_);
}

SignalBlock::~SignalBlock() { pthread_sigmask(SIG_SETMASK, &callers_, nullptr); }

sigset_t SignalBlock::WaitMask() const {
  sigset_t mask = callers_;
  sigaddset(&mask, SIGTERM);
  return mask;
}

StopSignal::StopSignal() {
  const SignalBlock block;
  if (g_users++ > 0) return;
  CreateTimer();
  WrapHandler();
}

StopSignal::~StopSignal() {
  const SignalBlock block;
  if (--g_users > 0) return;
  UnwrapHandler();
  if (g_has_timer.exchange(false)) timer_delete(g_timer);
}

bool StopSignal::IsPending() const {
  sigset_t pending;
  sigpending(&pending);
  if (sigismember(&pending, SIGTERM) != 1) return false;
  // While blocked, an ignored signal becomes pending all the same.
  if (IsIgnored()) return false;
  ArmTimer();
  return true;
}

int StopSignal::WatchedSignalFd() {
  if (IsIgnored()) return -1;  // ppoll skips it
  if (!signal_fd_) {
    const sigset_t set = OnlySigTerm();
    signal_fd_ = ScopedFd(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!signal_fd_) throw std::system_error(errno, std::generic_category(), "signalfd");
  }
  return signal_fd_.get();
}

StopSignal::Wake StopSignal::Wait(int event_fd, const SignalBlock& block, const Deadline& deadline) {
  const sigset_t mask = block.WaitMask();
  for (;;) {
    if (IsPending()) return Wake::kStop;
    pollfd fds[] = {{event_fd, POLLIN, 0}, {WatchedSignalFd(), POLLIN, 0}};
    timespec storage{};
    const int ready = ppoll(fds, std::size(fds), TimeLeft(deadline, storage), &mask);
    if (ready < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "ppoll");
    if (IsPending()) return Wake::kStop;
    if (ready > 0 && fds[0].revents != 0) return Wake::kEvent;
    if (ready == 0) return Wake::kTimeout;
  }
}

}  // namespace TarvoOrvane::Internal
