#include "task_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "api_error.h"
#include "file_util.h"
#include "trusted_path.h"

namespace TARVO::SupportForm {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr std::size_t kIdBytes = 16;
constexpr std::int64_t kLockLookMs = 10;
/// Bytes of the text in a task's lock file, which lie on the device from the beginning.
constexpr std::size_t kRecordBytes = 4096;
constexpr mode_t kReadableFolderMode = 0750;
constexpr mode_t kWritableFolderMode = 0770;

[[noreturn]] void Fail(const std::string& what) {
  throw ApiError(ApiErrorCode::kSystem, what + ": " + ErrorText(errno));
}

/// Makes the folders above `path`.
void MakeParents(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string parent = path.substr(0, slash);
    if (mkdir(parent.c_str(), 0755) != 0 && errno != EEXIST) Fail("the folder " + parent + " can't be made");
  }
}

std::string ParentOf(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

/// Refuses a folder, which need not be there, if somebody else has a say in what lies there: they could put a folder of
/// theirs in the place of ours, and have the caller upload and delete what is their choice.
void RefuseForeign(const std::string& folder) {
  const OpenedPath judged = OpenTrusted(folder, O_PATH | O_DIRECTORY);
  if (judged.distrust) throw ApiError(ApiErrorCode::kSystem, judged.distrust.Line());
}

std::string RandomId() {
  std::array<unsigned char, kIdBytes> bytes = {};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    Fail("no random numbers for a task id");
  }
  return HexText(bytes.data(), bytes.size());
}

UniqueFd CreateLock(int folder_fd, const char* name, int access) {
  UniqueFd fd(openat(folder_fd, name, access | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd.valid() || flock(fd.get(), LOCK_EX | LOCK_NB) != 0) Fail("the task's lock can't be taken");
  return fd;
}

/// Keeps the signal for a file that would pass the process's size limit from the caller: its default is to end the
/// process.
class FileSizeSignalBlocked {
 public:
  FileSizeSignalBlocked() {
    sigemptyset(&signal_);
    sigaddset(&signal_, SIGXFSZ);
    sigprocmask(SIG_BLOCK, &signal_, &before_);
  }
  FileSizeSignalBlocked(const FileSizeSignalBlocked&) = delete;
  FileSizeSignalBlocked& operator=(const FileSizeSignalBlocked&) = delete;
  ~FileSizeSignalBlocked() {
    const timespec now = {};
    static_cast<void>(sigtimedwait(&signal_, nullptr, &now));  // takes the one that is pending, if any
    sigprocmask(SIG_SETMASK, &before_, nullptr);
  }

 private:
  sigset_t signal_;
  sigset_t before_;
};

/// Takes the room for the task's record.
void FillRecord(int lock_fd) {
  const FileSizeSignalBlocked blocked;
  if (!WriteAll(lock_fd, std::string(kRecordBytes, '\0'))) Fail("there is no room for the task's state");
}

/// The names of the task folders.
std::vector<std::string> TaskIds(int state_fd) {
  std::vector<std::string> ids;
  // A descriptor of its own: a duplicate would share the place in the list with `state_fd`.
  const int fd = openat(state_fd, ".", kFolderFlags);
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(fd < 0 ? nullptr : fdopendir(fd), &closedir);
  if (!stream) {
    if (fd >= 0) close(fd);
    Fail("the tasks can't be listed");
  }
  while (const dirent* entry = readdir(stream.get())) {
    if (IsTaskId(entry->d_name)) ids.emplace_back(entry->d_name);
  }
  return ids;
}

/// A process may give what is its own to any group that it belongs to; that takes no right of root's.
void Share(int fd, mode_t mode) {
  if (fchown(fd, static_cast<uid_t>(-1), getegid()) != 0 || fchmod(fd, mode) != 0) {
    Fail("the task can't be shared with its caller's group");
  }
}

/// Whether nobody needs the task's folder any more.
bool IsLeftover(int folder_fd) {
  if (IsHeld(folder_fd, kLockFile)) return false;
  const bool has_archive = faccessat(folder_fd, kArchiveFile, F_OK, AT_SYMLINK_NOFOLLOW) == 0;
  return !has_archive || !IsHeld(folder_fd, kOwnerFile);
}

}  // namespace

bool IsTaskId(const std::string& text) {
  return text.size() == 2 * kIdBytes && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

UniqueFd OpenStateFolder(const std::string& path) {
  RefuseForeign(ParentOf(path));
  MakeParents(path);
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) Fail("the folder " + path + " can't be made");
  RefuseForeign(ParentOf(path));
  UniqueFd fd(open(path.c_str(), kFolderFlags));
  struct stat status = {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) Fail("the folder " + path + " can't be opened");
  if (status.st_uid != geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw ApiError(ApiErrorCode::kSystem,
                   "the folder " + path +
                       " belongs to another user or can be written to by others: make it "
                       "the caller's own, mode 0700");
  }
  return fd;
}

UniqueFd OpenTaskFolder(const std::string& state_path, const std::string& task_id) {
  return UniqueFd(open((state_path + "/" + task_id).c_str(), kFolderFlags));
}

UniqueFd LockStateFolder(const std::string& path, unsigned wait_ms) {
  UniqueFd lock(open((path + ".lock").c_str(),
                     O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600));
  if (!lock.valid()) Fail("the file " + path + ".lock can't be opened");
  const std::int64_t deadline = MonotonicMs() + wait_ms;
  while (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) Fail("the state folder can't be locked");
    if (MonotonicMs() >= deadline) {
      throw ApiError(ApiErrorCode::kSystem,
                     "another collection has been starting for too long; try again later");
    }
    SleepMs(kLockLookMs);
  }
  return lock;
}

NewTask CreateTask(int state_fd) {
  NewTask task;
  task.id = RandomId();
  if (mkdirat(state_fd, task.id.c_str(), 0700) != 0) Fail("the task's folder can't be made");
  try {
    const UniqueFd folder(openat(state_fd, task.id.c_str(), kFolderFlags));
    if (!folder.valid()) Fail("the task's folder can't be opened");
    task.lock = CreateLock(folder.get(), kLockFile, O_RDWR);
    FillRecord(task.lock.get());
    task.owner = CreateLock(folder.get(), kOwnerFile, O_RDONLY);
  } catch (...) {
    RemoveTask(state_fd, task.id);
    throw;
  }
  return task;
}

void ShareStateFolder(int state_fd) { Share(state_fd, kReadableFolderMode); }

void ShareTask(int state_fd, const NewTask& task) {
  Share(task.lock.get(), kSharedFileMode);
  Share(task.owner.get(), kSharedFileMode);
  const UniqueFd folder(openat(state_fd, task.id.c_str(), kFolderFlags));
  Share(folder.get(), kReadableFolderMode);
}

bool IsShared(int folder_fd) {
  struct stat status = {};
  return fstat(folder_fd, &status) == 0 && (status.st_mode & 07777U) == kReadableFolderMode;
}

void ShareArchive(int folder_fd) {
  const UniqueFd archive(openat(folder_fd, kArchiveFile, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  Share(archive.get(), kSharedFileMode);
  Share(folder_fd, kWritableFolderMode);
}

std::size_t CountTasks(int state_fd) { return TaskIds(state_fd).size(); }

void WriteTaskRecord(int lock_fd, std::string_view failure) {
  std::array<char, kRecordBytes> text = {};
  std::size_t size = static_cast<std::size_t>(snprintf(text.data(), text.size(), "%ld\n", long{getpid()}));
  size += failure.copy(text.data() + size, text.size() - size - 1);
  static_cast<void>(
      !pwrite(lock_fd, text.data(), size + 1, 0));  // with a zero: a longer text may stand there
}

std::string ReadFailure(int folder_fd) {
  const UniqueFd fd(openat(folder_fd, kLockFile, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  std::string text;
  bool more = false;
  if (!fd.valid() || !ReadUpTo(fd.get(), kRecordBytes, text, more)) return {};
  text.resize(std::min(text.find('\0'), text.size()));
  const std::size_t line_end = text.find('\n');
  return line_end == std::string::npos ? std::string() : text.substr(line_end + 1);
}

std::vector<std::string> RemoveLeftovers(int state_fd) {
  std::vector<std::string> removed;
  for (const std::string& id : TaskIds(state_fd)) {
    const UniqueFd folder(openat(state_fd, id.c_str(), kFolderFlags));
    try {
      if (folder.valid() && IsLeftover(folder.get()) && RemoveTask(state_fd, id)) removed.push_back(id);
    } catch (const ApiError&) {  // a folder that can't be judged must not keep new tasks from starting
    }
  }
  return removed;
}

bool RemoveTask(int state_fd, const std::string& task_id) {
  const UniqueFd folder(openat(state_fd, task_id.c_str(), kFolderFlags));
  if (!folder.valid()) return errno == ENOENT;
  for (const char* name : kTaskFiles) unlinkat(folder.get(), name, 0);
  return unlinkat(state_fd, task_id.c_str(), AT_REMOVEDIR) == 0;
}

bool IsHeld(int folder_fd, const char* name) {
  const UniqueFd fd(openat(folder_fd, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!fd.valid()) {
    if (errno == ENOENT || errno == ELOOP) return false;
    Fail("the task's lock can't be opened");
  }
  while (flock(fd.get(), LOCK_SH | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) return true;
    if (errno != EINTR) Fail("the task's lock can't be probed");
  }
  return false;
}

}  // namespace TARVO::SupportForm
