/// The platform of the unit and process tests: stands in for the three platform libraries and, at link
/// time, for the C library functions through which the daemon meets clocks, sleeps, descriptors and
/// processes.
///
/// While a ScriptedPlatform lives, each function does what its script says. Without a script, a platform
/// function does what its member's comment says and a C library function does its real work, except that
/// sleep() and usleep() return at once. Scripts are copied by fork(); what processes are to share lies in a
/// Shared<T>.
#pragma once

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/select.h>
#include <sys/types.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>

#include "log_recorder.h"
#include "platform/support_service_client.h"
#include "shared_memory.h"
#include "temporary_folder.h"

namespace test_support {

/// The C library functions behind the replacements, for scripts and tests.
namespace real {

unsigned Sleep(unsigned seconds);
int Usleep(useconds_t microseconds);
time_t Time();
int Pipe(int* ends);
int Fcntl(int fd, int command, long argument);
int Select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout);
int Close(int fd);
ssize_t Read(int fd, void* buffer, std::size_t size);
ssize_t Write(int fd, const void* buffer, std::size_t size);
pid_t Waitpid(pid_t pid, int* status, int options);
int Unlink(const char* path);
int Kill(pid_t pid, int signal_number);
[[noreturn]] void Exit(int status);

}  // namespace real

/// The scripts. What a comment calls "recorded" is a call in the LogRecorder, also where it is scripted.
/// At most one object lives at a time; a child process keeps its copy.
class ScriptedPlatform {
 public:
  using ClientStatus = TarvoOrvane::FastSupport::FastSupportClient::ClientStatus;
  using SignalHandler = void (*)(int);

  ScriptedPlatform();
  ~ScriptedPlatform();
  ScriptedPlatform(const ScriptedPlatform&) = delete;
  ScriptedPlatform& operator=(const ScriptedPlatform&) = delete;

  /// A folder of this object, removed with it.
  const std::filesystem::path& folder() const { return folder_.path(); }

  /// What the daemon finds in its service configuration file; until the first call there is none. Nothing
  /// on the host is read. Each lookup is recorded as "FromFile(path)", with the path the daemon named.
  void SetServiceConfig(const std::string& text);

  /// Whether LoggerManager::instance_ is set. It starts cleared: lines go to syslog().
  static void UseLogger(bool use);

  /// DebugDatTransmitterDaemon::Run(), as main() calls it. Unscripted: the real one.
  std::function<bool()> run;

  // ---- Core library; all recorded ----
  std::function<int(const char* path)> pid_file_create;  ///< Unscripted: 0.
  std::function<int()> fork;              ///< TLIBCProcFork(). Unscripted: ForkAs(kTransmissionChild).
  std::function<int(int flags)> fork_ex;  ///< TLIBCProcForkEx(). Unscripted: ForkAs(kWorker).
  std::function<int(const char* path)> file_exist;  ///< Unscripted: the truth.

  /// Really forks; the child records under `role`.
  static pid_t ForkAs(const char* role);

  // ---- Web API runner; recorded as "Exec(api, version, method, params, user)" ----
  /// Unscripted: leaves `out` as it is.
  std::function<bool(Json::Value& out, const std::string& method, const Json::Value& params)> exec;

  // ---- Support-service client library; all recorded ----
  std::function<void(const std::string& address)> construct_client;  ///< Unscripted: nothing.
  std::function<TarvoOrvane::FastSupport::ReceiveResult()> receive;  ///< Unscripted: throws logic_error.
  std::function<TarvoOrvane::FastSupport::CallStatus(ClientStatus)> send;    ///< Unscripted: success.
  std::function<void()> reconfigure;                                         ///< Unscripted: nothing.
  std::function<TarvoOrvane::Utils::Optional<std::string>()> serial_number;  ///< Unscripted: "SN123".
  std::function<void(int level, const std::string& text)> log;  ///< Called for each line once recorded.

  // The curl helpers. Recorded: "CurlSetupWriteToString()", "CurlPerform()", "CurlSlistAppend(line)",
  // "CurlHttpPostAdd(name, CURLFORM_FILE, value)".
  /// `response` is the string that the last CurlSetupWriteToString() was given. Unscripted: `response`
  /// becomes {"success":true}.
  std::function<void(TarvoOrvane::Utils::CurlHandle&, std::string& response)> curl_perform;
  std::function<void()> curl_setup_write_to_string;  ///< Called before it does its work; may throw.
  std::function<void(const std::string& line)> curl_slist_append;   ///< Called before the real append.
  std::function<void(const std::string& name)> curl_http_post_add;  ///< Called before the real addition.

  // libcurl itself. Recorded: "curl_easy_setopt(NAME, value)" with a number, a text, or "pointer" as value
  // ("null" for a null one), "curl_easy_init()", "curl_easy_cleanup()", "curl_slist_free_all()",
  // "curl_formfree()".
  std::function<CURLcode(const std::string& name)> curl_easy_setopt;  ///< CURLE_OK: goes on to libcurl.
  std::function<CURL*()> curl_easy_init;                              ///< Unscripted: libcurl's.

  // ---- C library ----
  // Recorded: sleep, usleep, srand, daemon, openlog, unlink, signal, kill, _exit, abort.
  std::function<unsigned(unsigned)> sleep;  ///< Unscripted: 0, at once.
  std::function<int(useconds_t)> usleep;    ///< Unscripted: 0, at once.
  std::function<time_t()> time;
  std::function<int()> rand;
  std::function<void(unsigned)> srand;
  std::function<int(const std::string& format, int length)> snprintf;  ///< Called with snprintf()'s result.
  std::function<int(int, int)> daemon;  ///< Unscripted: 0, and the process stays what it is.
  std::function<int(int*)> pipe;
  std::function<int(int fd, int command, long argument)> fcntl;
  std::function<int(int, fd_set*, fd_set*, fd_set*, timeval*)> select;
  std::function<int(int)> close;
  std::function<ssize_t(int, void*, std::size_t)> read;
  std::function<ssize_t(int, const void*, std::size_t)> write;
  std::function<pid_t(pid_t, int*, int)> waitpid;
  std::function<int(const char*)> unlink;
  std::function<SignalHandler(int, SignalHandler)> signal;
  std::function<int(pid_t, int)> kill;

  // ---- Used by the replacements ----
  static ScriptedPlatform* current();
  std::string service_config_path() const { return folder_.File("tarvomibserver.conf"); }
  std::string* response = nullptr;  ///< What the last CurlSetupWriteToString() was given.

 private:
  const TemporaryFolder folder_;
};

/// A test with a scripted platform and a recorder.
class ScriptedPlatformTest : public ::testing::Test {
 protected:
  LogRecorder log_;
  ScriptedPlatform platform_;
};

}  // namespace test_support
