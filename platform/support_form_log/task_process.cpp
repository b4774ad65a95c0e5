#include "task_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <string>

#include "api_error.h"
#include "file_util.h"
#include "task_folder.h"

namespace TARVO::SupportForm {
namespace {

/// Blocks every signal of the calling thread while it lives: none of the caller's handlers runs in a new
/// process before that has put its own signals in order.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &before_);
  }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;
  ~AllSignalsBlocked() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_ = {};
};

/// Runs in the task process.
void ResetSignals() {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  for (int number = 1; number < NSIG; ++number) sigaction(number, &action, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  // A file-size limit is met like a full device: by an error. Programs that are executed keep this.
  static_cast<void>(signal(SIGXFSZ, SIG_IGN));
}

/// Runs in the task process.
bool ResetDescriptors(int lock_fd) {
  // Before any number is given away: the caller's socket to syslog may have the lock's, and syslog() would go
  // on writing to whatever has its number then.
  closelog();
  // First out of the way of 0, 1 and 2, which a caller may have closed, then to its place.
  const int high_fd = fcntl(lock_fd, F_DUPFD, kTaskLockFd + 1);
  if (high_fd < 0) {
    if (errno == EINVAL) errno = EMFILE;  // the process may not have so high a number
    return false;
  }
  if (dup3(high_fd, kTaskLockFd, O_CLOEXEC) < 0) return false;
  const int null_fd = open("/dev/null", O_RDWR);
  if (null_fd < 0) return false;
  for (int fd = 0; fd < kTaskLockFd; ++fd) {
    if (dup2(null_fd, fd) < 0) return false;
  }
  closefrom(kTaskLockFd + 1);
  return true;
}

/// Runs in the task process. Lets no exception out: the task process would go on with what its caller does next.
int Work(const std::function<int()>& work) {
  try {
    return work();
  } catch (const std::exception& error) {
    WriteTaskRecord(kTaskLockFd, FailureText(error));
    return 1;
  }
}

/// The task process, from its first instruction to its last.
[[noreturn]] void RunWork(int lock_fd, const std::function<int()>& work) noexcept {
  prctl(PR_SET_NAME, "support_log");
  _exit(BecomeTaskProcess(lock_fd) ? Work(work) : 1);
}

/// The process in between: it gives the task process away by ending. Its exit status is an errno value.
[[noreturn]] void RunIntermediate(int lock_fd, const std::function<int()>& work) {
  setsid();
  const pid_t pid = fork();
  if (pid == 0) RunWork(lock_fd, work);
  _exit(pid < 0 ? errno : 0);
}

/// Reaps exactly that process. Returns 0 or an errno value.
int Reap(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    // A caller that ignores SIGCHLD has it reaped by the kernel, and its status is lost: "status" will tell.
    if (errno == ECHILD) return 0;
    if (errno != EINTR) return errno;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : EAGAIN;
}

}  // namespace

void ShieldMemory() {
  const rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  prctl(PR_SET_DUMPABLE, 0);
}

bool BecomeTaskProcess(int lock_fd) {
  ResetSignals();
  ShieldMemory();
  umask(077);
  if (chdir("/") == 0 && ResetDescriptors(lock_fd)) return true;
  WriteTaskRecord(lock_fd, "the collection process can't be set up: " + ErrorText(errno));
  return false;
}

void StartDetached(int lock_fd, const std::function<int()>& work) {
  int error = 0;
  {
    const AllSignalsBlocked blocked;
    const pid_t pid = fork();
    if (pid == 0) RunIntermediate(lock_fd, work);
    error = pid < 0 ? errno : Reap(pid);
  }
  if (error != 0) {
    throw ApiError(ApiErrorCode::kSystem, "the collection process can't be started: " + ErrorText(error));
  }
}

}  // namespace TARVO::SupportForm
