#pragma once

#include <json/value.h>

#include <string>

#include "collection_limits.h"

namespace TARVO::SupportForm {

/// Replaces the calling task process by the program `debug_dat_collect`, which makes the archive. It lies beside
/// the file that holds this code: the library, or a program that is linked with it. A program of its own keeps
/// what a collection needs, compression and redaction above all, out of the memory of the library's callers.
///
/// The program finds the list of applications at its standard input, the task's lock at kTaskLockFd, and an
/// empty environment: the caller's would let it choose locales, converters and zones.
/// Until the program begins its work the task's lock file says that it did not, which is so for ever where it lacks
/// a library, say.
/// @return Only when that fails: the exit status for the process. The reason is left in the task's lock file.
int BecomeCollector(const Paths& paths, const std::string& task_id, const Json::Value& app_list);

/// The same with the program at `program`.
int BecomeProgram(const std::string& program, const std::string& task_id, const Json::Value& app_list);

}  // namespace TARVO::SupportForm
