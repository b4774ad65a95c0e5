#include "logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <limits>

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
  (void)std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
  (void)std::strftime(offset, sizeof offset, "%z", &local);
  char text[64];
  (void)std::snprintf(text, sizeof text, "%s.%03ld%.3s:%s", date, now.tv_nsec / 1000000, offset, offset + 3);
  return text;
}

/// Opens the log file for appending. Lines quote tickets, so nobody but the owner may read it.
ScopedFd OpenLogFile(const std::string& path) {
  ScopedFd file(
      open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0) return ScopedFd();
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return ScopedFd();
  }
  if (fchmod(file.get(), 0600) != 0) return ScopedFd();
  return file;
}

/// The one logger object. It has no lock: a line is one write(), and a new file takes the old one's descriptor
/// number atomically.
class FileLogger final : public Utils::LoggerManager {
 public:
  void Reserved1() override {}
  void Reserved2() override {}

  void Log(int level, const std::string& text) override {
    const int saved_errno = errno;
    const std::string line = FormatLoggerLine(level, text);
    const ssize_t written = TEMP_FAILURE_RETRY(write(fd_.load(), line.data(), line.size()));
    if (written != static_cast<ssize_t>(line.size())) syslog(level, "%s", text.c_str());
    errno = saved_errno;
  }

  bool Open(const std::string& path) {
    const ScopedFd file = OpenLogFile(path);
    return file && Use(file);
  }

  /// Lets go of the file. The descriptor stays: a line that another thread is just writing goes nowhere.
  void Close() {
    const ScopedFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (fd_.load() >= 0 && nowhere) Use(nowhere);
  }

 private:
  bool Use(const ScopedFd& file) {
    if (fd_.load() >= 0) return dup3(file.get(), fd_.load(), O_CLOEXEC) >= 0;
    fd_.store(fcntl(file.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    return fd_.load() >= 0;
  }

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
         LevelWord(level) + ": " + MakePrintable(body, std::numeric_limits<size_t>::max()) + "\n";
}

void ReconfigureLogger(const LoggerPaths& paths) {
  const bool was_on = Utils::LoggerManager::instance_ != nullptr;
  if (access(paths.flag_file.c_str(), F_OK) != 0) {
    SetInstance(nullptr);
    if (was_on) TheLogger().Close();
    return;
  }
  if (!TheLogger().Open(paths.log_file)) {
    syslog(LOG_ERR, "libtarvoorvane: The log file %s can't be opened, log lines stay in syslog: %m",
           paths.log_file.c_str());
    SetInstance(nullptr);
    return;
  }
  if (!was_on) {
    syslog(LOG_NOTICE, "libtarvoorvane: Log lines go to %s for as long as %s exists", paths.log_file.c_str(),
           paths.flag_file.c_str());
  }
  SetInstance(&TheLogger());
}

}  // namespace TarvoOrvane::Internal

namespace TarvoOrvane::Utils {

LoggerManager* LoggerManager::instance_ = nullptr;

void LoggerManager::ReconfigureByDebugFlag() { Internal::ReconfigureLogger({}); }

}  // namespace TarvoOrvane::Utils
