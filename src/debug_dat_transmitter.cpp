/// The file is ordered by process: what supervisor and worker share (signals, descriptors, the pipe channel),
/// the supervisor, the worker, the transmission child.

#include "debug_dat_transmitter.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "json_util.h"
#include "logging.h"
#include "platform/core.h"
#include "platform/web_api_runner.h"

using TarvoOrvane::FastSupport::CallStatus;
using TarvoOrvane::FastSupport::FastSupportClient;
using TarvoOrvane::FastSupport::ReceiveResult;
using TarvoOrvane::FastSupport::Ticket;
using TarvoOrvane::Transmitter::DebugFileTransmitter;
using TarvoOrvane::Transmitter::kFailedToGenerateDebugFile;
using TarvoOrvane::Transmitter::kFailedToUploadDebugFile;
using TarvoOrvane::Transmitter::kSuccess;
using TarvoOrvane::Transmitter::Result;
using TarvoOrvane::Utils::Comments;
using TarvoOrvane::Utils::FindServerUrl;
using TarvoOrvane::Utils::FromFile;
using TarvoOrvane::Utils::FromString;
using TarvoOrvane::Utils::HasMember;
using TarvoOrvane::Utils::kServiceConfigPath;
using TarvoOrvane::Utils::LoggerManager;
using TarvoOrvane::Utils::ReportsSuccess;
using TarvoOrvane::Utils::ToString;

namespace {

constexpr int kHalfSecondMicroseconds = 500000;  // both halves of a supervisor pass
constexpr int kWorkerForkFlags = 0x41;
constexpr std::uint32_t kMaxRetryDelaySeconds = 600;
constexpr unsigned kStatusPauseSeconds = 5;
constexpr time_t kCollectionLimitSeconds = 1200;

// ======== Supervisor and worker: signals ========

// One pair per process. The handler sets them; the loops read them at the top of each pass.
std::atomic<bool> reconfigureRequested{false};
std::atomic<bool> stopRequested{false};

/// Sets flags and no more: the signal may have come in the middle of anything.
void HandleSignal(int signal_number) {
  switch (signal_number) {
    case SIGHUP:
      reconfigureRequested.exchange(true);
      break;
    case SIGTERM:
      stopRequested.exchange(true);
      break;
    default:
      DAEMON_LOG(LOG_ERR, "%s:%d Capture unexpected signal: %d", signal_number);
      break;
  }
}

/// Has the logger re-read its setting when that was asked for. The request is cleared after the call: a
/// call that throws leaves it standing, and a signal that arrives during the call is cleared with it.
void ReconfigureLoggerIfRequested() {
  if (reconfigureRequested) {
    LoggerManager::ReconfigureByDebugFlag();
    reconfigureRequested.exchange(false);
  }
}

}  // namespace

// ======== Supervisor and worker: descriptors ========

bool DebugDatTransmitterDaemon::SetNonBlocking(int& fd) {
  const int flags = fcntl(fd, F_GETFL);
  if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) == -1) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to do fcntl(), err=%m");
    return false;
  }
  return true;
}

void DebugDatTransmitterDaemon::CloseDescriptor(int& fd) {
  if (fd < 0) {
    return;
  }
  if (close(fd) != 0) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to do close(), err=%m");
    return;
  }
  fd = -1;
}

bool DebugDatTransmitterDaemon::WaitReadable(int& fd) {
  // FD_SET with such a number writes outside the set; whether that shows depends on the build.
  if (fd < 0 || fd >= FD_SETSIZE) {
    abort();
  }
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(fd, &readable);
  timeval timeout = {0, kHalfSecondMicroseconds};
  const int count = select(fd + 1, &readable, nullptr, nullptr, &timeout);
  if (count == -1) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to do select(), err=%m\n");
    return false;
  }
  return count > 0;
}

// ======== Supervisor and worker: the pipe channel ========

bool DebugDatTransmitterDaemon::WritePipeMessage(int& fd, const Json::Value& message) {
  const std::string text = ToString(message);
  if (text.size() > kPipeFrameSize - 1) {
    DAEMON_LOG(LOG_ERR, "%s:%d The ticket is too large, ticket content: %s", text.c_str());
    return false;
  }
  char frame[kPipeFrameSize] = {};  // zero behind the text: nothing else of the memory goes along
  const int length = snprintf(frame, sizeof(frame), "%s", text.c_str());
  if (length > static_cast<int>(kPipeFrameSize - 1)) {
    DAEMON_LOG(LOG_ERR, "%s:%d The soruce data size exceeds the expected size");
    return false;
  }
  const ssize_t written = write(fd, frame, sizeof(frame));
  if (written < 0) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to write, err=%m");
    return false;
  }
  const ssize_t expected = sizeof(frame);
  if (written != expected) {
    DAEMON_LOG(LOG_ERR, "%s:%d Unexpected error, expected count: %zd, real count: %zd", expected, written);
    return false;
  }
  return true;
}

// What follows the call is as behind the write: each tells of its own count, under the line of its own statement.
bool DebugDatTransmitterDaemon::ReadPipeMessage(int& fd, Json::Value& message) {
  char frame[kPipeFrameSize] = {};
  const ssize_t count = read(fd, frame, sizeof(frame));
  if (count < 0) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to do read(), err=%m\n");
    return false;
  }
  const ssize_t expected = sizeof(frame);
  if (count != expected) {
    DAEMON_LOG(LOG_ERR, "%s:%d Unexpected error, expected count: %zd, real count: %zd", expected, count);
    return false;
  }
  if (frame[kPipeFrameSize - 1] != '\0') {
    DAEMON_LOG(LOG_ERR, "%s:%d The data format is wrong");
    return false;
  }
  const std::string text = frame;
  if (!FromString(text, message, Comments::kCollect)) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to parse pipe data: %s", text.c_str());
    return false;
  }
  return true;
}

// ======== Supervisor: start, main loop, end ========

bool DebugDatTransmitterDaemon::Init() {
  static_cast<void>(signal(SIGHUP, HandleSignal));
  static_cast<void>(signal(SIGTERM, HandleSignal));
  return true;
}

bool DebugDatTransmitterDaemon::Run() {
  if (!Init()) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to init");
    return false;
  }
  // Set before the fork, so that the worker too configures its logger in its first pass.
  reconfigureRequested.exchange(true);
  // The loop runs whatever this returns. Without descriptors its first wait aborts the process.
  SpawnWorker();
  while (!stopRequested) {
    ReconfigureLoggerIfRequested();
    Json::Value ticket(Json::arrayValue);
    if (ReceiveTicketFromWorker(ticket)) {
      if (!StartToTransmitDebugFile(ticket)) {
        DAEMON_LOG(LOG_ERR, "%s:%d Failed to send debug file");
      }
    } else {
      usleep(kHalfSecondMicroseconds);
    }
  }
  return true;
}

bool DebugDatTransmitterDaemon::SpawnWorker() {
  int to_worker[2] = {-1, -1};
  int from_worker[2] = {-1, -1};
  if (pipe(to_worker) != 0 || pipe(from_worker) != 0) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to do pipe(), err=%m");
    return false;
  }
  toWorkerReadFd = to_worker[0];
  toWorkerWriteFd = to_worker[1];
  fromWorkerReadFd = from_worker[0];
  fromWorkerWriteFd = from_worker[1];

  const int pid = TLIBCProcForkEx(kWorkerForkFlags);
  if (pid < 0) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to fork()");
    return false;
  }
  if (pid == 0) {
    return BecomeWorker();
  }
  // Each process lets go of the other's ends; else it would never see the other's death. And neither may hang because
  // the other one does.
  CloseDescriptor(toWorkerReadFd);
  CloseDescriptor(fromWorkerWriteFd);
  if (!SetNonBlocking(fromWorkerReadFd) || !SetNonBlocking(toWorkerWriteFd)) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to set file descriptor as non-blocking");
    return false;
  }
  return true;
}

DebugDatTransmitterDaemon::~DebugDatTransmitterDaemon() {
  CloseDescriptor(fromWorkerReadFd);
  CloseDescriptor(toWorkerWriteFd);
  CloseDescriptor(toWorkerReadFd);
  CloseDescriptor(fromWorkerWriteFd);
}

// ======== Supervisor: tickets in, Completions out ========

bool DebugDatTransmitterDaemon::ReceiveTicketFromWorker(Json::Value& ticket) {
  if (!PollTransmissionChild() || !WaitReadable(fromWorkerReadFd)) {
    return false;
  }
  if (!ReadPipeMessage(fromWorkerReadFd, ticket)) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to receive message from worker process");
    return false;
  }
  return true;
}

bool DebugDatTransmitterDaemon::PollTransmissionChild() {
  if (!transmitterRunning) {
    return true;
  }
  int status = 0;
  // 0: it is still running. After an error, too, no ticket is taken: there may be a child.
  if (waitpid(transmitterPid, &status, WNOHANG) != transmitterPid) {
    return false;
  }
  // The exit status is not looked at: the worker is told that the child is done, never how it went.
  transmitterRunning = false;
  DAEMON_LOG(LOG_WARNING, "%s:%d Notify worker process");
  if (!SendResultToWorker()) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to notify worker process");
  }
  return true;
}

bool DebugDatTransmitterDaemon::SendResultToWorker() {
  Json::Value completion(Json::objectValue);
  completion["success"] = true;
  if (!WritePipeMessage(toWorkerWriteFd, completion)) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to send message to worker process");
    return false;
  }
  return true;
}

// ======== Supervisor: a ticket becomes a transmission child ========

bool DebugDatTransmitterDaemon::StartToTransmitDebugFile(const Json::Value& ticket) {
  bool notifyWorker = true;
  const ScopeGuard guard([this, &notifyWorker] {
    if (notifyWorker && !SendResultToWorker()) {
      DAEMON_LOG(LOG_ERR, "%s:%d Failed to notify worker process");
    }
  });

  if (!HasMember(ticket, "token") || !ticket["token"].isString() || !HasMember(ticket, "apps") ||
      !ticket["apps"].isArray()) {
    DAEMON_LOG(LOG_ERR, "%s:%d Something wrong for the ticket information: %s", ToString(ticket).c_str());
    return false;
  }
  DAEMON_LOG(LOG_WARNING,
             "%s:%d Receive a request(%s) from the orvane server, start to transmit debug.dat file",
             ToString(ticket).c_str());
  const Json::Value& apps = ticket["apps"];
  const std::string token = ticket["token"].asString();

  const int pid = TLIBCProcFork();
  if (pid < 0) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to fork()");
    return false;
  }
  notifyWorker = false;  // the Completion comes once the child has ended
  if (pid == 0) {
    RunTransmissionChild(token, apps, ticket);
  }
  transmitterPid = pid;
  transmitterRunning = true;
  return true;
}

// ======== Worker ========

bool DebugDatTransmitterDaemon::BecomeWorker() {
  CloseDescriptor(fromWorkerReadFd);
  CloseDescriptor(toWorkerWriteFd);
  if (!SetNonBlocking(fromWorkerWriteFd) || !SetNonBlocking(toWorkerReadFd)) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to set file descriptor as non-blocking");
    return false;
  }
  RunWorker();
  return true;
}

std::uint32_t NextRetryDelay(std::uint32_t& base) {
  const std::uint32_t delay = 2 * base + static_cast<std::uint32_t>(rand()) % (base + 1);
  if (delay >= kMaxRetryDelaySeconds) {
    return kMaxRetryDelaySeconds;
  }
  base *= 2;
  return delay;
}

namespace {

void SendResponse(FastSupportClient& client, FastSupportClient::ClientStatus status) {
  DAEMON_LOG(LOG_WARNING, "%s:%d Sent grpc response: %d", static_cast<int>(status));
  const CallStatus result = client.Send(status);
  if (result.hasFail) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to send response, error: %d, error msg: %s", result.error,
               result.errorMsg.c_str());
  }
}

}  // namespace

void DebugDatTransmitterDaemon::RunWorker() {
  srand(static_cast<unsigned>(time(nullptr)));  // for the pauses only
  const std::string address = GetGrpcServerUrl();
  if (address.empty()) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to get grpc server url");
    return;
  }
  FastSupportClient client(address);
  std::uint32_t retryBase = 1;
  bool waitingForMain = false;
  while (!stopRequested) {
    try {
      ServeNextTicket(client, retryBase, waitingForMain);
    } catch (const std::runtime_error& error) {
      LogAt(LOG_ERR, "%s:%d catch error: %s", __FILE_NAME__, __LINE__, error.what());
      sleep(NextRetryDelay(retryBase));
    }
  }
  _exit(0);
}

void DebugDatTransmitterDaemon::ServeNextTicket(FastSupportClient& client, std::uint32_t& retryBase,
                                                bool& waitingForMain) {
  ReconfigureLoggerIfRequested();
  DAEMON_LOG(LOG_WARNING, "%s:%d Prepare to receive grpc request");
  const ReceiveResult received = client.Receive();
  DAEMON_LOG(LOG_WARNING, "%s:%d Received grpc request, prepare to check and send response");
  if (!received.request) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to recive data, hasFail: %d, error: %d, error msg: %s",
               static_cast<int>(received.status.hasFail), received.status.error,
               received.status.errorMsg.c_str());
    sleep(NextRetryDelay(retryBase));
    return;
  }
  retryBase = 1;
  if (waitingForMain) {
    if (!ReceiveResultFromMain()) {
      // The former ticket is still being worked on. The service delivers this one again.
      SendResponse(client, FastSupportClient::kRejected);
      sleep(NextRetryDelay(retryBase));
      return;
    }
    DAEMON_LOG(LOG_WARNING, "%s:%d Finish waiting main process to respond");
  }
  waitingForMain = false;  // set again only if the ticket goes out: without it no Completion will come
  DAEMON_LOG(LOG_WARNING, "%s:%d Notify main process");
  if (SendTicketToMain(*received.request)) {
    waitingForMain = true;
    SendResponse(client, FastSupportClient::kAccepted);
  } else {
    SendResponse(client, FastSupportClient::kRejected);
  }
}

std::string DebugDatTransmitterDaemon::GetGrpcServerUrl() {
  // As GetCssServerUrl() in transmitter.cpp: what the two share is in FindServerUrl(). The lines stand in both, because
  // each names the source file of its own look-up.
  Json::Value config(Json::objectValue);
  if (!FromFile(kServiceConfigPath, config)) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to read conf from: [%s]", kServiceConfigPath);
    return "";
  }
  std::string url;
  if (FindServerUrl(config, "grpc_server", url)) {
    return url;
  }
  DAEMON_LOG(LOG_ERR, "%s:%d Failed to validate data: [%s]", ToString(config).c_str());
  return "";
}

bool DebugDatTransmitterDaemon::SendTicketToMain(const Ticket& ticket) {
  Json::Value message(Json::objectValue);
  message["token"] = ticket.token;
  message["apps"] = Json::Value(Json::arrayValue);
  for (const std::string& app : ticket.apps) {
    message["apps"].append(app);
  }
  if (!WritePipeMessage(fromWorkerWriteFd, message)) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to send message to main process");
    return false;
  }
  return true;
}

bool DebugDatTransmitterDaemon::ReceiveResultFromMain() {
  if (!WaitReadable(toWorkerReadFd)) {
    return false;
  }
  Json::Value completion;
  if (!ReadPipeMessage(toWorkerReadFd, completion)) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to receive message from main process");
    return false;
  }
  if (ReportsSuccess(completion)) {
    return true;
  }
  DAEMON_LOG(LOG_ERR, "%s:%d Something wrong in the main process");
  return false;
}

// ======== Transmission child ========

void DebugDatTransmitterDaemon::RunTransmissionChild(const std::string& token, const Json::Value& apps,
                                                     const Json::Value& ticket) {
  Result result = kSuccess;
  bool success = true;
  std::string path;
  if (!GenerateDebugDat(apps, path)) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to generagte debug.dat");
    result = kFailedToGenerateDebugFile;
    success = false;
  } else if (!TransmitDebugDat(token, apps, path)) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to transmit debug.dat");
    result = kFailedToUploadDebugFile;
    success = false;
  }
  if (!UpdateResultToServer(token, result)) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to update '%d' to server", static_cast<int>(result));
    success = false;
  }
  // Whatever came of it: nobody asks for the archive again. The path is empty where there is none.
  if (TLIBCFileExist(path.c_str()) == 1 && unlink(path.c_str()) != 0) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to remove: %s, error: %s", path.c_str(), strerror(errno));
    success = false;
  }
  DAEMON_LOG(LOG_WARNING, "%s:%d Finish handling the request(%s)", ToString(ticket).c_str());
  LoggerManager::ReconfigureByDebugFlag();
  _exit(success ? 0 : 1);
}

namespace {

/// Runs one method of the log collection API and leaves its answer in `response`.
void RunLogCollectionApi(const char* method, const Json::Value& parameters, Json::Value& response) {
  TARVO::APIRunner::Exec(response, "TARVO.Core.SupportForm.Log", 1, method, parameters, "admin");
}

/// Whether the answer reports success and has an object "data". Each repeated test is kept.
bool HasSuccessfulData(const Json::Value& response) {
  return response.isObject() && ReportsSuccess(response) && response.isObject() &&
         HasMember(response, "data") && response["data"].isObject() && response["data"].isObject();
}

/// Starts a collection task for `apps`; false after the cause was logged.
bool StartCollection(const Json::Value& apps, std::string& task_id) {
  Json::Value parameters(Json::objectValue);
  parameters["app_list"] = apps;
  Json::Value response(Json::objectValue);
  RunLogCollectionApi("collect", parameters, response);
  if (!HasSuccessfulData(response) || !HasMember(response["data"], "task_id") ||
      !response["data"]["task_id"].isString()) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to execute log collection webapi: app list: %s, ret=[%s]",
               ToString(apps).c_str(), ToString(response).c_str());
    return false;
  }
  task_id = response["data"]["task_id"].asString();
  return true;
}

/// Takes the archive's path from the answer for a finished task; false after the cause was logged.
bool TakeArchivePath(const Json::Value& data, std::string& path) {
  if (!data.isObject() || !HasMember(data, "path") || !data["path"].isString()) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to get debug.dat path");
    return false;
  }
  path = data["path"].asString();
  return true;
}

}  // namespace

bool DebugDatTransmitterDaemon::GenerateDebugDat(const Json::Value& apps, std::string& path) {
  std::string task_id;
  if (!StartCollection(apps, task_id)) {
    return false;
  }
  const time_t start = time(nullptr);  // of the wall clock: setting it moves the limit
  Json::Value parameters(Json::objectValue);
  parameters["task_id"] = task_id;

  while (time(nullptr) - start < kCollectionLimitSeconds) {
    Json::Value response(Json::objectValue);
    RunLogCollectionApi("status", parameters, response);
    if (!HasSuccessfulData(response) || !HasMember(response["data"], "finished") ||
        !response["data"]["finished"].isBool()) {
      DAEMON_LOG(LOG_ERR, "%s:%d Failed to check log collection status: task id: %s, ret=[%s]",
                 task_id.c_str(), ToString(response).c_str());
      return false;
    }
    if (response["data"]["finished"].asBool()) {
      return TakeArchivePath(response["data"], path);
    }
    sleep(kStatusPauseSeconds);
  }
  return true;  // out of time: the caller tells by the empty path
}

bool DebugDatTransmitterDaemon::TransmitDebugDat(const std::string& token, const Json::Value& apps,
                                                 const std::string& path) {
  if (path.empty()) {
    DAEMON_LOG(LOG_ERR, "%s:%d Debug dat file path is empty");
    return false;
  }
  DebugFileTransmitter transmitter(token);
  const bool uploaded = transmitter.UploadFile(path, apps);
  if (!uploaded) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to upload debug.dat to CSS server");
  }
  return uploaded;
}

bool DebugDatTransmitterDaemon::UpdateResultToServer(const std::string& token, const Result& result) {
  DebugFileTransmitter transmitter(token);
  const bool updated = transmitter.UpdateResult(result);
  if (!updated) {
    DAEMON_LOG(LOG_ERR, "%s:%d Failed to update result to CSS server");
  }
  return updated;
}
