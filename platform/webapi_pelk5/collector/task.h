#pragma once

#include <json/value.h>

#include <string>

#include "collection_limits.h"

namespace TARVO::SupportForm {

/// The whole work of a task process: makes the archive of the task `task_id`, or leaves the reason why not in its
/// folder. The process holds the task's lock at kTaskLockFd.
/// @return The process's exit status.
int RunTask(const Paths& paths, const Limits& limits, const std::string& task_id,
            const Json::Value& app_list);

}  // namespace TARVO::SupportForm
