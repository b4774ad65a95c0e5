/// The daemon object: supervisor, worker and transmission child.
///
/// Who talks to whom: the supervisor forks one worker at start and is joined to it by two pipes. Each
/// direction carries frames of kPipeFrameSize bytes, one JSON text each, padded with zero bytes. The
/// worker sends one Ticket {"token", "apps"} and then needs one Completion {"success": true} before it
/// sends the next. A transmission child, one per ticket, does not touch the pipes; the supervisor sends
/// the Completion once it has reaped the child.
///
/// Every process is single-threaded and works on its own copy of the object. All operations that return
/// bool have logged the cause when they return false, unless they say otherwise.
///
/// Outside its own sources only the constructor, Run() and the destructor are used; everything is public so
/// that the tests can play one process of a conversation at a time.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <boost/function.hpp>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/support_service_client.h"
#include "transmitter.h"

/// The size of a pipe frame in bytes. Below the pipe's atomic write limit (4096 on Linux), so a
/// non-blocking write places a whole frame or nothing.
constexpr std::size_t kPipeFrameSize = 2048;

/// Calls its callable when it goes out of scope. An exception that leaves the callable ends the process.
class ScopeGuard {
 public:
  /// @param callable  May be empty.
  explicit ScopeGuard(const boost::function<void()>& callable) : callable_(callable) {}
  ~ScopeGuard() {  // NOLINT(bugprone-exception-escape): an exception here is to end the process
    if (callable_) {
      callable_();
    }
  }
  ScopeGuard(const ScopeGuard&) = delete;
  ScopeGuard& operator=(const ScopeGuard&) = delete;

 private:
  boost::function<void()> callable_;  ///< Called by the destructor.
};

/// The pause before the worker's next attempt.
/// @param base  Base of the pause in seconds; doubled, unless the pause has reached its cap.
/// @return The pause in seconds, at most 600.
std::uint32_t NextRetryDelay(std::uint32_t& base);

class DebugDatTransmitterDaemon {
 public:
  DebugDatTransmitterDaemon() = default;
  ~DebugDatTransmitterDaemon();
  DebugDatTransmitterDaemon(const DebugDatTransmitterDaemon&) = delete;
  DebugDatTransmitterDaemon& operator=(const DebugDatTransmitterDaemon&) = delete;

  // ---- Supervisor and worker ----

  /// Makes `fd` non-blocking.
  bool SetNonBlocking(int& fd);

  /// Closes `fd` and sets it to -1; does nothing for a negative one. After a failure, which is logged,
  /// `fd` keeps its number.
  void CloseDescriptor(int& fd);

  /// Waits up to half a second for `fd` to become readable (end-of-file included). Aborts the process when
  /// select() can't take the number.
  /// @return false also, without a line, when the time ran out.
  bool WaitReadable(int& fd);

  /// Writes `message` as one frame, in one write().
  bool WritePipeMessage(int& fd, const Json::Value& message);

  /// Reads one frame, in one read(), and parses it. A malformed frame is consumed and lost.
  bool ReadPipeMessage(int& fd, Json::Value& message);

  // ---- Supervisor ----

  /// The supervisor: spawns the worker and serves tickets until SIGTERM.
  /// @return false when it could not start, true when it was told to stop.
  bool Run();

  /// Installs the handler for SIGHUP and SIGTERM. Always true.
  bool Init();

  /// Forks the worker, joined by two pipes. In the worker it returns what BecomeWorker() does.
  bool SpawnWorker();

  /// Reads the next ticket, unless a transmission child is still running.
  /// @param ticket  Replaced by whatever the message parses to; its members are not checked.
  /// @return true when a ticket was read; false also, without a line, while a child is running and when no
  ///         ticket came within half a second.
  bool ReceiveTicketFromWorker(Json::Value& ticket);

  /// Reaps a transmission child that has ended and tells the worker.
  /// @return Whether a new ticket may be taken: false, without a line, while a child is running, and as
  ///         long as it can't be waited for.
  bool PollTransmissionChild();

  /// Serves one ticket: checks it and forks the transmission child, which never returns from here.
  /// When no child is started, the worker is told at once.
  /// @return Whether a child was started.
  bool StartToTransmitDebugFile(const Json::Value& ticket);

  /// Sends the worker the Completion of its last ticket.
  bool SendResultToWorker();

  // ---- Worker ----

  /// Keeps the worker's ends of the pipes and runs its loop. Returns only when that could not start; the
  /// worker then falls through into the supervisor's loop, where the wait on its closed descriptor aborts it.
  bool BecomeWorker();

  /// The worker: receives tickets and hands them over until SIGTERM, then ends the process.
  /// Returns only when no server address is available.
  void RunWorker();

  /// One iteration of the worker's loop: receives a ticket, hands it over or refuses it, and answers. Pauses
  /// after a failure.
  /// @param retryBase       Base of the next pause, in seconds.
  /// @param waitingForMain  A ticket was handed over and its Completion has not been read yet.
  void ServeNextTicket(TarvoOrvane::FastSupport::FastSupportClient& client, std::uint32_t& retryBase,
                       bool& waitingForMain);

  /// The notification server's address, exactly as the service configuration file says; empty, after the
  /// cause was logged, when it can't be had.
  std::string GetGrpcServerUrl();

  /// Hands a ticket to the supervisor.
  bool SendTicketToMain(const TarvoOrvane::FastSupport::Ticket& ticket);

  /// Waits up to half a second for the supervisor's Completion.
  /// @return true when it came; false also, without a line, when nothing came.
  bool ReceiveResultFromMain();

  // ---- Transmission child ----

  /// Serves one ticket from collection to clean-up and ends the process: status 0 when every step
  /// succeeded, otherwise 1. The outcome is reported before the archive is deleted.
  [[noreturn]] void RunTransmissionChild(const std::string& token, const Json::Value& apps,
                                         const Json::Value& ticket);

  /// Has the platform collect the debug data of `apps`. Blocks for up to about twenty minutes.
  /// @param path  Receives the archive's path; left alone (empty) when the time limit ran out, which
  ///              counts as success.
  bool GenerateDebugDat(const Json::Value& apps, std::string& path);

  /// Uploads the archive at `path` under the ticket's credential.
  bool TransmitDebugDat(const std::string& token, const Json::Value& apps, const std::string& path);

  /// Reports the ticket's outcome under its credential.
  bool UpdateResultToServer(const std::string& token, const TarvoOrvane::Transmitter::Result& result);

  int fromWorkerReadFd = -1;   ///< Supervisor's end of the worker-to-main pipe; -1 when closed.
  int toWorkerWriteFd = -1;    ///< Supervisor's end of the main-to-worker pipe; -1 when closed.
  int toWorkerReadFd = -1;     ///< Worker's end of the main-to-worker pipe; -1 when closed.
  int fromWorkerWriteFd = -1;  ///< Worker's end of the worker-to-main pipe; -1 when closed.

  bool transmitterRunning = false;  ///< A transmission child has been started and not yet been reaped.
  pid_t transmitterPid = -1;        ///< Its process id; meaningful only while transmitterRunning is set.
};
