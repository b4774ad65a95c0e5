#include "scripted_platform.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "child_process.h"
#include "json_util.h"
#include "platform/core.h"
#include "platform/web_api_runner.h"

using TarvoOrvane::FastSupport::CallStatus;
using TarvoOrvane::FastSupport::ReceiveResult;
using TarvoOrvane::Utils::LoggerManager;

// The linker's names for the replacements and for what they replace, and the mangled names of FromFile() and Run().
#define WRAP(name) __wrap_##name
#define REAL(name) __real_##name
#define FROM_FILE(prefix) \
  prefix##_ZN11TarvoOrvane5Utils8FromFileERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERN4Json5ValueE

#define RUN(prefix) prefix##_ZN25DebugDatTransmitterDaemon3RunEv

extern "C" {
unsigned REAL(sleep)(unsigned);
int REAL(usleep)(useconds_t);
time_t REAL(time)(time_t*);
int REAL(rand)();
void REAL(srand)(unsigned);
int REAL(pipe)(int*);
int REAL(fcntl)(int, int, ...);
int REAL(select)(int, fd_set*, fd_set*, fd_set*, timeval*);
int REAL(close)(int);
ssize_t REAL(read)(int, void*, std::size_t);
ssize_t REAL(write)(int, const void*, std::size_t);
pid_t REAL(waitpid)(pid_t, int*, int);
int REAL(unlink)(const char*);
test_support::ScriptedPlatform::SignalHandler REAL(signal)(int,
                                                           test_support::ScriptedPlatform::SignalHandler);
int REAL(kill)(pid_t, int);
[[noreturn]] void REAL(_exit)(int);
[[noreturn]] void REAL(abort)();
CURL* REAL(curl_easy_init)();
CURLcode REAL(curl_easy_setopt)(CURL*, CURLoption, ...);
void REAL(curl_easy_cleanup)(CURL*);
void REAL(curl_slist_free_all)(curl_slist*);
void REAL(curl_formfree)(curl_httppost*);
bool FROM_FILE(__real_)(const std::string&, Json::Value&);
bool RUN(__real_)(void*);
}

namespace test_support {

namespace {

constexpr char kServiceConfigPath[] = "/usr/tarvo/etc/tarvomibserver.conf";

ScriptedPlatform* current_platform = nullptr;

/// Calls the script, if there is one, otherwise `otherwise`.
template <typename Result, typename... Args, typename Otherwise, typename... Given>
Result Perform(std::function<Result(Args...)> ScriptedPlatform::*script, const Otherwise& otherwise,
               Given&&... args) {
  if (current_platform != nullptr && current_platform->*script) {
    return (current_platform->*script)(std::forward<Given>(args)...);
  }
  return otherwise(std::forward<Given>(args)...);
}

std::string Number(long long number) { return std::to_string(number); }

class RecordingLogger final : public LoggerManager {
 public:
  void Reserved1() override { RecordCall("LoggerManager::Reserved1()"); }
  void Reserved2() override { RecordCall("LoggerManager::Reserved2()"); }
  void Log(int level, const std::string& text) override {
    if (LogRecorder::current() != nullptr) LogRecorder::current()->AddLine(true, level, text, "");
    Perform(
        &ScriptedPlatform::log, [](int, const std::string&) {}, level, text);
  }
};

RecordingLogger recording_logger;

}  // namespace

ScriptedPlatform::ScriptedPlatform() {
  if (current_platform != nullptr) abort();
  current_platform = this;
  UseLogger(false);
}

ScriptedPlatform::~ScriptedPlatform() {
  UseLogger(false);
  current_platform = nullptr;
}

ScriptedPlatform* ScriptedPlatform::current() { return current_platform; }

void ScriptedPlatform::SetServiceConfig(const std::string& text) {
  std::ofstream(service_config_path(), std::ios::binary) << text;
}

void ScriptedPlatform::UseLogger(bool use) { LoggerManager::instance_ = use ? &recording_logger : nullptr; }

pid_t ScriptedPlatform::ForkAs(const char* role) {
  static_cast<void>(fflush(nullptr));
  const pid_t pid = ::fork();
  if (pid == 0) LogRecorder::SetRole(role);
  return pid;
}

namespace real {

unsigned Sleep(unsigned seconds) { return REAL(sleep)(seconds); }
int Usleep(useconds_t microseconds) { return REAL(usleep)(microseconds); }
time_t Time() { return REAL(time)(nullptr); }
int Pipe(int* ends) { return REAL(pipe)(ends); }
int Fcntl(int fd, int command, long argument) { return REAL(fcntl)(fd, command, argument); }
int Select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
  return REAL(select)(count, readable, writable, exceptional, timeout);
}
int Close(int fd) { return REAL(close)(fd); }
ssize_t Read(int fd, void* buffer, std::size_t size) { return REAL(read)(fd, buffer, size); }
ssize_t Write(int fd, const void* buffer, std::size_t size) { return REAL(write)(fd, buffer, size); }
pid_t Waitpid(pid_t pid, int* status, int options) { return REAL(waitpid)(pid, status, options); }
int Unlink(const char* path) { return REAL(unlink)(path); }
int Kill(pid_t pid, int signal_number) { return REAL(kill)(pid, signal_number); }
void Exit(int status) { REAL(_exit)(status); }

}  // namespace real

namespace {

void RecordSyslog(int level, const char* format, va_list arguments) {
  if (LogRecorder::current() == nullptr) return;
  const int saved_errno = errno;
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(nullptr, 0, format, arguments);
  std::string text(length < 0 ? 0 : static_cast<std::size_t>(length), '\0');
  errno = saved_errno;
  static_cast<void>(vsnprintf(text.data(), text.size() + 1, format, again));
  va_end(again);
  LogRecorder::current()->AddLine(false, level, text, format);
  Perform(
      &ScriptedPlatform::log, [](int, const std::string&) {}, level, text);
}

std::string OptionName(CURLoption option) {
  const curl_easyoption* const known = curl_easy_option_by_id(option);
  return known != nullptr ? known->name : Number(option);
}

std::string OptionText(CURLoption option, const void* value) {
  if (value == nullptr) return "null";
  const curl_easyoption* const known = curl_easy_option_by_id(option);
  const bool is_text = known != nullptr && (known->type == CURLOT_STRING || option == CURLOPT_POSTFIELDS);
  return is_text ? static_cast<const char*>(value) : "pointer";
}

}  // namespace

}  // namespace test_support

using test_support::current_platform;
using test_support::Number;
using test_support::Perform;
using test_support::RecordCall;
using test_support::ScriptedPlatform;

// ======== Core library ========

int TLIBCProcPidFileCreate(const char* path) {
  RecordCall(std::string("TLIBCProcPidFileCreate(") + path + ")");
  return Perform(
      &ScriptedPlatform::pid_file_create, [](const char*) { return 0; }, path);
}

int TLIBCProcFork() {
  RecordCall("TLIBCProcFork()");
  return Perform(&ScriptedPlatform::fork,
                 [] { return ScriptedPlatform::ForkAs(test_support::kTransmissionChild); });
}

int TLIBCProcForkEx(int flags) {
  RecordCall("TLIBCProcForkEx(" + Number(flags) + ")");
  return Perform(
      &ScriptedPlatform::fork_ex, [](int) { return ScriptedPlatform::ForkAs(test_support::kWorker); }, flags);
}

int TLIBCFileExist(const char* path) {
  RecordCall(std::string("TLIBCFileExist(") + path + ")");
  return Perform(
      &ScriptedPlatform::file_exist, [](const char* file) { return access(file, F_OK) == 0 ? 1 : 0; }, path);
}

// ======== Web API runner ========

bool TARVO::APIRunner::Exec(Json::Value& out, const char* api, int version, const char* method,
                            const Json::Value& params, const char* user) {
  RecordCall(std::string("Exec(") + api + ", " + Number(version) + ", " + method + ", " +
             TarvoOrvane::Utils::ToString(params) + ", " + user + ")");
  return Perform(
      &ScriptedPlatform::exec, [](Json::Value&, const std::string&, const Json::Value&) { return true; }, out,
      std::string(method), params);
}

// ======== Support-service client library ========

namespace TarvoOrvane::FastSupport {

class FastSupportClient::Impl {};

FastSupportClient::FastSupportClient(const std::string& address) : impl_(std::make_unique<Impl>()) {
  RecordCall("FastSupportClient(" + address + ")");
  Perform(
      &ScriptedPlatform::construct_client, [](const std::string&) {}, address);
}

FastSupportClient::~FastSupportClient() { RecordCall("~FastSupportClient()"); }

ReceiveResult FastSupportClient::Receive() {
  RecordCall("Receive()");
  return Perform(&ScriptedPlatform::receive,
                 []() -> ReceiveResult { throw std::logic_error("Receive() is not scripted"); });
}

CallStatus FastSupportClient::Send(ClientStatus status) {
  RecordCall("Send(" + Number(status) + ")");
  return Perform(
      &ScriptedPlatform::send, [](ClientStatus) { return CallStatus(); }, status);
}

}  // namespace TarvoOrvane::FastSupport

namespace TarvoOrvane::Utils {

LoggerManager* LoggerManager::instance_ = nullptr;

void LoggerManager::ReconfigureByDebugFlag() {
  RecordCall("ReconfigureByDebugFlag()");
  Perform(&ScriptedPlatform::reconfigure, [] {});
}

Optional<std::string> GetSerialNumber() {
  RecordCall("GetSerialNumber()");
  return Perform(&ScriptedPlatform::serial_number,
                 [] { return Optional<std::string>(std::string("SN123")); });
}

void CurlSetupWriteToString(CurlHandle&, std::string& out) {
  RecordCall("CurlSetupWriteToString()");
  Perform(&ScriptedPlatform::curl_setup_write_to_string, [] {});
  if (current_platform != nullptr) current_platform->response = &out;
}

void CurlPerform(CurlHandle& handle) {
  RecordCall("CurlPerform()");
  if (current_platform == nullptr || current_platform->response == nullptr) {
    throw std::logic_error("CurlPerform() without CurlSetupWriteToString()");
  }
  Perform(
      &ScriptedPlatform::curl_perform,
      [](CurlHandle&, std::string& response) { response = "{\"success\":true}"; }, handle,
      *current_platform->response);
}

void CurlSlistAppend(CurlHeaderList& list, const std::string& line) {
  RecordCall("CurlSlistAppend(" + line + ")");
  Perform(
      &ScriptedPlatform::curl_slist_append, [](const std::string&) {}, line);
  curl_slist* const grown = curl_slist_append(list.get(), line.c_str());
  if (grown == nullptr) throw std::runtime_error("curl_slist_append");
  static_cast<void>(list.release());  // the grown list is the same list, or the first one
  list.reset(grown);
}

void CurlHttpPostAdd(CurlHttpPost& form, const std::string& name, const CURLformoption& option,
                     const std::string& value) {
  const std::string kind = option == CURLFORM_FILE           ? "CURLFORM_FILE"
                           : option == CURLFORM_COPYCONTENTS ? "CURLFORM_COPYCONTENTS"
                                                             : Number(option);
  RecordCall("CurlHttpPostAdd(" + name + ", " + kind + ", " + value + ")");
  Perform(
      &ScriptedPlatform::curl_http_post_add, [](const std::string&) {}, name);
  curl_httppost* first = form.first.release();
  const CURLFORMcode code =
      curl_formadd(&first, &form.last, CURLFORM_COPYNAME, name.c_str(), option, value.c_str(), CURLFORM_END);
  form.first.reset(first);
  if (code != CURL_FORMADD_OK) throw CurlFormFailedException(code, "CurlHttpPostAdd: " + name);
}

}  // namespace TarvoOrvane::Utils

// ======== C library, libcurl, FromFile() and Run(), in place of the real ones through the linker's --wrap ========

extern "C" {

void WRAP(syslog)(int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  test_support::RecordSyslog(level, format, arguments);
  va_end(arguments);
}

void WRAP(openlog)(const char*, int, int) { RecordCall("openlog()"); }

unsigned WRAP(sleep)(unsigned seconds) {
  RecordCall("sleep(" + Number(seconds) + ")");
  return Perform(
      &ScriptedPlatform::sleep, [](unsigned) { return 0U; }, seconds);
}

int WRAP(snprintf)(char* buffer, std::size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return Perform(
      &ScriptedPlatform::snprintf, [](const std::string&, int result) { return result; }, format, length);
}

int WRAP(usleep)(useconds_t microseconds) {
  RecordCall("usleep(" + Number(microseconds) + ")");
  return Perform(
      &ScriptedPlatform::usleep, [](useconds_t) { return 0; }, microseconds);
}

time_t WRAP(time)(time_t* out) {
  const time_t now = Perform(&ScriptedPlatform::time, [] { return REAL(time)(nullptr); });
  if (out != nullptr) *out = now;
  return now;
}

int WRAP(rand)() { return Perform(&ScriptedPlatform::rand, REAL(rand)); }

void WRAP(srand)(unsigned seed) {
  RecordCall("srand(" + Number(seed) + ")");
  Perform(&ScriptedPlatform::srand, REAL(srand), seed);
}

int WRAP(daemon)(int stay_in_directory, int keep_streams) {
  RecordCall("daemon(" + Number(stay_in_directory) + ", " + Number(keep_streams) + ")");
  return Perform(
      &ScriptedPlatform::daemon, [](int, int) { return 0; }, stay_in_directory, keep_streams);
}

int WRAP(pipe)(int* ends) { return Perform(&ScriptedPlatform::pipe, REAL(pipe), ends); }

int WRAP(fcntl)(int fd, int command, ...) {
  long argument = 0;
  if (command != F_GETFL && command != F_GETFD) {
    va_list arguments;
    va_start(arguments, command);
    argument = command == F_SETFL || command == F_SETFD ? va_arg(arguments, int) : va_arg(arguments, long);
    va_end(arguments);
  }
  return Perform(&ScriptedPlatform::fcntl, test_support::real::Fcntl, fd, command, argument);
}

int WRAP(select)(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
  return Perform(&ScriptedPlatform::select, REAL(select), count, readable, writable, exceptional, timeout);
}

int WRAP(close)(int fd) { return Perform(&ScriptedPlatform::close, REAL(close), fd); }

ssize_t WRAP(read)(int fd, void* buffer, std::size_t size) {
  return Perform(&ScriptedPlatform::read, REAL(read), fd, buffer, size);
}

ssize_t WRAP(write)(int fd, const void* buffer, std::size_t size) {
  return Perform(&ScriptedPlatform::write, REAL(write), fd, buffer, size);
}

pid_t WRAP(waitpid)(pid_t pid, int* status, int options) {
  return Perform(&ScriptedPlatform::waitpid, REAL(waitpid), pid, status, options);
}

int WRAP(unlink)(const char* path) {
  RecordCall(std::string("unlink(") + path + ")");
  return Perform(&ScriptedPlatform::unlink, REAL(unlink), path);
}

ScriptedPlatform::SignalHandler WRAP(signal)(int number, ScriptedPlatform::SignalHandler handler) {
  RecordCall("signal(" + Number(number) + ")");
  return Perform(&ScriptedPlatform::signal, REAL(signal), number, handler);
}

int WRAP(kill)(pid_t pid, int number) {
  RecordCall("kill(" + Number(pid) + ", " + Number(number) + ")");
  return Perform(&ScriptedPlatform::kill, REAL(kill), pid, number);
}

[[noreturn]] void WRAP(_exit)(int status) {
  RecordCall("_exit(" + Number(status) + ")");
  if (testing::Test::HasFailure()) {
    static_cast<void>(fflush(nullptr));
    status = test_support::kExpectationFailed;
  }
  REAL(_exit)(status);
}

[[noreturn]] void WRAP(abort)() {
  RecordCall("abort()");
  REAL(abort)();
}

CURL* WRAP(curl_easy_init)() {
  RecordCall("curl_easy_init()");
  return Perform(&ScriptedPlatform::curl_easy_init, REAL(curl_easy_init));
}

// The option arrives as an unsigned int: va_start() must not follow a parameter of an enumeration's type.
CURLcode WRAP(curl_easy_setopt)(CURL* handle, unsigned option_number, ...) {
  const auto option = static_cast<CURLoption>(option_number);
  const bool is_long = option < CURLOPTTYPE_OBJECTPOINT;
  va_list arguments;
  va_start(arguments, option_number);
  const long number = is_long ? va_arg(arguments, long) : 0;
  void* const pointer = is_long ? nullptr : va_arg(arguments, void*);
  va_end(arguments);
  const std::string name = test_support::OptionName(option);
  RecordCall("curl_easy_setopt(" + name + ", " +
             (is_long ? Number(number) : test_support::OptionText(option, pointer)) + ")");
  const CURLcode code = Perform(
      &ScriptedPlatform::curl_easy_setopt, [](const std::string&) { return CURLE_OK; }, name);
  if (code != CURLE_OK) return code;
  return is_long ? REAL(curl_easy_setopt)(handle, option, number)
                 : REAL(curl_easy_setopt)(handle, option, pointer);
}

void WRAP(curl_easy_cleanup)(CURL* handle) {
  RecordCall("curl_easy_cleanup()");
  REAL(curl_easy_cleanup)(handle);
}

void WRAP(curl_slist_free_all)(curl_slist* list) {
  RecordCall("curl_slist_free_all()");
  REAL(curl_slist_free_all)(list);
}

void WRAP(curl_formfree)(curl_httppost* form) {
  RecordCall("curl_formfree()");
  REAL(curl_formfree)(form);
}

bool FROM_FILE(__wrap_)(const std::string& path, Json::Value& value) {
  if (path != test_support::kServiceConfigPath) return FROM_FILE(__real_)(path, value);
  RecordCall("FromFile(" + path + ")");
  return current_platform != nullptr && FROM_FILE(__real_)(current_platform->service_config_path(), value);
}

bool RUN(__wrap_)(void* daemon) {
  return Perform(&ScriptedPlatform::run, [daemon] { return RUN(__real_)(daemon); });
}

}  // extern "C"
