#include "signals.h"

#include <signal.h>
#include <sys/signalfd.h>

#include <initializer_list>

namespace DebugDatRun {

int TakeOverSignals() {
  for (int number = 1; number < SIGRTMAX; ++number) static_cast<void>(signal(number, SIG_DFL));
  static_cast<void>(signal(SIGPIPE, SIG_IGN));
  sigset_t taken;
  sigemptyset(&taken);
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&taken, number);
  sigprocmask(SIG_SETMASK, &taken, nullptr);
  return signalfd(-1, &taken, SFD_NONBLOCK | SFD_CLOEXEC);
}

void GiveSignalsBack() {
  static_cast<void>(signal(SIGPIPE, SIG_DFL));
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace DebugDatRun
