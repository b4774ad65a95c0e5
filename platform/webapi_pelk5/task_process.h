#pragma once

#include <functional>

namespace TARVO::SupportForm {

/// The one descriptor above standard error that a task process has when its work begins: its lock.
inline constexpr int kTaskLockFd = 3;

/// Starts a process that is nobody's child: it outlives the caller and becomes no zombie of the caller's. To
/// be called from a process with one thread.
///
/// The new process has nothing of the caller's but its memory: a session of its own, /dev/null at 0, 1 and 2,
/// the lock at kTaskLockFd and no other descriptor, default signals and an empty mask, umask 077, the root as
/// working folder, no core dumps (memory holds unmasked text), a name of its own. It runs `work` and ends
/// with its result as exit status, without running destructors or exit handlers.
/// @param lock_fd  The lock; the caller closes its own copy. It is held until the process ends.
/// @param work     Must not throw.
/// @throws ApiError when the process can't be started.
void StartDetached(int lock_fd, const std::function<int()>& work);

}  // namespace TARVO::SupportForm
