/// The real daemon while something fails: what it logged, line by line, what the servers heard, and what is left.
///
/// Tickets come from the real support service, which hears the answers too; archives and results go to a server of
/// the test's own, which can fail, take its time, and outlive the other one. So the service hears of no result, and is
/// one that does not wait for them before it delivers the next ticket.
#pragma once

#include <gmock/gmock.h>

#include <set>
#include <string>
#include <vector>

#include "fault_proxy.h"
#include "steerable_server.h"
#include "system_fixture.h"

inline constexpr char kUploadPath[] = "/orvane/ps_files";
inline constexpr char kReportPath[] = "/orvane/ps_results";
inline constexpr char kSocket[] = "/run/system_test/grpc.sock";

/// Log lines of one process, as FaultTest::LinesOf() returns them, or patterns of such lines.
using Lines = std::vector<std::string>;

/// A line of the daemon's main source file, where almost all come from.
/// @param line  Its level and its text: "E Failed to fork()".
std::string Daemon(const std::string& line);
/// Several such lines.
Lines Daemon(const Lines& lines);
Lines operator+(Lines first, const Lines& second);

/// A line that `pattern` describes; each `*` in it stands for any text, `@(A|B)` for one of two.
testing::Matcher<std::string> LooksLike(const std::string& pattern);
/// Exactly the lines that `patterns` describe, in their order.
testing::Matcher<Lines> AreLines(const Lines& patterns);

/// Lets the 1800 s pass that a request's present attempt may last, where the daemon runs with libcurl_limit_shim.so.
void LetAttemptTimeOut();

/// The daemon's own pauses, its sleep() and usleep(), take a tenth of their time unless the test says otherwise.
class FaultTest : public SystemTest {
 protected:
  /// Describes two applications: "demo" is collected at once, "gated" once OpenGate() was called.
  void SetUp() override;

  /// Starts the daemon for a notification server at `grpc_url` and the test's CSS server, and waits for the worker.
  /// @param extra  Its environment beyond the test's. Without LD_PRELOAD in it that names libsleep_shim.so and
  ///               libfault_shim.so.
  void StartDaemonFor(const std::string& grpc_url, const Environment& extra = {});
  /// The same with the support service, and waits until it is connected.
  void StartWithService(const Environment& extra = {});
  /// The same with the configuration that is there.
  void StartScaledDaemon(const Environment& extra = {});
  /// Ends what is left of the daemon as an operator does, by SIGTERM, and starts it anew as before.
  void RestartDaemon();

  /// From now on the daemon's pauses take so small a part of their time.
  static void PauseShorter(int divisor = 10);
  /// From now on its calls of sleep() don't end, but by a signal, until LetPausesEnd().
  static void HoldPauses();
  static void LetPausesEnd();

  /// With another maker's collection, which is over at once whatever else this machine has to do: ours gives way to
  /// everything. It knows no gate.
  static Environment WithInstantCollection();

  static void OpenGate();
  /// Waits until the collection of "gated" is under way.
  [[nodiscard]] static bool WaitForGate();
  /// Waits for a transmission child.
  /// @return its id; 0 when it does not come.
  [[nodiscard]] pid_t WaitForChild() const;
  /// The process of the collection task, which is nobody's child.
  /// @return 0 when there is none.
  static pid_t CollectionTask();

  /// All that the process has logged as "LEVEL FILE TEXT", LEVEL being E for an error, W for a warning and N for a
  /// notice; lines of a library are "LEVEL LIBRARY: TEXT".
  [[nodiscard]] Lines LinesOf(pid_t pid) const;
  /// Waits until the process has logged that many lines.
  /// @return the first `count`, or those that came in time.
  [[nodiscard]] Lines FirstLinesOf(pid_t pid, std::size_t count) const;
  /// Waits until the process has logged exactly these lines.
  [[nodiscard]] testing::AssertionResult Logs(pid_t pid, const Lines& patterns) const;

  /// The "status" of each result report that came.
  [[nodiscard]] Lines Results() const;
  [[nodiscard]] bool WaitForResults(std::size_t count) const;

  /// Sends a ticket and follows it to its Completion: taken, uploaded, reported as a success, deleted.
  void ExpectNextTicketIsServed();
  /// Waits until nothing is left but the daemon with as many processes and descriptors as an idle one has: no task,
  /// no child, no zombie, no archive, no folder of a task but the last one's.
  void ExpectNothingIsLeft() const;
  /// Waits until no process is left but those, the test, the service and process 1.
  [[nodiscard]] testing::AssertionResult WaitForOtherProcessesEnd(std::set<pid_t> spared) const;

  SteerableServer css_;
  pid_t child_ = 0;  ///< The transmission child that WaitForChild() found last.

 private:
  Environment extra_;  ///< Of the daemon that was started last.
};
