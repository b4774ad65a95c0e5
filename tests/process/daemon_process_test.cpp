// The supervisor, the worker and the transmission children as real processes joined by real pipes, on a
// scripted platform: the test delivers tickets to the worker and decides when a collection is finished.
// Seconds last milliseconds.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "child_process.h"
#include "debug_dat_transmitter.h"
#include "scripted_platform.h"

using TarvoOrvane::FastSupport::ReceiveResult;
using TarvoOrvane::FastSupport::Ticket;
using test_support::Call;
using test_support::ChildProcess;
using test_support::Error;
using test_support::Event;
using test_support::ExitedWith;
using test_support::KilledBy;
using test_support::kSupervisor;
using test_support::kTransmissionChild;
using test_support::kWorker;
using test_support::OpenDescriptors;
using test_support::WaitForProcess;
using test_support::Warning;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Matcher;
using testing::Not;
using testing::StartsWith;

namespace real = test_support::real;

namespace {

constexpr char kEndOfFile[] = "Unexpected error, expected count: 2048, real count: 0";

/// A descriptor of a process: what it leads to and its status flags.
struct Descriptor {
  std::string target;
  int flags;
};

Descriptor DescriptorOf(pid_t pid, int fd) {
  const std::string process = "/proc/" + std::to_string(pid);
  std::ifstream info(process + "/fdinfo/" + std::to_string(fd));
  std::string word;
  while (info >> word && word != "flags:") {
  }
  int flags = -1;
  info >> std::oct >> flags;
  return {std::filesystem::read_symlink(process + "/fd/" + std::to_string(fd)), flags};
}

/// Lets the calling process open `count` more descriptors, and no more.
void LeaveFree(int count) {
  std::vector<int> free;
  for (int number = 0; number <= count; ++number) free.push_back(dup(STDOUT_FILENO));
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = static_cast<rlim_t>(free.back());
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  for (const int fd : free) real::Close(fd);
}

class DaemonProcessTest : public test_support::ScriptedPlatformTest {
 protected:
  void SetUp() override {
    test_support::AdoptOrphans();
    ASSERT_EQ(real::Pipe(tickets_), 0);
    platform_.SetServiceConfig(R"({"debug_dat_file_transmitter":
        {"grpc_server":{"url":"http://h:1"},"css_server":{"url":"http://css"}}})");
    ScriptTimes();
    platform_.receive = [this] { return Receive(); };
    platform_.exec = [this](Json::Value& out, const std::string& method, const Json::Value& parameters) {
      out = method == "collect" ? Collect() : StatusOf(std::stoi(parameters["task_id"].asString()));
      return true;
    };
  }

  void TearDown() override {
    EXPECT_THAT(log_.CallsOf("kill"), IsEmpty());
    supervisor_.reset();
    for (const int end : tickets_) real::Close(end);
  }

  void ScriptTimes() {
    platform_.usleep = [](useconds_t microseconds) { return real::Usleep(microseconds / 100); };
    platform_.sleep = [](unsigned seconds) {
      real::Usleep(seconds * 1000);
      return 0U;
    };
    platform_.select = [](int count, fd_set* readable, fd_set*, fd_set*, timeval*) {
      timeval timeout = {0, 20000};
      return real::Select(count, readable, nullptr, nullptr, &timeout);
    };
  }

  // ---- The worker's client ----

  /// Waits for one of the test's tickets; a signal ends the wait.
  ReceiveResult Receive() {
    pollfd wait = {tickets_[0], POLLIN, 0};
    if (poll(&wait, 1, -1) != 1) return {{}, {true, 1001, "interrupted"}};
    char token[32] = {};
    real::Read(tickets_[0], token, sizeof(token));
    return {Ticket{token, {"app"}}, {}};
  }

  void Deliver(const std::string& token) {
    char record[32] = {};
    token.copy(record, sizeof(record) - 1);
    ASSERT_EQ(real::Write(tickets_[1], record, sizeof(record)), static_cast<ssize_t>(sizeof(record)));
  }

  /// Delivers a ticket and waits for the worker's answer, which is to be `status`.
  void DeliverAndExpect(const std::string& token, int status) {
    const std::size_t before = log_.CallsOf("Send").size();
    Deliver(token);
    ASSERT_TRUE(log_.WaitFor(Call(StartsWith("Send(")), static_cast<std::ptrdiff_t>(before) + 1));
    EXPECT_EQ(log_.CallsOf("Send").back(), "Send(" + std::to_string(status) + ")") << token;
  }

  // ---- The transmission child's web API ----

  std::string Archive(int task) { return platform_.folder() / ("debug.dat." + std::to_string(task)); }

  Json::Value Collect() {
    const int task = ++*tasks_;
    std::ofstream(Archive(task)) << "archive";
    Json::Value answer;
    answer["success"] = true;
    answer["data"]["task_id"] = std::to_string(task);
    return answer;
  }

  Json::Value StatusOf(int task) {
    Json::Value answer;
    answer["success"] = true;
    answer["data"]["finished"] = *finished_ >= task;
    answer["data"]["path"] = Archive(task);
    return answer;
  }

  /// Lets the collections of the first `count` tickets finish.
  void Finish(int count) { *finished_ = count; }

  // ---- The processes ----

  void Start() {
    supervisor_ = std::make_unique<ChildProcess>([] { return DebugDatTransmitterDaemon().Run() ? 0 : 1; });
  }

  /// Starts the daemon and waits until both processes are in their loops.
  void StartAndWait() {
    Start();
    ASSERT_TRUE(log_.WaitFor(Call("Receive()")));
    ASSERT_TRUE(WaitForPass());
  }

  /// Waits until the supervisor has begun and ended a pass.
  bool WaitForPass() {
    const auto passes = static_cast<std::ptrdiff_t>(log_.CallsOf("usleep").size());
    return log_.WaitFor(Call("usleep(500000)"), passes + 2);
  }

  /// The processes that recorded something in `role`, in order of appearance.
  std::vector<pid_t> PidsOf(const std::string& role) {
    std::vector<pid_t> pids;
    for (const Event& event : log_.events(role)) {
      if (std::find(pids.begin(), pids.end(), event.pid) == pids.end()) pids.push_back(event.pid);
    }
    return pids;
  }
  pid_t Worker() {
    const std::vector<pid_t> pids = PidsOf(kWorker);
    EXPECT_EQ(pids.size(), 1U);
    return pids.empty() ? 0 : pids[0];
  }

  /// What a process logged, without its line numbers.
  std::vector<std::string> TextsOf(const std::string& role) {
    std::vector<std::string> texts;
    for (const Event& event : log_.lines(role)) texts.push_back(event.text.substr(event.text.find(' ') + 1));
    return texts;
  }

  /// The descriptors of `pid` beyond those that the test process had.
  std::vector<Descriptor> OwnDescriptors(pid_t pid, const std::set<int>& inherited) {
    std::vector<Descriptor> result;
    for (const int fd : OpenDescriptors(pid)) {
      if (inherited.count(fd) == 0) result.push_back(DescriptorOf(pid, fd));
    }
    return result;
  }

  int tickets_[2] = {-1, -1};
  test_support::Shared<std::atomic<int>> tasks_;
  test_support::Shared<std::atomic<int>> finished_;
  std::unique_ptr<ChildProcess> supervisor_;
};

Matcher<const Event&> By(const std::string& role, const Matcher<const Event&>& what) {
  return AllOf(Field(&Event::role, role), what);
}

std::string Received(const std::string& token) {
  return R"(Receive a request({"apps":["app"],"token":")" + token +
         R"("}) from the orvane server, start to transmit debug.dat file)";
}

std::string Finished(const std::string& token) {
  return R"(Finish handling the request({"apps":["app"],"token":")" + token + R"("}))";
}

// ---- Tickets ----

TEST_F(DaemonProcessTest, OneTicketTravelsThroughAllThreeProcesses) {
  Finish(1);
  StartAndWait();
  DeliverAndExpect("one", 0);
  ASSERT_TRUE(log_.WaitFor(Warning("Notify worker process")));
  EXPECT_THAT(
      TextsOf(kWorker),
      testing::ElementsAre("Prepare to receive grpc request",
                           "Received grpc request, prepare to check and send response", "Notify main process",
                           "Sent grpc response: 0", "Prepare to receive grpc request"));
  EXPECT_THAT(TextsOf(kSupervisor), ElementsAre(Received("one"), "Notify worker process"));
  EXPECT_THAT(TextsOf(kTransmissionChild), ElementsAre(Finished("one")));
  std::vector<std::string> requests;
  for (const std::string& call : log_.calls(kTransmissionChild)) {
    if (call.rfind("curl_easy_setopt(URL", 0) == 0 || call.rfind("CurlSlistAppend(AUTH", 0) == 0 ||
        call.rfind("unlink", 0) == 0 || call.rfind("_exit", 0) == 0) {
      requests.push_back(call);
    }
  }
  EXPECT_THAT(
      requests,
      ElementsAre("CurlSlistAppend(AUTH-TOKEN: one)", "curl_easy_setopt(URL, http://css/orvane/ps_files)",
                  "CurlSlistAppend(AUTH-TOKEN: one)", "curl_easy_setopt(URL, http://css/orvane/ps_results)",
                  "unlink(" + Archive(1) + ")", "_exit(0)"));
  EXPECT_FALSE(std::filesystem::exists(Archive(1)));
}

TEST_F(DaemonProcessTest, TicketWhileBusyIsRefusedAndTheNextOneServed) {
  StartAndWait();
  DeliverAndExpect("one", 0);
  ASSERT_TRUE(log_.WaitFor(Call(HasSubstr("status"))));
  DeliverAndExpect("two", 1);
  Finish(2);
  ASSERT_TRUE(log_.WaitFor(Warning("Notify worker process")));
  DeliverAndExpect("three", 0);
  ASSERT_TRUE(log_.WaitFor(Warning("Notify worker process"), 2));
  EXPECT_THAT(TextsOf(kWorker), Contains("Finish waiting main process to respond"));
  EXPECT_THAT(TextsOf(kTransmissionChild), ElementsAre(Finished("one"), Finished("three")));
}

TEST_F(DaemonProcessTest, ThreeTicketsInARowAreServedOneChildAtATimeEachReaped) {
  Finish(3);
  StartAndWait();
  for (int number = 1; number <= 3; ++number) {
    DeliverAndExpect(std::to_string(number), 0);
    ASSERT_TRUE(log_.WaitFor(Warning("Notify worker process"), number));
  }
  EXPECT_THAT(TextsOf(kSupervisor),
              ElementsAre(Received("1"), "Notify worker process", Received("2"), "Notify worker process",
                          Received("3"), "Notify worker process"));
  const std::vector<pid_t> children = PidsOf(kTransmissionChild);
  EXPECT_EQ(children.size(), 3U);
  for (const pid_t child : children) EXPECT_EQ(real::Kill(child, 0), -1) << "a zombie is left";
}

TEST_F(DaemonProcessTest, TicketThatWaitsInThePipeIsReadOnlyOnceTheChildIsReaped) {
  // The worker is made to believe that every Completion has come, so that it hands everything over.
  platform_.fork_ex = [this](int) {
    const pid_t pid = test_support::ScriptedPlatform::ForkAs(kWorker);
    if (pid == 0) {
      platform_.select = [](int, fd_set*, fd_set*, fd_set*, timeval*) { return 1; };
      platform_.read = [](int, void* buffer, std::size_t size) {
        std::memset(buffer, 0, size);
        std::memcpy(buffer, R"({"success":true})", 16);
        return static_cast<ssize_t>(size);
      };
    }
    return pid;
  };
  StartAndWait();
  DeliverAndExpect("one", 0);
  DeliverAndExpect("two", 0);
  ASSERT_TRUE(log_.WaitFor(Call(HasSubstr("status"))));
  ASSERT_TRUE(WaitForPass());
  EXPECT_EQ(PidsOf(kTransmissionChild).size(), 1U);
  Finish(2);
  ASSERT_TRUE(log_.WaitFor(Warning("Notify worker process"), 2));
  EXPECT_THAT(TextsOf(kSupervisor), ElementsAre(Received("one"), "Notify worker process", Received("two"),
                                                "Notify worker process"));
}

TEST_F(DaemonProcessTest, TicketWhoseChildCannotBeForkedIsCompletedAtOnce) {
  Finish(1);
  platform_.fork = [failed = false]() mutable {
    if (failed) return test_support::ScriptedPlatform::ForkAs(kTransmissionChild);
    failed = true;
    return -1;
  };
  StartAndWait();
  DeliverAndExpect("one", 0);
  ASSERT_TRUE(log_.WaitFor(Error("Failed to send debug file")));
  DeliverAndExpect("two", 0);
  ASSERT_TRUE(log_.WaitFor(Warning("Notify worker process")));
  EXPECT_THAT(TextsOf(kSupervisor),
              ElementsAre(Received("one"), "Failed to fork()", "Failed to send debug file", Received("two"),
                          "Notify worker process"));
}

TEST_F(DaemonProcessTest, ChildThatIsKilledIsReapedAndCompletedLikeAnyOther) {
  StartAndWait();
  DeliverAndExpect("one", 0);
  ASSERT_TRUE(log_.WaitFor(Call(HasSubstr("status"))));
  real::Kill(PidsOf(kTransmissionChild).at(0), SIGKILL);
  ASSERT_TRUE(log_.WaitFor(Warning("Notify worker process")));
  Finish(2);
  DeliverAndExpect("two", 0);
  ASSERT_TRUE(log_.WaitFor(Warning(Finished("two"))));
}

// ---- Descriptors ----

TEST_F(DaemonProcessTest, EachProcessKeepsItsEndsOfThePipesOnly) {
  const ChildProcess idle([] { return pause(); });
  const std::set<int> inherited = OpenDescriptors(idle.pid());
  StartAndWait();
  DeliverAndExpect("one", 0);
  ASSERT_TRUE(log_.WaitFor(Call(HasSubstr("status"))));

  const std::vector<Descriptor> main = OwnDescriptors(supervisor_->pid(), inherited);
  const std::vector<Descriptor> worker = OwnDescriptors(Worker(), inherited);
  const std::vector<Descriptor> child = OwnDescriptors(PidsOf(kTransmissionChild).at(0), inherited);
  ASSERT_EQ(main.size(), 2U);
  ASSERT_EQ(worker.size(), 2U);
  ASSERT_EQ(child.size(), 2U);
  const bool main_reads_first = (main[0].flags & O_ACCMODE) == O_RDONLY;
  const Descriptor& main_reads = main[main_reads_first ? 0 : 1];
  const Descriptor& main_writes = main[main_reads_first ? 1 : 0];
  const bool worker_reads_first = (worker[0].flags & O_ACCMODE) == O_RDONLY;
  const Descriptor& worker_reads = worker[worker_reads_first ? 0 : 1];
  const Descriptor& worker_writes = worker[worker_reads_first ? 1 : 0];
  EXPECT_EQ(main_reads.target, worker_writes.target);
  EXPECT_EQ(main_writes.target, worker_reads.target);
  EXPECT_NE(main_reads.target, main_writes.target);
  EXPECT_EQ(main_reads.flags & (O_ACCMODE | O_NONBLOCK), O_RDONLY | O_NONBLOCK);
  EXPECT_EQ(main_writes.flags & (O_ACCMODE | O_NONBLOCK), O_WRONLY | O_NONBLOCK);
  EXPECT_EQ(worker_reads.flags & (O_ACCMODE | O_NONBLOCK), O_RDONLY | O_NONBLOCK);
  EXPECT_EQ(worker_writes.flags & (O_ACCMODE | O_NONBLOCK), O_WRONLY | O_NONBLOCK);
  for (const Descriptor& end : child) {
    EXPECT_TRUE(end.target == main[0].target || end.target == main[1].target);
  }
}

TEST_F(DaemonProcessTest, NoDescriptorIsLeftOverByTickets) {
  Finish(3);
  StartAndWait();
  const std::set<int> before = OpenDescriptors(supervisor_->pid());
  const std::set<int> worker_before = OpenDescriptors(Worker());
  for (int number = 1; number <= 3; ++number) {
    DeliverAndExpect(std::to_string(number), 0);
    ASSERT_TRUE(log_.WaitFor(Warning("Notify worker process"), number));
  }
  EXPECT_EQ(OpenDescriptors(supervisor_->pid()), before);
  EXPECT_EQ(OpenDescriptors(Worker()), worker_before);
}

// ---- Signals ----

TEST_F(DaemonProcessTest, BothProcessesReconfigureTheirLoggerFirst) {
  StartAndWait();
  EXPECT_THAT(log_.CallsOf("ReconfigureByDebugFlag").size(), 2U);
  const std::vector<Event> worker = log_.events(kWorker);
  const auto reconfigured = std::find_if(worker.begin(), worker.end(), [](const Event& event) {
    return event.text == "ReconfigureByDebugFlag()";
  });
  ASSERT_NE(reconfigured, worker.end());
  EXPECT_THAT(reconfigured[1], Warning("Prepare to receive grpc request"));
}

TEST_F(DaemonProcessTest, SighupActsOnTheProcessThatReceivesIt) {
  StartAndWait();
  supervisor_->Signal(SIGHUP);
  ASSERT_TRUE(log_.WaitFor(By(kSupervisor, Call("ReconfigureByDebugFlag()")), 2));
  ASSERT_TRUE(WaitForPass());
  EXPECT_FALSE(log_.WaitFor(By(kWorker, Call("ReconfigureByDebugFlag()")), 2, std::chrono::milliseconds(0)));
  real::Kill(Worker(), SIGHUP);
  ASSERT_TRUE(log_.WaitFor(By(kWorker, Call("ReconfigureByDebugFlag()")), 2));
  ASSERT_TRUE(WaitForPass());
  EXPECT_FALSE(
      log_.WaitFor(By(kSupervisor, Call("ReconfigureByDebugFlag()")), 3, std::chrono::milliseconds(0)));
}

TEST_F(DaemonProcessTest, SigtermEndsTheSupervisorAloneAndTheChildFinishesOnItsOwn) {
  StartAndWait();
  DeliverAndExpect("one", 0);
  ASSERT_TRUE(log_.WaitFor(Call(HasSubstr("status"))));
  supervisor_->Signal(SIGTERM);
  EXPECT_THAT(supervisor_->WaitForEnd(), ExitedWith(0));
  Finish(1);
  EXPECT_THAT(WaitForProcess(PidsOf(kTransmissionChild).at(0)), ExitedWith(0));
  EXPECT_THAT(TextsOf(kTransmissionChild), ElementsAre(Finished("one")));
  EXPECT_FALSE(std::filesystem::exists(Archive(1)));
  EXPECT_EQ(real::Kill(Worker(), 0), 0) << "the worker was not told to stop";
  EXPECT_THAT(log_.CallsOf("_exit"), ElementsAre("_exit(0)")) << "the child's alone";
}

TEST_F(DaemonProcessTest, SigtermEndsTheWorkerAloneWithoutAnAnswer) {
  StartAndWait();
  real::Kill(Worker(), SIGTERM);
  ASSERT_TRUE(log_.WaitFor(By(kWorker, Call("_exit(0)"))));
  ASSERT_TRUE(log_.WaitFor(By(kSupervisor, Error(kEndOfFile))));
  EXPECT_THAT(log_.CallsOf("Send"), IsEmpty());
  supervisor_->Signal(SIGTERM);
  EXPECT_THAT(supervisor_->WaitForEnd(), ExitedWith(0));
  EXPECT_THAT(WaitForProcess(Worker()), ExitedWith(0));
}

// ---- One process has gone ----

TEST_F(DaemonProcessTest, WorkerThatHasGoneIsLoggedInEveryPassAndNotStartedAgain) {
  StartAndWait();
  real::Kill(Worker(), SIGKILL);
  ASSERT_TRUE(log_.WaitFor(Error("Failed to receive message from worker process"), 3));
  supervisor_->Signal(SIGTERM);
  EXPECT_THAT(supervisor_->WaitForEnd(), ExitedWith(0));
  const std::vector<Event> events = log_.events(kSupervisor);
  const auto first = std::find_if(events.begin(), events.end(),
                                  [](const Event& event) { return event.kind == Event::kLine; });
  ASSERT_GE(events.end() - first, 6);
  EXPECT_THAT(std::vector<Event>(first, first + 6),
              ElementsAre(Error(kEndOfFile), Error("Failed to receive message from worker process"),
                          Call("usleep(500000)"), Error(kEndOfFile),
                          Error("Failed to receive message from worker process"), Call("usleep(500000)")));
  EXPECT_THAT(log_.CallsOf("TLIBCProcForkEx"), ElementsAre("TLIBCProcForkEx(65)"));
}

TEST_F(DaemonProcessTest, SupervisorWhoseWorkerHasGoneDiesOfSigpipeAtItsNextCompletion) {
  StartAndWait();
  DeliverAndExpect("one", 0);
  ASSERT_TRUE(log_.WaitFor(Call(HasSubstr("status"))));
  const pid_t worker = Worker();
  real::Kill(worker, SIGKILL);
  const auto end = std::chrono::steady_clock::now() + test_support::kPatience;
  while (!OpenDescriptors(worker).empty()) ASSERT_LT(std::chrono::steady_clock::now(), end);
  Finish(1);
  EXPECT_THAT(supervisor_->WaitForEnd(), KilledBy(SIGPIPE));
  EXPECT_THAT(TextsOf(kTransmissionChild), ElementsAre(Finished("one"))) << "the child was not disturbed";
  EXPECT_THAT(TextsOf(kSupervisor), ElementsAre(Received("one"), "Notify worker process"));
}

TEST_F(DaemonProcessTest, WorkerWhoseSupervisorHasGoneDiesOfSigpipeAtItsFirstTicket) {
  StartAndWait();
  const pid_t worker = Worker();
  supervisor_->Signal(SIGKILL);
  EXPECT_THAT(supervisor_->WaitForEnd(), KilledBy(SIGKILL));
  Deliver("one");
  EXPECT_THAT(WaitForProcess(worker), KilledBy(SIGPIPE));
  EXPECT_THAT(log_.CallsOf("Send"), IsEmpty());
}

TEST_F(DaemonProcessTest, WorkerWhoseSupervisorHasGoneRefusesTheTicketAfterAnUnfinishedOne) {
  StartAndWait();
  DeliverAndExpect("one", 0);
  ASSERT_TRUE(log_.WaitFor(Call(HasSubstr("status"))));
  supervisor_->Signal(SIGKILL);
  EXPECT_THAT(supervisor_->WaitForEnd(), KilledBy(SIGKILL));
  DeliverAndExpect("two", 1);
  EXPECT_THAT(TextsOf(kWorker), Not(Contains(kEndOfFile))) << "the child still holds the supervisor's ends";
  Finish(1);
  EXPECT_THAT(WaitForProcess(PidsOf(kTransmissionChild).at(0)), ExitedWith(0));
  for (const char* const token : {"three", "four"}) DeliverAndExpect(token, 1);
  std::vector<std::string> errors;
  for (const Event& event : log_.lines(kWorker)) {
    if (event.level == LOG_ERR) errors.push_back(event.text.substr(event.text.find(' ') + 1));
  }
  EXPECT_THAT(errors, ElementsAre(kEndOfFile, "Failed to receive message from main process", kEndOfFile,
                                  "Failed to receive message from main process"));
}

// ---- A start that fails ----

TEST_F(DaemonProcessTest, WorkerWithoutAnAddressFallsThroughIntoTheSupervisorsLoopAndAborts) {
  platform_.SetServiceConfig("{}");
  Start();
  ASSERT_TRUE(log_.WaitFor(By(kSupervisor, Error("Failed to receive message from worker process"))));
  supervisor_->Signal(SIGTERM);
  EXPECT_THAT(supervisor_->WaitForEnd(), ExitedWith(0));
  EXPECT_THAT(WaitForProcess(Worker()), KilledBy(SIGABRT));
  EXPECT_THAT(log_.events(kWorker),
              ElementsAre(Call(StartsWith("srand(")), Call("FromFile(/usr/tarvo/etc/tarvomibserver.conf)"),
                          Error("Failed to validate data: [{}]"), Error("Failed to get grpc server url"),
                          Call("ReconfigureByDebugFlag()"), Call("abort()")));
}

TEST_F(DaemonProcessTest, WorkerWhosePipesCannotBeMadeNonBlockingAborts) {
  platform_.fork_ex = [this](int) {
    const pid_t pid = test_support::ScriptedPlatform::ForkAs(kWorker);
    if (pid == 0) {
      platform_.fcntl = [](int, int, long) {
        errno = EPERM;
        return -1;
      };
    }
    return pid;
  };
  Start();
  ASSERT_TRUE(log_.WaitFor(By(kSupervisor, Error(kEndOfFile))));
  supervisor_->Signal(SIGTERM);
  EXPECT_THAT(supervisor_->WaitForEnd(), ExitedWith(0));
  EXPECT_THAT(WaitForProcess(Worker()), KilledBy(SIGABRT));
  EXPECT_THAT(log_.events(kWorker), ElementsAre(Error("Failed to do fcntl(), err=Operation not permitted"),
                                                Error("Failed to set file descriptor as non-blocking"),
                                                Call("ReconfigureByDebugFlag()"), Call("abort()")));
}

TEST_F(DaemonProcessTest, SupervisorThatGetsNoPipeAbortsAtItsFirstWait) {
  for (const int spare : {0, 2}) {  // descriptors for no pipe, and for the first one
    log_.Clear();
    supervisor_ = std::make_unique<ChildProcess>([=] {
      LeaveFree(spare);
      return DebugDatTransmitterDaemon().Run() ? 0 : 1;
    });
    EXPECT_THAT(supervisor_->WaitForEnd(), KilledBy(SIGABRT));
    EXPECT_THAT(log_.events(), ElementsAre(Call("signal(1)"), Call("signal(15)"),
                                           Error("Failed to do pipe(), err=Too many open files"),
                                           Call("ReconfigureByDebugFlag()"), Call("abort()")));
  }
}

TEST_F(DaemonProcessTest, SupervisorThatGetsNoWorkerIdlesUntilSigterm) {
  platform_.fork_ex = [](int) { return -1; };
  Start();
  ASSERT_TRUE(WaitForPass());
  supervisor_->Signal(SIGTERM);
  EXPECT_THAT(supervisor_->WaitForEnd(), ExitedWith(0));
  // A signal that meets the wait is a line of its own.
  const std::vector<std::string> lines = TextsOf(kSupervisor);
  EXPECT_THAT(lines, testing::AnyOf(ElementsAre("Failed to fork()"),
                                    ElementsAre("Failed to fork()",
                                                "Failed to do select(), err=Interrupted system call\n")));
}

}  // namespace
