#include "cost_watch.h"

#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <future>
#include <system_error>
#include <utility>

namespace TarvoOrvane::Internal {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

/// Nobody else sees it: it is blocked here and sent to this thread alone.
int WakeSignal() { return SIGRTMIN; }

sigset_t OnlyWakeSignal() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, WakeSignal());
  return set;
}

nanoseconds CpuOf(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}
nanoseconds ProcessCpu() { return CpuOf(CLOCK_PROCESS_CPUTIME_ID); }
nanoseconds ThreadCpu() { return CpuOf(CLOCK_THREAD_CPUTIME_ID); }

timespec ToTimespec(nanoseconds time) {
  return {static_cast<std::time_t>(time.count() / std::nano::den),
          static_cast<long>(time.count() % std::nano::den)};
}

/// What is in use, not what is resident: memory that is free but kept for later is no stream's growth.
std::size_t HeapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

/// A timer of the process's processor time that wakes the calling thread, and only that.
timer_t CreateCpuTimer() {
  sigevent event{};
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = WakeSignal();
  event._sigev_un._tid = gettid();
  timer_t timer{};
  if (timer_create(CLOCK_PROCESS_CPUTIME_ID, &event, &timer) != 0) {
    throw std::system_error(errno, std::generic_category(), "timer_create");
  }
  return timer;
}

}  // namespace

CostWatch::CostWatch(const CostLimits& limits)
    : limits_(limits), last_cpu_(ProcessCpu()), last_look_(steady_clock::now()) {
  // The timer wakes the thread that makes it, so that one makes it; whether it could is known before this returns.
  std::promise<void> started;
  thread_ = std::thread([this, &started] {
    try {
      timer_ = CreateCpuTimer();
    } catch (const std::system_error&) {
      started.set_exception(std::current_exception());
      return;
    }
    started.set_value();
    Run();
  });
  try {
    started.get_future().get();
  } catch (...) {
    thread_.join();
    throw;
  }
}

CostWatch::~CostWatch() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  pthread_kill(thread_.native_handle(), WakeSignal());
  thread_.join();
  timer_delete(timer_);
}

void CostWatch::Begin(TooMuch too_much, Received received) {
  const std::lock_guard<std::mutex> lock(mutex_);
  begin_ = steady_clock::now();
  heap_before_ = HeapInUse();
  too_much_ = std::move(too_much);
  received_ = std::move(received);
}

void CostWatch::End() {
  const std::lock_guard<std::mutex> lock(mutex_);
  too_much_ = nullptr;
}

void CostWatch::Run() {
  pthread_setname_np(pthread_self(), "cost watch");  // shows in /proc what it costs
  const sigset_t set = OnlyWakeSignal();
  nanoseconds period = limits_.look;
  for (;;) {
    const itimerspec once = {{0, 0}, ToTimespec(period)};
    timer_settime(timer_, 0, &once, nullptr);
    sigwaitinfo(&set, nullptr);
    const auto before = ThreadCpu();
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stop_) return;
    Look();
    // A look takes processor time too. Where it takes long, looks are rarer, so that they take a tenth of it at most.
    period = std::max<nanoseconds>(limits_.look, 10 * (ThreadCpu() - before));
  }
}

void CostWatch::Look() {
  const auto cpu = ProcessCpu();
  const auto now = steady_clock::now();
  const nanoseconds allowed = (now - last_look_) / 100 * limits_.cpu_percent;
  cpu_used_ = std::max(cpu_used_ - allowed, nanoseconds(0)) + (cpu - last_cpu_);
  last_cpu_ = cpu;
  last_look_ = now;
  if (!too_much_) return;
  const std::string excess = Excess(now);
  if (!excess.empty()) std::exchange(too_much_, nullptr)(excess);
}

/// @return What is too much; empty when nothing is.
std::string CostWatch::Excess(steady_clock::time_point now) {
  const auto seconds =
      static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(now - begin_).count());
  const std::uint64_t received = received_();
  if (received > limits_.received_bytes + seconds * limits_.received_bytes_per_second) {
    return std::to_string(received >> 20) + " MiB from the server";
  }
  const std::size_t heap = HeapInUse();
  if (heap > heap_before_ + limits_.memory_bytes) {
    return std::to_string((heap - heap_before_) >> 20) + " MiB of memory";
  }
  if (cpu_used_ <= limits_.cpu) return {};
  cpu_used_ = limits_.cpu;  // what went beyond is forgiven, or the next stream would start in debt
  return std::to_string(limits_.cpu.count()) + " ms of processor time";
}

}  // namespace TarvoOrvane::Internal
