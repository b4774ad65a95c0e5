// What support_service_client.h promises of the logger.
#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>

#include "checks.h"
#include "platform/support_service_client.h"
#include "raw_memory.h"

namespace DebugDatPlatformTest {
namespace {

using TarvoOrvane::Utils::LoggerManager;

LoggerManager* LoggerOf(const Platform& platform) {
  return *platform.Get<LoggerManager**>(Symbol::kInstance);
}

using TableOfFunctions = void* const*;

TableOfFunctions TableOf(const LoggerManager* logger) {
  return *reinterpret_cast<const TableOfFunctions*>(logger);
}

/// A loaded file's code or data lies there.
bool LiesInALoadedFile(const void* address) {
  Dl_info info = {};
  return dladdr(address, &info) != 0;
}

/// Null, or an object of a class with virtual operations.
void ExpectLoggerOrNull(const Platform& platform, const std::string& when) {
  const LoggerManager* const logger = LoggerOf(platform);
  if (logger == nullptr) return;
  const std::string what = "instance_ leads to no logger " + when;
  Expect(CanBeRead(logger) && CanBeRead(TableOf(logger)) && LiesInALoadedFile(TableOf(logger)), what);
}

void CheckLoggerAtStart(const Platform& platform) {
  ExpectLoggerOrNull(platform, "after the library was loaded");
}

/// As at start, and after each SIGHUP.
void CheckReconfigure(const Platform& platform) {
  for (int times = 0; times < 3; ++times) {
    platform.Get<void (*)()>(Symbol::kReconfigure)();
    ExpectLoggerOrNull(platform, "after ReconfigureByDebugFlag()");
  }
}

/// Where the text lies whose first look ends the process.
const unsigned char* watched_text = nullptr;
constexpr int kWasRead = 77;

void NoteRead(int, siginfo_t* info, void*) {
  const auto* const at = static_cast<const unsigned char*>(info->si_addr);
  _exit(at >= watched_text && at < watched_text + sizeof(std::string) ? kWasRead : kWasRead + 1);
}

/// A string's place, which ends the process with kWasRead as soon as somebody looks at the string.
const std::string& WatchedText() {
  void* const page = mmap(nullptr, static_cast<std::size_t>(sysconf(_SC_PAGESIZE)), PROT_NONE,
                          MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) throw CannotTell("there is no memory");
  watched_text = static_cast<const unsigned char*>(page);
  struct sigaction note = {};
  note.sa_sigaction = &NoteRead;
  note.sa_flags = SA_SIGINFO;
  sigaction(SIGSEGV, &note, nullptr);
  return *static_cast<const std::string*>(page);
}

/// Logs a line in a process of its own.
/// @return What that exited with; -1 when a signal ended it.
int StatusOfLog(LoggerManager* logger, const std::function<const std::string&()>& text) {
  const pid_t child = fork();
  if (child == 0) {
    logger->Log(LOG_ERR, text());
    _exit(0);
  }
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Whichever function stands third: it is Log if it looks at the text that it is given.
void CheckLog(const Platform& platform) {
  platform.Get<void (*)()>(Symbol::kReconfigure)();
  LoggerManager* const logger = LoggerOf(platform);
  if (logger == nullptr) {
    throw CannotTell("there is no logger, so the lines go to syslog: switch your debug log on");
  }
  Expect(StatusOfLog(logger, &WatchedText) == kWasRead,
         "the third virtual operation does not read the line's text");
  const std::string line = "main.cpp:1 A line of debug_dat_platform_test\n";
  Expect(StatusOfLog(logger, [&]() -> const std::string& { return line; }) == 0, "Log() ended its process");
}

}  // namespace

std::vector<Check> LoggerChecks(const Platform& platform) {
  const auto on = [&platform](void (*check)(const Platform&)) {
    return [&platform, check] { check(platform); };
  };
  return {
      {"logger-at-start",
       "instance_ is null or a logger",
       "Only an object of a class derived from LoggerManager goes there",
       {Symbol::kInstance},
       on(&CheckLoggerAtStart)},
      {"logger-reconfigure",
       "it can be asked again and again",
       "ReconfigureByDebugFlag() has to set instance_ to a logger that stays, or to null, and throw nothing",
       {Symbol::kInstance, Symbol::kReconfigure},
       on(&CheckReconfigure)},
      {"logger-log",
       "Log() is the third virtual operation",
       "Derive the logger from LoggerManager as declared, without a virtual destructor, and have Log() write "
       "the line",
       {Symbol::kInstance, Symbol::kReconfigure},
       on(&CheckLog)},
  };
}

}  // namespace DebugDatPlatformTest
