#pragma once

#include <json/value.h>

#include <functional>
#include <map>
#include <string>

#include "api_registry.h"
#include "collection_limits.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {

/// The work of a task process that has just begun: makes the archive of the task `task_id`, or leaves the reason
/// why not in its lock file, where what it throws is left, too. Returns the process's exit status.
using TaskWork =
    std::function<int(const Paths& paths, const std::string& task_id, const Json::Value& app_list)>;

/// The log collection web API, TARVO.Core.SupportForm.Log version 1. Lives in the calling process; the
/// collection itself runs in a process of its own that outlives the caller.
///
/// The object holds an owner lock for each archive that it had made, until the archive's folder is gone or
/// the process ends. As long as it does, nobody removes the archive but who was given its path. A child that
/// the caller forks afterwards, without exec, holds these locks as well.
class SupportFormLog {
 public:
  SupportFormLog(Paths paths, Limits limits, TaskWork work);

  /// Enters both methods. The object must outlive the registry.
  void Register(ApiRegistry& registry);

  /// Starts a collection and returns at once. Removes what ended tasks left before. Where the collector is a service
  /// of its own, both are that one's work, and no process is started here.
  /// @param params  {"app_list": [...]}; what is in the list is checked by the task, which puts errors into the
  ///                archive's manifest.
  /// @return {"task_id": "..."}
  /// @throws ApiError
  Json::Value Collect(const Json::Value& params);

  /// Tells how far a task is. Waits a few seconds for it to end.
  /// @param params  {"task_id": "..."}
  /// @return {"finished": false, "bytes": n, "files": n} or {"finished": true, "path": "..."}
  /// @throws ApiError for a task that is unknown, has failed or was killed.
  Json::Value Status(const Json::Value& params) const;

 private:
  Json::Value Own(const std::string& task_id, UniqueFd owner);
  void ForgetRemoved();
  [[nodiscard]] Json::Value RunningStatus(int folder_fd) const;
  [[nodiscard]] Json::Value EndedStatus(int folder_fd, const std::string& task_id) const;

  Paths paths_;
  Limits limits_;
  TaskWork work_;
  std::map<std::string, UniqueFd> owners_;  ///< Task id to its owner lock.
};

}  // namespace TARVO::SupportForm
