#pragma once

#include <json/value.h>

#include <exception>
#include <string>

#include "collection_limits.h"

namespace TARVO::SupportForm {

/// Makes room for others: the lowest CPU priority, in the own session's group as well, I/O only where nobody else
/// wants any, and the first to be ended where memory runs out. Commands inherit it. Costs nothing where the system is
/// idle; what the system refuses is left as it is. To be called before threads are started.
void LowerPriority();

/// Ends this process after so many seconds, with the reason in its task's record, though it may hang in a file that
/// gives no data. Commands of it end with it. A thread does that, and a few seconds later the kernel, should the thread
/// hang, too. To be called once, when the priority is lowered.
void EndAfter(unsigned seconds);

/// Leaves the reason why the task that the process works for has failed in its lock file, at kTaskLockFd. Does not
/// throw.
void RecordFailure(const std::exception& error) noexcept;

/// The whole work of a task process: makes the archive of the task `task_id`, or leaves the reason why not in its
/// lock file. The process holds the task's lock at kTaskLockFd. It has lowered its priority afterwards, and is ended,
/// with the reason there, at `limits.task_seconds_hard`.
/// @return The process's exit status.
int RunTask(const Paths& paths, const Limits& limits, const std::string& task_id,
            const Json::Value& app_list);

}  // namespace TARVO::SupportForm
