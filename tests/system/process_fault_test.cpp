/// Each process of the daemon is killed in each of its states.
///
/// Where the daemon by design does not recover, the test shows exactly the end it comes to, and that the restart of
/// all its processes helps.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <memory>
#include <thread>

#include "fault_fixture.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

/// What the daemon is doing when the fault comes.
enum class State {
  kIdle,        ///< Connected, and no ticket came yet.
  kServed,      ///< Connected, and done with a ticket.
  kPausing,     ///< The worker is in its pause after a failed attempt.
  kCollecting,  ///< The child waits for the collection task.
  kLooking,     ///< It is in its pause between two looks at the task.
  kUploading,   ///< The upload is at the CSS server, which has not answered.
  kRetrying,    ///< The child is in its pause after a failed attempt.
  kReporting,   ///< The result is at the CSS server, which has not answered.
};

bool HasTicket(State state) {
  return state != State::kIdle && state != State::kServed && state != State::kPausing;
}

// What the processes log.
const Lines kWorkerConnects = Daemon(Lines{"W Prepare to receive grpc request"});
const Lines kWorkerGetsSomething =
    Daemon(Lines{"W Received grpc request, prepare to check and send response"});
const Lines kWorkerHandsOver = kWorkerGetsSomething + Daemon(Lines{"W Notify main process"});
const Lines kWorkerTakesTicket =
    kWorkerConnects + kWorkerHandsOver + Daemon(Lines{"W Sent grpc response: 0"}) + kWorkerConnects;
const Lines kWorkerFails =
    kWorkerGetsSomething + Daemon(Lines{"E Failed to recive data, hasFail: 1, error: 14, error msg: *"});
const Lines kSupervisorTakesTicket =
    Daemon(Lines{"W Receive a request(*) from the orvane server, start to transmit debug.dat file"});
const Lines kSupervisorNotifies = Daemon(Lines{"W Notify worker process"});
const Lines kWorkerIsGone =  // again and again
    Daemon(Lines{"E Unexpected error, expected count: 2048, real count: 0",
                 "E Failed to receive message from worker process"});
const Lines kChildFails = {"E transmitter.cpp curl_easy_perform() failed: CURLcode=[52], what=[*]"};
const Lines kChildFinishes = Daemon(Lines{"W Finish handling the request(*)"});

template <typename Row>
std::string NameOf(const testing::TestParamInfo<Row>& row) {
  return row.param.name;
}

class ProcessFaultTest : public FaultTest {
 protected:
  /// What is killed there has no part in the collection, unless that is what it is killed in.
  static Environment CollectionFor(State state) {
    return state == State::kCollecting ? Environment{} : WithInstantCollection();
  }

  /// Starts everything with `sigpipe` as the daemon's disposition of that signal, and brings it into `state`.
  void Reach(State state, const Environment& environment, void (*sigpipe)(int) = SIG_DFL) {
    static_cast<void>(signal(SIGPIPE, sigpipe));
    if (state == State::kPausing || state == State::kRetrying || state == State::kLooking) {
      HoldPauses();
    }
    if (state == State::kPausing) {
      StartDaemonFor(std::string("unix:") + kSocket, environment);
      ASSERT_THAT(FirstLinesOf(worker_, 3), AreLines(kWorkerConnects + kWorkerFails)) << WholeLog();
      return;
    }
    ASSERT_NO_FATAL_FAILURE(StartWithService(environment));
    if (state == State::kServed) {
      ExpectNextTicketIsServed();
      ASSERT_TRUE(Eventually([&] { return CompletionIsInItsPipe(); })) << WholeLog();
    }
    if (HasTicket(state)) {
      ReachWithTicket(state);
    }
  }

  /// Restarts the daemon, which then serves this ticket and no other.
  void ExpectARestartServes(const std::string& ticket) {
    const std::size_t results = Results().size();
    RestartDaemon();
    EXPECT_TRUE(WaitForTicket(ticket, " accepted")) << WholeLog();
    EXPECT_TRUE(Logs(supervisor_, kSupervisorTakesTicket + kSupervisorNotifies));
    EXPECT_EQ(Results().size(), results + 1);
    EXPECT_EQ(Results().back(), "Success");
    ExpectNothingIsLeft();
  }

  /// Starts the service, where Reach() has not, for a worker that is about to try again or to be restarted.
  void EnsureService() {
    if (!service_) {
      StartService(std::string("unix:") + kSocket);
    }
    LetPausesEnd();
  }

  /// Lets go on what was held in its state.
  void Release() {
    OpenGate();
    *is_released_ = true;
    LetPausesEnd();
  }

  /// Lets the child end its work after the supervisor or the worker was killed.
  void ExpectChildFinishes(State state) {
    css_.Steer(kUploadPath, {});
    Release();
    ASSERT_TRUE(WaitForResults(1)) << WholeLog();
    const bool tried_before = state == State::kRetrying;
    EXPECT_TRUE(Logs(child_, (tried_before ? kChildFails : Lines{}) + kChildFinishes));
    EXPECT_THAT(Results(), ElementsAre("Success"));
    EXPECT_THAT(css_.RequestsFor(kUploadPath), testing::SizeIs(tried_before ? 2 : 1));
    EXPECT_TRUE(Eventually([] { return ArchivesOnDevice().empty(); }));
  }

  std::string ticket_;  ///< The one that Reach() has sent last.

 private:
  /// The CSS server takes a request, and answers it only after Release().
  [[nodiscard]] Treatment HeldSuccess() const {
    Treatment treatment = HttpAnswer("200 OK", R"({"success": true})");
    treatment.before_answer = [released = is_released_] {
      static_cast<void>(Eventually([&] { return released->load(); }));
    };
    return treatment;
  }

  void ReachWithTicket(State state) {
    if (state == State::kUploading || state == State::kReporting) {
      css_.Steer(state == State::kUploading ? kUploadPath : kReportPath, {HeldSuccess()});
    } else if (state == State::kRetrying) {
      css_.Steer(kUploadPath, {Treatment{}});  // it closes without an answer
    }
    const bool is_gated = state == State::kCollecting || state == State::kLooking;
    ticket_ = SendTicket(is_gated ? "gated" : "demo");
    child_ = WaitForChild();
    ASSERT_NE(child_, 0) << WholeLog();
    ASSERT_TRUE(WaitForTicket(ticket_, " accepted")) << WholeLog();
    ASSERT_TRUE(Eventually([&] { return HasReached(state); })) << WholeLog();
  }

  /// The supervisor logs that it is about to write it.
  [[nodiscard]] bool CompletionIsInItsPipe() const {
    const std::set<int> descriptors = OpenDescriptors(worker_);
    return std::any_of(descriptors.begin(), descriptors.end(), [&](int number) {
      const std::string path = "/proc/" + std::to_string(worker_) + "/fd/" + std::to_string(number);
      std::error_code gone;
      if (std::filesystem::read_symlink(path, gone).string().rfind("pipe:", 0) != 0) {
        return false;
      }
      const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
      int bytes = 0;
      const bool full_frame = ioctl(fd, FIONREAD, &bytes) == 0 && bytes == 2048;
      close(fd);
      return full_frame;
    });
  }

  [[nodiscard]] bool HasReached(State state) const {
    switch (state) {
      case State::kCollecting:
        return WaitForGate();
      case State::kLooking:
        return ReadFile("/run/sleep_shim/sleeps").find(std::to_string(child_) + " 5 real") !=
               std::string::npos;
      case State::kUploading:
        return css_.RequestsFor(kUploadPath).size() == 1;
      case State::kRetrying:
        return LinesOf(child_).size() == 1;
      case State::kReporting:
        return css_.RequestsFor(kReportPath).size() == 1;
      default:
        return true;
    }
  }

  const std::shared_ptr<std::atomic<bool>> is_released_ = std::make_shared<std::atomic<bool>>(false);
};

// ======== The worker is killed ========

/// What becomes of the supervisor.
enum class SupervisorEnd { kReadsEndOfFileForEver, kDiesOfSigpipe, kFailsToNotify };

struct WorkerRow {
  const char* name;
  State state;
  SupervisorEnd end;
};

Lines SupervisorLines(const WorkerRow& row) {
  const Lines forever = kWorkerIsGone + kWorkerIsGone;
  switch (row.end) {
    case SupervisorEnd::kReadsEndOfFileForEver:
      return (row.state == State::kServed ? kSupervisorTakesTicket + kSupervisorNotifies : Lines{}) + forever;
    case SupervisorEnd::kDiesOfSigpipe:
      return kSupervisorTakesTicket + kSupervisorNotifies;
    case SupervisorEnd::kFailsToNotify:
      break;
  }
  return kSupervisorTakesTicket + kSupervisorNotifies +
         Daemon(Lines{"E Failed to write, err=Broken pipe", "E Failed to send message to worker process",
                      "E Failed to notify worker process"}) +
         forever;
}

class WorkerKilledTest : public ProcessFaultTest, public testing::WithParamInterface<WorkerRow> {};

TEST_P(WorkerKilledTest, IsMetByTheSupervisorAsDesignedAndARestartServesTheNextTicket) {
  const WorkerRow& row = GetParam();
  ASSERT_NO_FATAL_FAILURE(Reach(row.state, CollectionFor(row.state),
                                row.end == SupervisorEnd::kFailsToNotify ? SIG_IGN : SIG_DFL));
  kill(worker_, SIGKILL);
  ASSERT_TRUE(Eventually([&] { return HasEnded(worker_); }));
  if (HasTicket(row.state)) {
    ASSERT_NO_FATAL_FAILURE(ExpectChildFinishes(row.state));
  }

  const Lines expected = SupervisorLines(row);
  EXPECT_THAT(FirstLinesOf(supervisor_, expected.size()), AreLines(expected)) << WholeLog();
  if (row.end == SupervisorEnd::kDiesOfSigpipe) {
    EXPECT_THAT(WaitForProcess(supervisor_), KilledBy(SIGPIPE));
    EXPECT_EQ(LinesOf(supervisor_).size(), expected.size()) << WholeLog();
  } else {
    EXPECT_EQ(LookAt(worker_).state, 'Z') << "somebody has reaped the worker";
    EXPECT_EQ(LookAt(worker_).exit_code, SIGKILL);
    EXPECT_EQ(LookAt(worker_).parent, supervisor_) << "the supervisor has ended";
  }

  ASSERT_NO_FATAL_FAILURE(EnsureService());
  const std::string waiting = SendTicket("demo");
  EXPECT_THAT(TicketEvents(waiting), testing::Not(testing::ContainsRegex(" accepted| rejected")));
  ExpectARestartServes(waiting);
}

// The rows are as in the supervisor's table below, and apart from it: what each process is killed in, and what becomes
// of the other.
INSTANTIATE_TEST_SUITE_P(
    Processes, WorkerKilledTest,
    testing::Values(WorkerRow{"Idle", State::kIdle, SupervisorEnd::kReadsEndOfFileForEver},
                    WorkerRow{"IdleAfterATicket", State::kServed, SupervisorEnd::kReadsEndOfFileForEver},
                    WorkerRow{"InItsPause", State::kPausing, SupervisorEnd::kReadsEndOfFileForEver},
                    WorkerRow{"WhileCollecting", State::kCollecting, SupervisorEnd::kDiesOfSigpipe},
                    WorkerRow{"BetweenTwoAttempts", State::kRetrying, SupervisorEnd::kDiesOfSigpipe},
                    WorkerRow{"WhileUploading", State::kUploading, SupervisorEnd::kDiesOfSigpipe},
                    WorkerRow{"WhileReporting", State::kReporting, SupervisorEnd::kDiesOfSigpipe},
                    WorkerRow{"WhileReportingWithSigpipeIgnored", State::kReporting,
                              SupervisorEnd::kFailsToNotify}),
    NameOf<WorkerRow>);

// ======== The supervisor is killed ========

/// What becomes of the worker with its next ticket.
enum class WorkerEnd { kDiesOfSigpipe, kFailsToHandOver, kReadsEndOfFileForEver };

struct SupervisorRow {
  const char* name;
  State state;
  WorkerEnd end;
};

/// What the worker logs before the next ticket.
Lines LinesBeforeTicket(State state) {
  switch (state) {
    case State::kIdle:
      return kWorkerConnects;
    case State::kPausing:
      return kWorkerConnects + kWorkerFails + kWorkerConnects;
    default:
      return kWorkerTakesTicket;
  }
}

/// What it logs when that ticket comes, up to its end or its last answer.
Lines LinesOfTicket(const SupervisorRow& row) {
  switch (row.end) {
    case WorkerEnd::kDiesOfSigpipe:
      return row.state == State::kServed
                 ? kWorkerGetsSomething +
                       Daemon(Lines{"W Finish waiting main process to respond", "W Notify main process"})
                 : kWorkerHandsOver;
    case WorkerEnd::kFailsToHandOver:
      return kWorkerHandsOver +
             Daemon(Lines{"E Failed to write, err=Broken pipe", "E Failed to send message to main process",
                          "W Sent grpc response: 1"});
    case WorkerEnd::kReadsEndOfFileForEver:
      break;
  }
  const Lines refuses =
      kWorkerGetsSomething +
      Daemon(Lines{"E Unexpected error, expected count: 2048, real count: 0",
                   "E Failed to receive message from main process", "W Sent grpc response: 1"});
  return refuses + kWorkerConnects + refuses;  // the service tries again after two seconds
}

class SupervisorKilledTest : public ProcessFaultTest, public testing::WithParamInterface<SupervisorRow> {};

TEST_P(SupervisorKilledTest, IsMetByTheWorkerAsDesignedAndARestartServesTheTicket) {
  const SupervisorRow& row = GetParam();
  ASSERT_NO_FATAL_FAILURE(
      Reach(row.state, CollectionFor(row.state), row.end == WorkerEnd::kFailsToHandOver ? SIG_IGN : SIG_DFL));
  kill(supervisor_, SIGKILL);
  ASSERT_THAT(WaitForProcess(supervisor_), KilledBy(SIGKILL));
  if (HasTicket(row.state)) {
    ASSERT_NO_FATAL_FAILURE(ExpectChildFinishes(row.state));
    EXPECT_THAT(WaitForProcess(child_), ExitedWith(0));
  }

  ASSERT_NO_FATAL_FAILURE(EnsureService());
  ticket_ = SendTicket("demo");
  const Lines expected = LinesBeforeTicket(row.state) + LinesOfTicket(row);
  EXPECT_THAT(FirstLinesOf(worker_, expected.size()), AreLines(expected)) << WholeLog();
  if (row.end == WorkerEnd::kDiesOfSigpipe) {
    EXPECT_THAT(WaitForProcess(worker_), KilledBy(SIGPIPE));
    EXPECT_EQ(LinesOf(worker_).size(), expected.size()) << WholeLog();
    EXPECT_THAT(TicketEvents(ticket_), testing::Not(testing::ContainsRegex(" accepted| rejected")));
  } else {
    EXPECT_TRUE(WaitForTicket(ticket_, " rejected")) << WholeLog();
  }

  ExpectARestartServes(ticket_);
}

INSTANTIATE_TEST_SUITE_P(
    Processes, SupervisorKilledTest,
    testing::Values(SupervisorRow{"Idle", State::kIdle, WorkerEnd::kDiesOfSigpipe},
                    SupervisorRow{"IdleAfterATicket", State::kServed, WorkerEnd::kDiesOfSigpipe},
                    SupervisorRow{"IdleWithSigpipeIgnored", State::kIdle, WorkerEnd::kFailsToHandOver},
                    SupervisorRow{"WhileTheWorkerPauses", State::kPausing, WorkerEnd::kDiesOfSigpipe},
                    SupervisorRow{"WhileCollecting", State::kCollecting, WorkerEnd::kReadsEndOfFileForEver},
                    SupervisorRow{"BetweenTwoAttempts", State::kRetrying, WorkerEnd::kReadsEndOfFileForEver},
                    SupervisorRow{"WhileUploading", State::kUploading, WorkerEnd::kReadsEndOfFileForEver},
                    SupervisorRow{"WhileReporting", State::kReporting, WorkerEnd::kReadsEndOfFileForEver}),
    NameOf<SupervisorRow>);

// ======== The transmission child is killed ========

struct ChildRow {
  const char* name;
  State state;
  Lines child;    ///< What it had logged.
  Lines results;  ///< What it had reported.
};

class ChildKilledTest : public ProcessFaultTest, public testing::WithParamInterface<ChildRow> {};

TEST_P(ChildKilledTest, CostsItsTicketTheResultAndTheNextTicketIsServedAndRemovesItsArchive) {
  const ChildRow& row = GetParam();
  const Environment shorter_looks = {{"LD_LIBRARY_PATH", LibraryFolder("scaled")}};
  ASSERT_NO_FATAL_FAILURE(Reach(row.state, row.state == State::kLooking ? shorter_looks : Environment{}));
  kill(child_, SIGKILL);
  EXPECT_TRUE(Logs(supervisor_, kSupervisorTakesTicket + kSupervisorNotifies));
  EXPECT_EQ(LookAt(child_).state, 0) << "the child was not reaped";
  EXPECT_TRUE(Logs(child_, row.child));
  EXPECT_EQ(Results(), row.results);
  const std::set<int> descriptors = OpenDescriptors(supervisor_);

  Release();  // the task works on without its child
  ASSERT_TRUE(WaitForOtherProcessesEnd({supervisor_, worker_}));
  EXPECT_THAT(ArchivesOnDevice(), testing::SizeIs(1));
  ASSERT_NO_FATAL_FAILURE(ExpectNextTicketIsServed());
  EXPECT_EQ(OpenDescriptors(supervisor_), descriptors);
  EXPECT_THAT(LinesOf(worker_), AreLines(kWorkerTakesTicket + kWorkerGetsSomething +
                                         Daemon(Lines{"W Finish waiting main process to respond",
                                                      "W Notify main process", "W Sent grpc response: 0"}) +
                                         kWorkerConnects));
  ExpectNothingIsLeft();
}

INSTANTIATE_TEST_SUITE_P(Processes, ChildKilledTest,
                         testing::Values(ChildRow{"WhileCollecting", State::kCollecting, {}, {}},
                                         ChildRow{"BetweenTwoLooks", State::kLooking, {}, {}},
                                         ChildRow{"WhileUploading", State::kUploading, {}, {}},
                                         ChildRow{"BetweenTwoAttempts", State::kRetrying, kChildFails, {}},
                                         ChildRow{"WhileReporting", State::kReporting, {}, {"Success"}}),
                         NameOf<ChildRow>);

// ======== The collection task is killed, or all at once ========

TEST_F(ProcessFaultTest, KilledCollectionTaskIsReportedAndItsFolderGoesWithTheNextTicket) {
  ASSERT_NO_FATAL_FAILURE(Reach(State::kCollecting, {}));
  const std::set<int> descriptors = OpenDescriptors(supervisor_);
  const pid_t task = CollectionTask();
  ASSERT_GT(task, 1);
  kill(task, SIGKILL);
  EXPECT_TRUE(Logs(supervisor_, kSupervisorTakesTicket + kSupervisorNotifies));
  EXPECT_TRUE(
      Logs(child_, Daemon(Lines{"E Failed to check log collection status: task id: *, ret=[*was killed*]",
                                "E Failed to generagte debug.dat"}) +
                       kChildFinishes));
  EXPECT_THAT(Results(), ElementsAre("Failed to generate debug file"));
  EXPECT_THAT(css_.RequestsFor(kUploadPath), IsEmpty());

  ASSERT_NO_FATAL_FAILURE(ExpectNextTicketIsServed());
  EXPECT_EQ(OpenDescriptors(supervisor_), descriptors);
  ExpectNothingIsLeft();
}

struct AllRow {
  const char* name;
  State state;
};

class AllKilledTest : public ProcessFaultTest, public testing::WithParamInterface<AllRow> {};

TEST_P(AllKilledTest, AtOnceLeaveNothingThatOutlivesTheNextTicketAfterARestart) {
  ASSERT_NO_FATAL_FAILURE(Reach(GetParam().state, {}));
  const pid_t task = CollectionTask();
  for (const pid_t pid : {supervisor_, worker_, child_, task}) {
    if (pid > 1) {
      EXPECT_EQ(kill(pid, SIGKILL), 0) << pid;
    }
  }
  // Its command's guardian ends after the task, and holds the task's folder as long.
  ASSERT_TRUE(WaitForOtherProcessesEnd({})) << WholeLog();
  Release();
  RestartDaemon();
  ASSERT_NO_FATAL_FAILURE(ExpectNextTicketIsServed());
  ExpectNothingIsLeft();
}

INSTANTIATE_TEST_SUITE_P(Processes, AllKilledTest,
                         testing::Values(AllRow{"Idle", State::kIdle},
                                         AllRow{"WhileCollecting", State::kCollecting},
                                         AllRow{"WhileUploading", State::kUploading}),
                         NameOf<AllRow>);

// ======== The worker never starts ========

TEST_F(ProcessFaultTest, WorkerWithoutAnAddressAbortsAndARestartWithOneServesTheNextTicket) {
  WriteConfig(R"({"debug_dat_file_transmitter": {"grpc_server": {"url": ""}}})");
  StartScaledDaemon();
  EXPECT_TRUE(Logs(worker_, Daemon(Lines{"E Failed to get grpc server url"})));
  EXPECT_THAT(FirstLinesOf(supervisor_, 4), AreLines(kWorkerIsGone + kWorkerIsGone)) << WholeLog();
  EXPECT_EQ(LookAt(worker_).state, 'Z');
  EXPECT_EQ(LookAt(worker_).exit_code, SIGABRT);

  kill(supervisor_, SIGTERM);
  EXPECT_THAT(WaitForProcess(supervisor_), ExitedWith(0));
  ReapOrphans({});
  ASSERT_NO_FATAL_FAILURE(StartWithService());
  ASSERT_NO_FATAL_FAILURE(ExpectNextTicketIsServed());
  ExpectNothingIsLeft();
}

TEST_F(ProcessFaultTest, WorkerThatCannotBeForkedLeavesASilentSupervisorAndARestartServesTheNextTicket) {
  constexpr char kForkFails[] = "/run/fault_shim/fork";
  WriteFile(kForkFails, "");
  StartDaemon({{"LD_PRELOAD", SANITIZER_RUNTIME + LibraryFolder("libfault_shim.so")}});
  EXPECT_TRUE(Logs(supervisor_, Daemon(Lines{"E Failed to fork()"})));
  EXPECT_THAT(ChildrenOf(supervisor_), IsEmpty());
  // A whole pass, in which nothing has to happen: it has nothing to say in later ones either.
  std::this_thread::sleep_for(milliseconds(1200));
  EXPECT_TRUE(Logs(supervisor_, Daemon(Lines{"E Failed to fork()"})));

  kill(supervisor_, SIGTERM);
  EXPECT_THAT(WaitForProcess(supervisor_), ExitedWith(0));
  std::filesystem::remove(kForkFails);
  ASSERT_NO_FATAL_FAILURE(StartWithService());
  ASSERT_NO_FATAL_FAILURE(ExpectNextTicketIsServed());
  ExpectNothingIsLeft();
}

}  // namespace
