#include "task.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "audit_log.h"
#include "collection.h"
#include "file_util.h"
#include "task_folder.h"
#include "task_process.h"
#include "token_mask.h"

namespace TARVO::SupportForm {
namespace {

// The kernel's header for these does not compile as C++.
constexpr int kIoprioWhoProcess = 1;
constexpr int kIoprioIdleClass = 3 << 13;
constexpr const char* kLowestPriority = "19";
constexpr const char* kFirstToBeEnded = "1000";

void WriteSetting(const char* path, const char* value) {
  const UniqueFd fd(open(path, O_WRONLY | O_CLOEXEC));
  static_cast<void>(WriteAll(fd.get(), value));
}

/// Tells the owner of the device. An archive that can't be recorded in the log is recorded in the system's.
void Audit(const Paths& paths, const Limits& limits, const AuditRecord& record) {
  const std::string line = AuditLine(record);
  try {
    AppendAuditLine(paths.audit_log, limits.audit_bytes, line);
  } catch (const std::exception& error) {
    syslog(LOG_DAEMON | LOG_ERR, "%s; the line is: %s", error.what(), line.c_str());
  }
}

}  // namespace

void LowerPriority() {
  setpriority(PRIO_PROCESS, 0, 19);
  // With autogroups a priority counts only among the processes of one session, and the task has one of its own.
  WriteSetting("/proc/self/autogroup", kLowestPriority);
  syscall(SYS_ioprio_set, kIoprioWhoProcess, 0, kIoprioIdleClass);
  WriteSetting("/proc/self/oom_score_adj", kFirstToBeEnded);
}

void EndAfter(unsigned seconds) {
  // A thread does it: while the process hangs in the kernel no signal handler runs. Should the thread hang, too, as its
  // record lies on a disk that gives no answer, the kernel ends the process a little later.
  constexpr unsigned kGraceSeconds = 5;
  alarm(seconds + kGraceSeconds);
  const std::string failure = "the collection took too long: it was ended after " + std::to_string(seconds) +
                              " seconds, at a file or a disk that gives no answer";
  try {
    std::thread([seconds, failure] {
      SleepMs(std::int64_t{seconds} * 1000);
      WriteTaskRecord(kTaskLockFd, failure);
      kill(getpid(), SIGKILL);
    }).detach();
  } catch (const std::system_error&) {
    // No further thread may be started. The kernel ends the process then, and its record names no cause.
  }
}

void RecordFailure(const std::exception& error) noexcept {
  try {
    WriteTaskRecord(kTaskLockFd, Masked(FailureText(error)));
  } catch (const std::exception& while_masking) {
    WriteTaskRecord(kTaskLockFd, FailureText(while_masking));
  }
}

int RunTask(const Paths& paths, const Limits& limits, const std::string& task_id,
            const Json::Value& app_list) {
  // The libraries used here would let an environment choose locales, converters and zones.
  clearenv();
  LowerPriority();
  ShieldMemory();  // what it writes to in /proc/self would be root's afterwards
  WriteTaskRecord(kTaskLockFd);
  // SHA-256 needs no configuration, and the search for one would look at the environment.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
  try {
    EndAfter(limits.task_seconds_hard);
    const UniqueFd folder = OpenTaskFolder(paths.state, task_id);
    if (!folder.valid()) throw std::runtime_error("the task's folder can't be opened: " + ErrorText(errno));
    const CollectionRequest request = {task_id, app_list, true};
    const CollectionSummary summary = MakeArchive(paths, limits, folder.get(), request);
    try {
      Audit(paths, limits, {std::time(nullptr), task_id, app_list, request.redact, summary.archive});
      if (IsShared(folder.get())) ShareArchive(folder.get());
    } catch (...) {  // no archive may leave the device of which its owner is not told
      unlinkat(folder.get(), kArchiveFile, 0);
      throw;
    }
    return 0;
  } catch (const std::exception& error) {
    RecordFailure(error);
  } catch (...) {
    WriteTaskRecord(kTaskLockFd, "unknown error");
  }
  return 1;
}

}  // namespace TARVO::SupportForm
