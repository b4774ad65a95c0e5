#pragma once

#include <json/value.h>

#include <string>

#include "collection_limits.h"

namespace TARVO::SupportForm {

/// Makes room for others: the lowest CPU priority, in the own session's group as well, I/O only where nobody else
/// wants any, and the first to be ended where memory runs out. Commands inherit it. Costs nothing where the system is
/// idle; what the system refuses is left as it is. To be called before threads are started.
void LowerPriority();

/// The whole work of a task process: makes the archive of the task `task_id`, or leaves the reason why not in its
/// lock file. The process holds the task's lock at kTaskLockFd. It has lowered its priority afterwards, and the kernel
/// ends it at `limits.task_seconds_hard`.
/// @return The process's exit status.
int RunTask(const Paths& paths, const Limits& limits, const std::string& task_id,
            const Json::Value& app_list);

}  // namespace TARVO::SupportForm
