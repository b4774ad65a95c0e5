#include "logger.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <utility>

#include "library_log.h"
#include "platform/support_service_client.h"
#include "scoped_fd.h"

namespace TarvoOrvane::Internal {
namespace {

const char* LevelWord(int level) {
  static constexpr const char* kWords[] = {"emerg",   "alert",  "crit", "error",
                                           "warning", "notice", "info", "debug"};
  return kWords[LOG_PRI(level)];
}

std::string Now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char date[32];
  char offset[8];
  static_cast<void>(std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local));
  static_cast<void>(std::strftime(offset, sizeof offset, "%z", &local));
  char text[64];
  static_cast<void>(
      std::snprintf(text, sizeof text, "%s.%03ld%.3s:%s", date, now.tv_nsec / 1000000, offset, offset + 3));
  return text;
}

/// Where the log file lies, and whose it may be beside the daemon's own.
struct LogPlace {
  std::string path;
  uid_t owner = geteuid();
};

/// A daemon without root's rights can make no file in /var/log. So where root has put a link in the log file's place, it
/// lies where that leads to: in a folder of that daemon's user. Any other link is refused when it is opened. The pid
/// file's library has the same rule; device makers may replace either, so they share no code.
LogPlace FollowRootsLink(const std::string& path) {
  namespace fs = std::filesystem;
  struct stat link {};
  struct stat folder {};
  const fs::path parent = fs::path(path).parent_path();
  const bool is_roots = lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode) && link.st_uid == 0 &&
                        stat(parent.c_str(), &folder) == 0 && folder.st_uid == 0 &&
                        (folder.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  std::error_code error;
  const fs::path target = is_roots ? parent / fs::read_symlink(path, error) : fs::path();
  if (!is_roots || error || stat(target.parent_path().c_str(), &folder) != 0) return {path};
  return {target.string(), folder.st_uid};
}

/// Opens the log file for appending. Lines quote tickets, so nobody but the owner may read it. What somebody else may
/// have put there is refused: a file of their own, or a second name of another file.
/// @param fault  Why it can't be opened; untouched otherwise.
ScopedFd OpenLogFile(const LogPlace& place, std::string& fault) {
  ScopedFd file(open(place.path.c_str(),
                     O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600));
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0) {
    fault = std::generic_category().message(errno);
    return ScopedFd();
  }
  const bool is_ours = status.st_uid == geteuid() || status.st_uid == place.owner;
  if (!S_ISREG(status.st_mode) || !is_ours || status.st_nlink > 1) {
    fault = "it is no file of the daemon's own with one name; remove it";
    return ScopedFd();
  }
  const bool is_to_give = status.st_uid != place.owner;  // what root begins, the other goes on with
  if (fchmod(file.get(), 0600) != 0 || (is_to_give && fchown(file.get(), place.owner, -1U) != 0)) {
    fault = std::generic_category().message(errno);
    return ScopedFd();
  }
  return file;
}

/// What became of a line that was written to a file.
enum class Outcome {
  kKept,
  kKeptAndFull,
  kGone,    ///< The file has no name any more: it was renamed twice, or removed, since it was opened.
  kFailed,  ///< It could not be written whole.
};

Outcome Append(int fd, const std::string& line, std::size_t max_file_bytes) {
  struct stat status {};
  if (TEMP_FAILURE_RETRY(write(fd, line.data(), line.size())) != static_cast<ssize_t>(line.size()) ||
      fstat(fd, &status) != 0) {
    return Outcome::kFailed;
  }
  if (!S_ISREG(status.st_mode) || status.st_nlink == 0) return Outcome::kGone;
  return static_cast<std::size_t>(status.st_size) < max_file_bytes ? Outcome::kKept : Outcome::kKeptAndFull;
}

/// Whether `path` still names the open file.
bool IsNamed(int fd, const std::string& path) {
  struct stat open_file {};
  struct stat named_file {};
  return fstat(fd, &open_file) == 0 && lstat(path.c_str(), &named_file) == 0 &&
         open_file.st_dev == named_file.st_dev && open_file.st_ino == named_file.st_ino;
}

/// Renames the full file, unless another process is about to or has done so. Nobody waits for the lock, so that a
/// process that is stopped while it holds it stops no other.
/// @param locked_or_not  Renames it though somebody holds the lock. Whoever opened it when its mode still let them
///                       may hold the lock for ever.
void RenameFullFile(const ScopedFd& file, const std::string& path, bool locked_or_not) {
  if (flock(file.get(), LOCK_EX | LOCK_NB) != 0 && !locked_or_not) return;
  if (IsNamed(file.get(), path)) static_cast<void>(rename(path.c_str(), (path + ".1").c_str()));
  static_cast<void>(flock(file.get(), LOCK_UN));
}

std::size_t SizeOf(const ScopedFd& file) {
  struct stat status {};
  return file && fstat(file.get(), &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

/// The file to go on with: the one that `path` names, or a new one in the place of a full one.
/// @return None when it can't be opened, or when it has twice the size that it may have and can't be renamed.
ScopedFd OpenSuccessor(const LogPlace& place, std::size_t max_file_bytes) {
  std::string fault;
  ScopedFd file = OpenLogFile(place, fault);
  if (SizeOf(file) < max_file_bytes) return file;
  RenameFullFile(file, place.path, SizeOf(file) >= 2 * max_file_bytes);
  ScopedFd next = OpenLogFile(place, fault);
  return SizeOf(next) < 2 * max_file_bytes ? std::move(next) : ScopedFd();
}

/// The one logger object. Writing takes no lock: each line has its own duplicate of the descriptor, so that it is
/// known which file took it, whatever other threads do meanwhile.
class FileLogger final : public Utils::LoggerManager {
 public:
  void Reserved1() override {}
  void Reserved2() override {}

  /// Leaves errno as it was: callers log what failed, and then look at it.
  void Log(int level, const std::string& text) override {
    const int saved_errno = errno;
    if (!Keep(FormatLoggerLine(level, text))) syslog(level, "%s", text.c_str());
    errno = saved_errno;
  }

  /// Lets go of the former file in any case.
  /// @param fault  Why it can't be opened.
  bool Open(const std::string& path, std::size_t max_file_bytes, std::string& fault) {
    const std::lock_guard<std::mutex> lock(mutex_);
    place_ = FollowRootsLink(path);
    max_file_bytes_ = max_file_bytes;
    const ScopedFd file = OpenLogFile(place_, fault);
    const bool opened = file && Use(file);
    if (!opened) UseNothing();
    return opened;
  }

  void Close() {
    const std::lock_guard<std::mutex> lock(mutex_);
    place_.path.clear();
    UseNothing();
  }

 private:
  /// @return Whether the line is in a file that has a name.
  bool Keep(const std::string& line) {
    constexpr int kMaxTries = 10;  // the file may go again while this thread is off the processor
    for (int tries = 0; tries < kMaxTries; ++tries) {
      const Outcome outcome = Write(line);
      if (outcome != Outcome::kGone) return outcome != Outcome::kFailed;
    }
    return false;
  }

  Outcome Write(const std::string& line) {
    const ScopedFd file(fcntl(fd_.load(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!file) return Outcome::kFailed;
    const Outcome outcome = Append(file.get(), line, max_file_bytes_);
    if (outcome == Outcome::kKeptAndFull || outcome == Outcome::kGone) Follow();
    return outcome;
  }

  /// Goes over to the file's successor. While there is none, lines go to syslog: a file that stays full, or has no
  /// name, would fill the disk unseen.
  void Follow() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (place_.path.empty()) return;
    const ScopedFd successor = OpenSuccessor(place_, max_file_bytes_);
    if (successor) {
      Use(successor);
    } else {
      UseNothing();
    }
  }

  bool Use(const ScopedFd& file) {
    if (fd_.load() >= 0) return dup3(file.get(), fd_.load(), O_CLOEXEC) >= 0;
    fd_.store(fcntl(file.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    return fd_.load() >= 0;
  }

  /// The descriptor stays, on a device that keeps nothing: a line of a thread that had the logger still is found
  /// gone there, and goes to syslog.
  void UseNothing() {
    const ScopedFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (fd_.load() >= 0 && nowhere) Use(nowhere);
  }

  // Held for opening and renaming only. The one process that forks, the supervisor, has one thread.
  std::mutex mutex_;
  LogPlace place_;  ///< Its path is empty while closed.
  std::atomic<std::size_t> max_file_bytes_{0};
  std::atomic<int> fd_{-1};
};

FileLogger& TheLogger() {
  static auto& logger = *new FileLogger;  // never destroyed: lines may come until the process is gone
  return logger;
}

void SetInstance(Utils::LoggerManager* logger) {
  __atomic_store_n(&Utils::LoggerManager::instance_, logger, __ATOMIC_RELEASE);
}

}  // namespace

std::string FormatLoggerLine(int level, const std::string& text) {
  std::string body = text;
  if (!body.empty() && body.back() == '\n') body.pop_back();
  return Now() + " " + program_invocation_short_name + "[" + std::to_string(getpid()) + "] " +
         LevelWord(level) + ": " + MakePrintable(body, kMaxLineText) + "\n";
}

void ReconfigureLogger(const LoggerOptions& options) {
  const bool was_on = Utils::LoggerManager::instance_ != nullptr;
  if (access(options.flag_file.c_str(), F_OK) != 0) {
    SetInstance(nullptr);
    if (was_on) TheLogger().Close();
    return;
  }
  std::string fault;
  if (!TheLogger().Open(options.log_file, options.max_file_bytes, fault)) {
    syslog(LOG_ERR, "libtarvoorvane: The log file %s can't be opened, log lines stay in syslog: %s",
           options.log_file.c_str(), fault.c_str());
    SetInstance(nullptr);
    return;
  }
  if (!was_on) {
    syslog(LOG_NOTICE, "libtarvoorvane: Log lines go to %s for as long as %s exists",
           options.log_file.c_str(), options.flag_file.c_str());
  }
  // Whoever started the daemon may have limited the size of files. Beyond that a write fails; it ends no process.
  static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
  SetInstance(&TheLogger());
}

}  // namespace TarvoOrvane::Internal

namespace TarvoOrvane::Utils {

LoggerManager* LoggerManager::instance_ = nullptr;

void LoggerManager::ReconfigureByDebugFlag() { Internal::ReconfigureLogger({}); }

}  // namespace TarvoOrvane::Utils
