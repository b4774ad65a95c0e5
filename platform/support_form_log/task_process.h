#pragma once

#include <functional>

namespace TARVO::SupportForm {

/// The one descriptor above standard error that a task process has when its work begins: its lock.
inline constexpr int kTaskLockFd = 3;

/// Memory will hold unmasked text: keeps it out of core dumps, those too that the kernel gives to a program, and
/// from processes of the same user. What replaces the process by execve() has to do it again; only the limit on the
/// size of core files stays.
void ShieldMemory();

/// Makes the calling process fit for a task: /dev/null at 0, 1 and 2, the lock at kTaskLockFd and no other descriptor,
/// default signals (but a file-size limit is an error, not a signal) and an empty mask, umask 077, the root as working
/// folder, ShieldMemory().
/// @param lock_fd  The lock. It has another number afterwards, and whatever else owned a descriptor owns none any more.
/// @return false where that fails; the task's record says why.
[[nodiscard]] bool BecomeTaskProcess(int lock_fd);

/// Starts a process that is nobody's child: it outlives the caller and becomes no zombie of the caller's. To
/// be called from a process with one thread.
///
/// The new process has nothing of the caller's but its memory: a session and a name of its own, and all that
/// BecomeTaskProcess() gives. It runs `work` and ends with its result as exit status, without running destructors or
/// exit handlers.
/// @param lock_fd  The lock; the caller closes its own copy. It is held until the process ends.
/// @param work     What it throws, a std::exception, is recorded as the task's failure.
/// @throws ApiError when the process can't be started.
void StartDetached(int lock_fd, const std::function<int()>& work);

}  // namespace TARVO::SupportForm
