#include "support_form_log.h"

#include <fcntl.h>
#include <json/reader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include "api_error.h"
#include "collector_service.h"
#include "file_util.h"
#include "task_folder.h"
#include "task_process.h"

namespace TARVO::SupportForm {
namespace {

constexpr std::size_t kSmallFileBytes = 4096;
constexpr std::int64_t kFirstPauseMs = 5;
constexpr std::int64_t kLongestPauseMs = 20;

/// The text of a small file in a task folder; false when there is none.
bool ReadTaskFile(int folder_fd, const char* name, std::string& text) {
  const UniqueFd fd(openat(folder_fd, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  bool more = false;
  return fd.valid() && ReadUpTo(fd.get(), kSmallFileBytes, text, more);
}

}  // namespace

SupportFormLog::SupportFormLog(Paths paths, Limits limits, TaskWork work)
    : paths_(std::move(paths)), limits_(limits), work_(std::move(work)) {}

void SupportFormLog::Register(ApiRegistry& registry) {
  const std::string api = "TARVO.Core.SupportForm.Log";
  registry.Add(api, 1, "collect", [this](const Json::Value& params) { return Collect(params); });
  registry.Add(api, 1, "status", [this](const Json::Value& params) { return Status(params); });
}

Json::Value SupportFormLog::Collect(const Json::Value& params) {
  const Json::Value& app_list = params["app_list"];
  if (!app_list.isArray()) {
    throw ApiError(ApiErrorCode::kBadParameters,
                   R"("app_list" is missing or not an array of application names)");
  }
  if (auto task = HandOver(paths_.socket, limits_.hand_over_wait_ms, app_list)) {
    return Own(task->id, std::move(task->owner));
  }
  const UniqueFd state = OpenStateFolder(paths_.state);
  UniqueFd starting = LockStateFolder(paths_.state, limits_.prepare_wait_ms);
  RemoveLeftovers(state.get());
  NewTask task = CreateTask(state.get());
  starting.Close();  // From here on the task's own locks tell that it is alive.

  try {
    StartDetached(task.lock.get(), [&] { return work_(paths_, task.id, app_list); });
  } catch (...) {
    RemoveTask(state.get(), task.id);
    throw;
  }
  return Own(task.id, std::move(task.owner));
}

/// Keeps a task's owner lock. Returns the data of its "collect".
Json::Value SupportFormLog::Own(const std::string& task_id, UniqueFd owner) {
  ForgetRemoved();
  owners_[task_id] = std::move(owner);
  Json::Value data(Json::objectValue);
  data["task_id"] = task_id;
  return data;
}

/// Gives up the owner locks of tasks whose folders are gone, whoever removed them.
void SupportFormLog::ForgetRemoved() {
  for (auto it = owners_.begin(); it != owners_.end();) {
    const std::string folder = paths_.state + "/" + it->first;
    const bool gone = faccessat(AT_FDCWD, folder.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
    it = gone ? owners_.erase(it) : std::next(it);
  }
}

Json::Value SupportFormLog::Status(const Json::Value& params) const {
  const Json::Value& task = params["task_id"];
  if (!task.isString() || !IsTaskId(task.asString())) {
    throw ApiError(ApiErrorCode::kBadParameters, R"("task_id" is missing or not 32 lower-case hex digits)");
  }
  const std::string id = task.asString();
  const UniqueFd folder = OpenTaskFolder(paths_.state, id);
  if (!folder.valid()) {
    throw ApiError(ApiErrorCode::kUnknownTask,
                   "no task " + id + ": it was never started here, or its folder was removed");
  }
  const std::int64_t deadline = MonotonicMs() + limits_.status_wait_ms;
  std::int64_t pause = kFirstPauseMs;
  while (IsHeld(folder.get(), kLockFile)) {
    const std::int64_t left = deadline - MonotonicMs();
    if (left <= 0) return RunningStatus(folder.get());
    SleepMs(std::min(pause, left));
    pause = std::min(pause * 2, kLongestPauseMs);
  }
  return EndedStatus(folder.get(), id);
}

Json::Value SupportFormLog::RunningStatus(int folder_fd) const {
  std::string text;
  Json::Value progress;
  if (ReadTaskFile(folder_fd, kProgressFile, text)) {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    reader->parse(text.data(), text.data() + text.size(), &progress, nullptr);
  }
  Json::Value data(Json::objectValue);
  data["finished"] = false;
  for (const char* name : {"bytes", "files"}) {
    const bool known = progress.isObject() && progress[name].isUInt64();
    data[name] = known ? progress[name] : Json::Value(0);
  }
  return data;
}

Json::Value SupportFormLog::EndedStatus(int folder_fd, const std::string& task_id) const {
  // The archive of a task that was killed before it was shared can't be read.
  if (faccessat(folder_fd, kArchiveFile, R_OK, AT_SYMLINK_NOFOLLOW) == 0) {
    Json::Value data(Json::objectValue);
    data["finished"] = true;
    data["path"] = paths_.state + "/" + task_id + "/" + kArchiveFile;
    return data;
  }
  const std::string failure = ReadFailure(folder_fd);
  if (!failure.empty()) throw ApiError(ApiErrorCode::kTaskFailed, failure);
  throw ApiError(ApiErrorCode::kTaskKilled, "task " + task_id + " was killed, or its archive was taken away");
}

}  // namespace TARVO::SupportForm
