/// The task folders below the state folder, and the locks that tell who still needs them.
///
/// Each collection has a folder <state>/<task>/. Two flock()s in it tell of two lives:
/// - `lock` is held by the task process: as long as it is, the task is running. Its text is the process's id and, once
///   the task has failed, why: room for that is taken with the file, so that a full device can't hide the cause.
/// - `owner` is held by the process that called "collect": as long as it lives, a finished archive is its own.
///
/// These locks belong to open file descriptions, so a process can probe the locks that it holds itself, and the
/// kernel drops them with their holder, however it ends. Probing takes a shared lock, so that two that probe at the
/// same moment don't take each other for the holder.
///
/// The state folder is locked by "collect" while it removes leftovers and makes its own folder, so that no folder is
/// looked at whose locks are not taken yet. The lock is that of the file <state>.lock, which nobody else can open,
/// and not the folder's own: where an operator lets others read that, they could keep it locked.
///
/// All of it is its owner's alone, unless the task was handed over (see hand_over.h). Then the caller is another user,
/// and the collector runs in that user's group, with which the task is shared: the state folder can be passed by the
/// group, and a task's folder be looked into. The group may write to that folder from the moment on in which the
/// archive is complete, so as to delete it. From then on there may be anything in it.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "collection_limits.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {

inline constexpr const char* kLockFile = "lock";                 ///< See above: the task's life, and its end.
inline constexpr const char* kOwnerFile = "owner";               ///< See above: the life of who asked for it.
inline constexpr const char* kProgressFile = "progress";         ///< A JSON object {"bytes", "files"}.
inline constexpr const char* kNewProgressFile = "progress.new";  ///< The next one, until it is whole.
inline constexpr const char* kSpoolFile = "spool";               ///< Output of a command, unlinked at once.
inline constexpr const char* kUnfinishedFile = "debug.dat.part";  ///< The archive while it is being made.
inline constexpr const char* kArchiveFile = "debug.dat";          ///< The archive, once it is complete.
/// All of the above: what may lie in a task folder, in the order in which it is removed.
inline constexpr std::array<const char*, 7> kTaskFiles = {
    kProgressFile, kNewProgressFile, kSpoolFile, kUnfinishedFile, kArchiveFile, kLockFile, kOwnerFile};

/// Mode of what lies in the folder of a shared task, but for what is still being made.
inline constexpr mode_t kSharedFileMode = 0640;

/// A folder made for a new task.
struct NewTask {
  std::string id;  ///< 32 lower-case hex digits; also the folder's name.
  UniqueFd lock;   ///< The task's lock, held.
  UniqueFd
      owner;  ///< The owner's lock, held. For reading only: whoever gets it can't fill the device with it.
};

/// Whether `text` has the form of a task id.
[[nodiscard]] bool IsTaskId(const std::string& text);

/// Opens the state folder, and makes it where it is missing.
/// @throws ApiError when that fails, or when others may write to the folder or have a say in one above it.
[[nodiscard]] UniqueFd OpenStateFolder(const std::string& path);

/// Opens a task's folder: in the library for "status", in the task's own process for its work.
/// @return Invalid, with errno set, when there is none.
/// @param task_id  One that IsTaskId(): it becomes part of a path.
[[nodiscard]] UniqueFd OpenTaskFolder(const std::string& state_path, const std::string& task_id);

/// Locks the state folder for as long as the result is kept.
/// @throws ApiError when another process holds the lock for longer than `wait_ms`.
[[nodiscard]] UniqueFd LockStateFolder(const std::string& path, unsigned wait_ms);

/// Makes a folder for a new task and takes both its locks. The state folder is locked.
/// @throws ApiError when that fails.
[[nodiscard]] NewTask CreateTask(int state_fd);

/// Shares the state folder with the group of the calling process, whoever's it was.
/// @throws ApiError when that fails.
void ShareStateFolder(int state_fd);

/// Shares a task that CreateTask() has just made with that group.
/// @throws ApiError when that fails.
void ShareTask(int state_fd, const NewTask& task);

/// Whether a task is shared. Asked by its process, before its archive is.
[[nodiscard]] bool IsShared(int folder_fd);

/// Lets the group of a shared task read and delete its complete archive. To be called last: from then on anything may
/// lie in the folder.
/// @throws ApiError when that fails.
void ShareArchive(int folder_fd);

/// How many folders of tasks there are, whether they run or not.
/// @throws ApiError when that can't be told.
[[nodiscard]] std::size_t CountTasks(int state_fd);

/// Writes the calling process's id and, of a task that has failed, why, into the task's lock file, in the place of what
/// stood there. Needs no room on the device, no descriptor, no name and no memory. A long text is cut.
void WriteTaskRecord(int lock_fd, std::string_view failure = {});

/// Why the task has failed, as its process recorded it. Empty when it did not, or was killed.
[[nodiscard]] std::string ReadFailure(int folder_fd);

/// Removes the folders of tasks that have ended and whose archive is gone, failed, or nobody's any more. The
/// state folder is locked. Anything that is no task folder stays.
/// @return The ids of the tasks whose folders are gone.
std::vector<std::string> RemoveLeftovers(int state_fd);

/// Removes a task's folder with the files known to be in it.
/// @return false when something of it is left.
bool RemoveTask(int state_fd, const std::string& task_id);

/// Whether some process holds the lock file `name` of a task folder.
/// @throws ApiError when that can't be told.
[[nodiscard]] bool IsHeld(int folder_fd, const char* name);

}  // namespace TARVO::SupportForm
