#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

#include "daemon_fixture.h"

using TarvoOrvane::FastSupport::CallStatus;
using TarvoOrvane::FastSupport::FastSupportClient;
using TarvoOrvane::FastSupport::ReceiveResult;
using TarvoOrvane::FastSupport::Ticket;
using test_support::Ending;
using test_support::Event;
using testing::Contains;
using testing::Not;

namespace {

using Step = std::function<ReceiveResult()>;

ReceiveResult Arrives(const Ticket& ticket) { return {ticket, {}}; }
Step TicketArrives(const std::string& token) {
  return [token] { return Arrives({token, {"a"}}); };
}
Step NothingArrives() {
  return [] { return ReceiveResult{{}, {true, -5, "no server"}}; };
}
CallStatus Sent() { return {}; }

constexpr char kFailedReceive[] = "Failed to recive data, hasFail: 1, error: -5, error msg: no server";
constexpr char kReceived[] = "Received grpc request, prepare to check and send response";
constexpr char kCompletion[] = R"({"success":true})";

/// Runs the worker's loop in a child, Receive() going through `steps_`; SIGTERM comes with the last one, so
/// that the loop ends after it. rand() yields 0, so the pauses are 2, 4, 8 ... seconds.
class WorkerLoopTest : public DaemonTest {
 protected:
  void SetUp() override {
    JoinByPipes();
    platform_.SetServiceConfig(R"({"debug_dat_file_transmitter":{"grpc_server":{"url":"http://h:1"}}})");
    platform_.rand = [] { return 0; };
  }

  Ending RunToEnd() {
    platform_.receive = [this, next = std::size_t{0}]() mutable {
      const Step& step = steps_.at(next++);
      if (next == steps_.size()) Signal(SIGTERM);
      return step();
    };
    return RunInChild([this] {
      worker_.Init();
      log_.Clear();
      worker_.RunWorker();
      return 77;  // only where the loop could not start
    });
  }

  /// Runs the loop, which is to end itself with status 0.
  void Run(const std::vector<Step>& steps) {
    steps_ = steps;
    EXPECT_THAT(RunToEnd(), ExitedWith(0));
    EXPECT_EQ(log_.CallsOf("_exit"), std::vector<std::string>{"_exit(0)"});
    EXPECT_THAT(log_.calls(), Not(Contains("~FastSupportClient()")));
  }

  /// What was logged and called from the first iteration on, without the waits and the end.
  std::vector<Event> Iterations() {
    std::vector<Event> result;
    bool started = false;
    for (const Event& event : log_.events()) {
      if (started && event.text.rfind("select(", 0) != 0 && event.text != "_exit(0)") result.push_back(event);
      started = started || event.text == "FastSupportClient(http://h:1)";
    }
    return result;
  }

  std::vector<std::string> Pauses() { return log_.CallsOf("sleep"); }
  std::vector<std::string> Answers() { return log_.CallsOf("Send"); }
  std::vector<std::string> HandedOver() {
    std::vector<std::string> tokens;
    for (const std::string& text : TakeFrames(main_.fromWorkerReadFd)) {
      tokens.push_back(Parse(text)["token"].asString());
    }
    return tokens;
  }
  void MainCompletes() { Put(main_.toWorkerWriteFd, kCompletion); }

  /// The logger throws at the line of this text that is the `number`th one.
  void LoggerThrowsAt(const std::string& line, int number) {
    test_support::ScriptedPlatform::UseLogger(true);
    platform_.log = [line, number, count = 0](int, const std::string& text) mutable {
      if (text.find(" " + line) != std::string::npos && ++count == number) throw std::runtime_error("logger");
    };
  }

  /// Send() throws at its `number`th call.
  void SendThrowsAt(int number) {
    platform_.send = [number, count = 0](FastSupportClient::ClientStatus) mutable {
      if (++count == number) throw std::runtime_error("boom");
      return Sent();
    };
  }

  /// Each wait for a Completion is ended by a signal.
  void InterruptTheWaitBy(int number) {
    platform_.select = [=](int, fd_set*, fd_set*, fd_set*, timeval*) {
      Signal(number);
      errno = EINTR;
      return -1;
    };
  }

  /// `step`, the main process having sent its Completion just before.
  Step AfterCompletion(const Step& step) {
    return [this, step] {
      MainCompletes();
      return step();
    };
  }

  std::vector<Step> steps_;
};

// ---- Start and end ----

TEST_F(WorkerLoopTest, StartsInOrderAndEndsWithoutDestroyingAnything) {
  platform_.time = [] { return 12345; };
  Run({NothingArrives()});
  EXPECT_THAT(log_.events(),
              ElementsAre(Call("srand(12345)"), Call("FromFile(/usr/tarvo/etc/tarvomibserver.conf)"),
                          Call("FastSupportClient(http://h:1)"), Warning("Prepare to receive grpc request"),
                          Call("Receive()"), Warning(kReceived), Error(kFailedReceive), Call("sleep(2)"),
                          Call("_exit(0)")));
}

TEST_F(WorkerLoopTest, DoesNotStartWithoutAnAddress) {
  platform_.SetServiceConfig(R"({"debug_dat_file_transmitter":{"grpc_server":{"url":""}}})");
  EXPECT_THAT(RunToEnd(), ExitedWith(77));
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to get grpc server url")));
  EXPECT_THAT(log_.CallsOf("FastSupportClient"), IsEmpty());
}

TEST_F(WorkerLoopTest, ExceptionOfTheClientsConstructorEndsTheWorker) {
  platform_.construct_client = [](const std::string&) { throw std::runtime_error("no client"); };
  EXPECT_THAT(RunToEnd(), KilledBy(SIGABRT));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// In the process that becomes the worker nothing between main() and the loop catches anything.
TEST_F(WorkerLoopTest, WhatLeavesTheLoopEndsTheProcessAndNotOnlyTheLoop) {
  platform_.fork_ex = [](int) { return 0; };
  platform_.receive = []() -> ReceiveResult { throw std::logic_error("boom"); };
  for (const bool constructor_throws : {false, true}) {
    log_.Clear();
    if (constructor_throws) {
      platform_.construct_client = [](const std::string&) { throw std::runtime_error("no client"); };
    }
    EXPECT_THAT(RunInChild([] { return DebugDatTransmitterDaemon().Run() ? 0 : 1; }), KilledBy(SIGABRT));
    EXPECT_EQ(log_.CallsOf("ReconfigureByDebugFlag").size(), constructor_throws ? 0U : 1U)
        << "the worker's own; a supervisor's loop would add one";
  }
}

TEST_F(WorkerLoopTest, AddressReachesTheClientAsItIsStored) {
  platform_.SetServiceConfig(R"({"debug_dat_file_transmitter":{"grpc_server":{"url":" h:1/p/ "}}})");
  Run({NothingArrives()});
  EXPECT_THAT(log_.calls(), Contains("FastSupportClient( h:1/p/ )"));
}

TEST_F(WorkerLoopTest, NoDescriptorIsClosedAtTheEnd) {
  platform_.construct_client = [this](const std::string&) {
    platform_.close = [](int fd) {
      RecordCall("close(" + std::to_string(fd) + ")");
      return 0;
    };
  };
  Run({TicketArrives("one")});
  EXPECT_THAT(log_.CallsOf("close"), IsEmpty());
}

TEST_F(WorkerLoopTest, StopRequestDuringTheReconfigurationLetsTheIterationFinish) {
  platform_.construct_client = [](const std::string&) { Signal(SIGHUP); };
  platform_.reconfigure = [] { Signal(SIGTERM); };
  Run({TicketArrives("one"), TicketArrives("two")});
  EXPECT_EQ(log_.CallsOf("Receive").size(), 1U);
  EXPECT_THAT(Answers(), ElementsAre("Send(0)"));
  EXPECT_THAT(HandedOver(), ElementsAre("one"));
}

TEST_F(WorkerLoopTest, LinesAreTheSameOnBothLogPaths) {
  std::vector<std::pair<int, std::string>> lines[2];
  for (const bool use_logger : {false, true}) {
    log_.Clear();
    test_support::ScriptedPlatform::UseLogger(use_logger);
    platform_.send = [count = 0](FastSupportClient::ClientStatus) mutable {
      return ++count == 1 ? Sent() : CallStatus{true, 14, "gone"};
    };
    Run({TicketArrives("one"), TicketArrives("two"), AfterCompletion(TicketArrives("three")),
         []() -> ReceiveResult { throw std::runtime_error("boom"); }, NothingArrives()});
    TakeAll(main_.fromWorkerReadFd);
    for (const Event& line : log_.lines()) {
      EXPECT_EQ(line.via_logger, use_logger) << line.text;
      lines[use_logger ? 1 : 0].emplace_back(line.level, line.text);
    }
  }
  EXPECT_GT(lines[0].size(), 15U);
  EXPECT_EQ(lines[0], lines[1]);
}

TEST_F(WorkerLoopTest, StopRequestBeforeTheFirstIterationEndsTheWorkerWithoutOne) {
  platform_.construct_client = [](const std::string&) { Signal(SIGTERM); };
  Run({});
  EXPECT_THAT(Iterations(), IsEmpty());
}

// ---- Handing over ----

TEST_F(WorkerLoopTest, FirstTicketIsHandedOverWithoutAnyWait) {
  Run({TicketArrives("one")});
  EXPECT_THAT(Iterations(),
              ElementsAre(Warning("Prepare to receive grpc request"), Call("Receive()"), Warning(kReceived),
                          Warning("Notify main process"), Warning("Sent grpc response: 0"), Call("Send(0)")));
  EXPECT_THAT(log_.CallsOf("select"), IsEmpty());
  EXPECT_THAT(TakeFrames(main_.fromWorkerReadFd), ElementsAre(R"({"apps":["a"],"token":"one"})"));
}

TEST_F(WorkerLoopTest, TicketIsOnThePipeBeforeTheServerIsAnswered) {
  platform_.send = [this](FastSupportClient::ClientStatus) {
    EXPECT_EQ(TakeAll(main_.fromWorkerReadFd).size(), 2048U);
    return Sent();
  };
  Run({TicketArrives("one")});
}

TEST_F(WorkerLoopTest, SecondTicketWhileTheFirstIsServedIsRefusedAndDropped) {
  Run({TicketArrives("one"), TicketArrives("two")});
  const std::vector<Event> events = Iterations();
  EXPECT_THAT(std::vector<Event>(events.begin() + 6, events.end()),
              ElementsAre(Warning("Prepare to receive grpc request"), Call("Receive()"), Warning(kReceived),
                          Warning("Sent grpc response: 1"), Call("Send(1)"), Call("sleep(2)")));
  EXPECT_THAT(log_.CallsOf("select"),
              ElementsAre("select(" + std::to_string(worker_.toWorkerReadFd) + ", 0, 500000)"));
  EXPECT_THAT(HandedOver(), ElementsAre("one"));
}

TEST_F(WorkerLoopTest, TicketAfterTheCompletionIsHandedOver) {
  Run({TicketArrives("one"), TicketArrives("two"), AfterCompletion(TicketArrives("three"))});
  const std::vector<Event> events = Iterations();
  EXPECT_THAT(std::vector<Event>(events.begin() + 12, events.end()),
              ElementsAre(Warning("Prepare to receive grpc request"), Call("Receive()"), Warning(kReceived),
                          Warning("Finish waiting main process to respond"), Warning("Notify main process"),
                          Warning("Sent grpc response: 0"), Call("Send(0)")));
  EXPECT_THAT(HandedOver(), ElementsAre("one", "three"));
  EXPECT_THAT(Pauses(), ElementsAre("sleep(2)"));
}

TEST_F(WorkerLoopTest, EachTicketNeedsTheCompletionOfTheOneBefore) {
  Run({TicketArrives("one"), AfterCompletion(TicketArrives("two")), TicketArrives("three")});
  EXPECT_THAT(Answers(), ElementsAre("Send(0)", "Send(0)", "Send(1)"));
  EXPECT_THAT(HandedOver(), ElementsAre("one", "two"));
}

TEST_F(WorkerLoopTest, OfManyTicketsEachIsAdmittedByTheCompletionOfTheLastOneHandedOver) {
  bool write_fails = false;
  platform_.write = [&](int fd, const void* data, std::size_t size) {
    if (fd != worker_.fromWorkerWriteFd) return test_support::real::Write(fd, data, size);
    errno = EAGAIN;
    if (write_fails) return ssize_t{-1};
    RecordCall("HandedOver(" + Parse(static_cast<const char*>(data))["token"].asString() + ")");
    return static_cast<ssize_t>(size);
  };
  std::vector<Step> steps;
  std::vector<std::string> answers;
  std::vector<std::string> handed_over;
  std::vector<std::string> pauses;
  bool awaited = false;
  for (int number = 0; number < 120; ++number) {
    const bool completes = awaited && number % 3 != 0;
    const bool fails = number % 7 == 0;
    steps.emplace_back([this, &write_fails, number, completes, fails] {
      if (completes) MainCompletes();
      write_fails = fails;
      return Arrives({std::to_string(number), {}});
    });
    const bool refused = awaited && !completes;
    if (refused) pauses.emplace_back("sleep(2)");
    if (!refused && !fails) handed_over.push_back("HandedOver(" + std::to_string(number) + ")");
    answers.emplace_back(refused || fails ? "Send(1)" : "Send(0)");
    awaited = refused || !fails;
  }
  Run(steps);
  EXPECT_EQ(Answers(), answers);
  EXPECT_EQ(log_.CallsOf("HandedOver"), handed_over);
  EXPECT_EQ(Pauses(), pauses);
}

TEST_F(WorkerLoopTest, EmptyTokenAndApplicationsAreHandedOverAsReceived) {
  Run({[] { return Arrives({"", {}}); }});
  EXPECT_THAT(TakeFrames(main_.fromWorkerReadFd), ElementsAre(R"({"apps":[],"token":""})"));
  EXPECT_THAT(Answers(), ElementsAre("Send(0)"));
}

TEST_F(WorkerLoopTest, StatusIsNotLookedAtWhereATicketArrived) {
  Run({[] { return ReceiveResult{Ticket{"one", {"a"}}, {true, 3, "odd"}}; }});
  EXPECT_THAT(Answers(), ElementsAre("Send(0)"));
  EXPECT_THAT(HandedOver(), ElementsAre("one"));
}

// ---- Refusals ----

TEST_F(WorkerLoopTest, UnreadableCompletionRefusesTheTicket) {
  Run({TicketArrives("one"), [this] {
         Put(main_.toWorkerWriteFd, "nonsense");
         return Arrives({"two", {}});
       }});
  EXPECT_THAT(log_.lines(), testing::IsSupersetOf({Error("Failed to parse pipe data: nonsense"),
                                                   Error("Failed to receive message from main process")}));
  EXPECT_THAT(Answers(), ElementsAre("Send(0)", "Send(1)"));
  EXPECT_THAT(Pauses(), ElementsAre("sleep(2)"));
}

TEST_F(WorkerLoopTest, AnswerOtherThanSuccessRefusesThisTicketAndEveryOneAfter) {
  Run({TicketArrives("one"),
       [this] {
         Put(main_.toWorkerWriteFd, R"({"success":false})");
         return Arrives({"two", {}});
       },
       TicketArrives("three")});
  EXPECT_THAT(log_.lines(), Contains(Error("Something wrong in the main process")));
  EXPECT_THAT(Answers(), ElementsAre("Send(0)", "Send(1)", "Send(1)"));
  EXPECT_THAT(Pauses(), ElementsAre("sleep(2)", "sleep(2)"));
}

TEST_F(WorkerLoopTest, GoodCompletionAfterABadOneAdmitsTheNextTicket) {
  for (const char* const bad : {"nonsense", R"({"success":false})"}) {
    log_.Clear();
    Run({TicketArrives("one"),
         [this, bad] {
           Put(main_.toWorkerWriteFd, bad);
           return Arrives({"two", {}});
         },
         AfterCompletion(TicketArrives("three"))});
    EXPECT_THAT(Answers(), ElementsAre("Send(0)", "Send(1)", "Send(0)")) << bad;
    EXPECT_THAT(HandedOver(), ElementsAre("one", "three")) << bad;
  }
}

TEST_F(WorkerLoopTest, TicketThatCannotBeWrittenIsRefusedWithoutAPauseAndNothingIsAwaited) {
  platform_.write = [failed = false](int fd, const void* data, std::size_t size) mutable {
    if (failed) return test_support::real::Write(fd, data, size);
    failed = true;
    errno = EAGAIN;
    return ssize_t{-1};
  };
  Run({TicketArrives("one"), TicketArrives("two")});
  EXPECT_THAT(Iterations(),
              ElementsAre(Warning("Prepare to receive grpc request"), Call("Receive()"), Warning(kReceived),
                          Warning("Notify main process"),
                          Error("Failed to write, err=Resource temporarily unavailable"),
                          Error("Failed to send message to main process"), Warning("Sent grpc response: 1"),
                          Call("Send(1)"), Warning("Prepare to receive grpc request"), Call("Receive()"),
                          Warning(kReceived), Warning("Notify main process"),
                          Warning("Sent grpc response: 0"), Call("Send(0)")));
  EXPECT_THAT(HandedOver(), ElementsAre("two"));
}

TEST_F(WorkerLoopTest, FailedWriteAfterACompletionLeavesNothingAwaited) {
  platform_.write = [count = 0](int fd, const void* data, std::size_t size) mutable {
    errno = EAGAIN;
    // The first frame and the test's own Completion pass.
    return ++count == 2 ? ssize_t{-1} : test_support::real::Write(fd, data, size);
  };
  Run({TicketArrives("one"), AfterCompletion(TicketArrives("two")), TicketArrives("three")});
  EXPECT_THAT(Answers(), ElementsAre("Send(0)", "Send(1)", "Send(0)"));
  EXPECT_THAT(Pauses(), IsEmpty());
  EXPECT_THAT(HandedOver(), ElementsAre("one", "three"));
}

TEST_F(WorkerLoopTest, FailedSendIsLoggedAfterItsLineAndChangesNothing) {
  platform_.send = [](FastSupportClient::ClientStatus) { return CallStatus{true, 14, "gone"}; };
  Run({TicketArrives("one"), TicketArrives("two")});
  EXPECT_THAT(Iterations(),
              ElementsAre(Warning("Prepare to receive grpc request"), Call("Receive()"), Warning(kReceived),
                          Warning("Notify main process"), Warning("Sent grpc response: 0"), Call("Send(0)"),
                          Error("Failed to send response, error: 14, error msg: gone"),
                          Warning("Prepare to receive grpc request"), Call("Receive()"), Warning(kReceived),
                          Warning("Sent grpc response: 1"), Call("Send(1)"),
                          Error("Failed to send response, error: 14, error msg: gone"), Call("sleep(2)")));
}

TEST_F(WorkerLoopTest, OnlyHasFailMakesASendFail) {
  platform_.send = [](FastSupportClient::ClientStatus) { return CallStatus{false, 14, "odd"}; };
  Run({TicketArrives("one")});
  EXPECT_THAT(Iterations().back(), Call("Send(0)"));
}

// ---- Receive() without a ticket, and the pauses ----

TEST_F(WorkerLoopTest, NoTicketIsLoggedWithItsStatusAndGetsNoAnswer) {
  Run({NothingArrives(), [] { return ReceiveResult{{}, {false, 2147483647, ""}}; }});
  EXPECT_THAT(
      log_.lines(),
      testing::IsSupersetOf({Error(kFailedReceive),
                             Error("Failed to recive data, hasFail: 0, error: 2147483647, error msg: ")}));
  EXPECT_THAT(Answers(), IsEmpty());
}

TEST_F(WorkerLoopTest, PausesDoubleUpTo600SecondsAndTheFirstTicketResetsThem) {
  std::vector<Step> steps(12, NothingArrives());
  steps.push_back(TicketArrives("one"));
  steps.insert(steps.end(), 2, NothingArrives());
  Run(steps);
  EXPECT_THAT(Pauses(), ElementsAre("sleep(2)", "sleep(4)", "sleep(8)", "sleep(16)", "sleep(32)", "sleep(64)",
                                    "sleep(128)", "sleep(256)", "sleep(512)", "sleep(600)", "sleep(600)",
                                    "sleep(600)", "sleep(2)", "sleep(4)"));
}

TEST_F(WorkerLoopTest, RefusalResetsTheBaseAndLeavesItAtTwo) {
  Run({NothingArrives(), NothingArrives(), TicketArrives("one"), NothingArrives(), NothingArrives(),
       TicketArrives("two"), NothingArrives()});
  EXPECT_THAT(Pauses(), ElementsAre("sleep(2)", "sleep(4)", "sleep(2)", "sleep(4)", "sleep(2)", "sleep(4)"));
}

TEST_F(WorkerLoopTest, FailedReceiveLeavesTheAwaitedCompletionAwaited) {
  Run({TicketArrives("one"), NothingArrives(), TicketArrives("two")});
  EXPECT_THAT(Answers(), ElementsAre("Send(0)", "Send(1)"));
}

TEST(NextRetryDelayTest, IsTwiceTheBasePlusARandomPartUpToTheBase) {
  const test_support::LogRecorder log;
  test_support::ScriptedPlatform platform;
  struct Case {
    std::uint32_t base;
    int random;
    std::uint32_t delay;
    std::uint32_t next_base;
  };
  for (const Case& c : {Case{1, 0, 2, 2}, Case{1, 1, 3, 2}, Case{1, 2, 2, 2}, Case{1, -1, 3, 2},
                        Case{4, 4, 12, 8}, Case{4, 5, 8, 8}, Case{256, 86, 598, 512}, Case{256, 87, 599, 512},
                        Case{256, 88, 600, 256}, Case{256, 89, 600, 256}, Case{256, 256, 600, 256},
                        Case{512, 0, 600, 512}, Case{300, 0, 600, 300}, Case{299, 0, 598, 598}}) {
    platform.rand = [&] { return c.random; };
    std::uint32_t base = c.base;
    EXPECT_EQ(NextRetryDelay(base), c.delay) << c.base << " " << c.random;
    EXPECT_EQ(base, c.next_base) << c.base << " " << c.random;
  }
}

TEST(NextRetryDelayTest, EveryBaseReachesBothEndsOfItsRangeBelowTheCap) {
  test_support::ScriptedPlatform platform;
  for (std::uint32_t start = 1; start <= 512; ++start) {
    for (const std::uint32_t random : {0U, start, start + 1}) {
      platform.rand = [&] { return static_cast<int>(random); };
      const std::uint32_t delay = 2 * start + (random == start ? start : 0);
      std::uint32_t base = start;
      EXPECT_EQ(NextRetryDelay(base), delay > 599 ? 600 : delay) << start << " " << random;
      EXPECT_EQ(base, delay > 599 ? start : 2 * start) << start << " " << random;
    }
  }
}

// ---- Exceptions ----

TEST_F(WorkerLoopTest, RuntimeErrorIsLoggedAndThePauseFollows) {
  Run({[]() -> ReceiveResult { throw std::runtime_error("boom"); },
       []() -> ReceiveResult { throw std::range_error("derived"); }, NothingArrives()});
  EXPECT_THAT(
      Iterations(),
      ElementsAre(Warning("Prepare to receive grpc request"), Call("Receive()"), Error("catch error: boom"),
                  Call("sleep(2)"), Warning("Prepare to receive grpc request"), Call("Receive()"),
                  Error("catch error: derived"), Call("sleep(4)"), Warning("Prepare to receive grpc request"),
                  Call("Receive()"), Warning(kReceived), Error(kFailedReceive), Call("sleep(8)")));
}

TEST_F(WorkerLoopTest, ExceptionOfTheSendKeepsWhatWasAssignedBefore) {
  SendThrowsAt(1);
  Run({NothingArrives(), TicketArrives("one"), TicketArrives("two")});
  EXPECT_THAT(Pauses(), ElementsAre("sleep(2)", "sleep(2)", "sleep(2)")) << "the ticket had reset the base";
  EXPECT_THAT(Answers(), ElementsAre("Send(0)", "Send(1)")) << "the first ticket's Completion is awaited";
}

TEST_F(WorkerLoopTest, ExceptionAfterTheCompletionLeavesNothingAwaited) {
  LoggerThrowsAt("Notify main process", 2);
  Run({TicketArrives("one"), AfterCompletion(TicketArrives("two")), TicketArrives("three")});
  EXPECT_THAT(HandedOver(), ElementsAre("one", "three"));
  EXPECT_THAT(Answers(), ElementsAre("Send(0)", "Send(0)"));
  EXPECT_THAT(log_.lines(), Contains(Error("catch error: logger")));
}

TEST_F(WorkerLoopTest, ExceptionAtTheCompletionsOwnLineLeavesItAwaited) {
  LoggerThrowsAt("Finish waiting main process to respond", 1);
  Run({TicketArrives("one"), AfterCompletion(TicketArrives("two")), TicketArrives("three")});
  EXPECT_THAT(Answers(), ElementsAre("Send(0)", "Send(1)"));
  EXPECT_THAT(Pauses(), ElementsAre("sleep(2)", "sleep(2)")) << "each ticket had reset the base";
  EXPECT_THAT(HandedOver(), ElementsAre("one"));
}

TEST_F(WorkerLoopTest, ExceptionBeforeTheTicketIsLookedAtKeepsTheBase) {
  LoggerThrowsAt(kReceived, 3);
  Run({NothingArrives(), NothingArrives(), TicketArrives("one")});
  EXPECT_THAT(Answers(), IsEmpty());
  EXPECT_THAT(Pauses(), ElementsAre("sleep(2)", "sleep(4)", "sleep(8)"));
}

TEST_F(WorkerLoopTest, ExceptionOfARefusalsSendHasOnePauseAndKeepsTheCompletionAwaited) {
  SendThrowsAt(2);
  Run({TicketArrives("one"), TicketArrives("two"), NothingArrives(), TicketArrives("three")});
  EXPECT_THAT(log_.lines(), Contains(Error("catch error: boom")));
  EXPECT_THAT(Answers(), ElementsAre("Send(0)", "Send(1)", "Send(1)"));
  EXPECT_THAT(Pauses(), ElementsAre("sleep(2)", "sleep(4)", "sleep(2)"));
}

TEST_F(WorkerLoopTest, ExceptionOfTheSendAfterAFailedWriteLeavesNothingAwaited) {
  SendThrowsAt(1);
  platform_.write = [count = 0](int fd, const void* data, std::size_t size) mutable {
    errno = EAGAIN;
    return ++count == 1 ? ssize_t{-1} : test_support::real::Write(fd, data, size);
  };
  Run({TicketArrives("one"), TicketArrives("two")});
  EXPECT_THAT(Answers(), ElementsAre("Send(1)", "Send(0)"));
  EXPECT_THAT(Pauses(), ElementsAre("sleep(2)"));
  EXPECT_THAT(HandedOver(), ElementsAre("two"));
}

TEST_F(WorkerLoopTest, ExceptionOfTheLoggerInTheHandlerEndsTheWorker) {
  test_support::ScriptedPlatform::UseLogger(true);
  platform_.log = [](int, const std::string&) { throw std::runtime_error("logger"); };
  steps_ = {NothingArrives()};
  EXPECT_THAT(RunToEnd(), KilledBy(SIGABRT));
  EXPECT_THAT(log_.lines(),
              ElementsAre(Warning("Prepare to receive grpc request"), Error("catch error: logger")));
  EXPECT_THAT(Pauses(), IsEmpty());
}

TEST_F(WorkerLoopTest, AnyOtherExceptionEndsTheWorker) {
  steps_ = {[]() -> ReceiveResult { throw std::logic_error("boom"); }, NothingArrives()};
  EXPECT_THAT(RunToEnd(), KilledBy(SIGABRT));
  EXPECT_THAT(log_.lines(), ElementsAre(Warning("Prepare to receive grpc request")));
  EXPECT_THAT(Pauses(), IsEmpty());
}

TEST_F(WorkerLoopTest, ReconfigurationThatThrowsIsTriedAgainAfterThePause) {
  platform_.reconfigure = [first = true]() mutable {
    if (!first) return;
    first = false;
    throw std::runtime_error("flag");
  };
  platform_.construct_client = [](const std::string&) { Signal(SIGHUP); };
  Run({NothingArrives(), NothingArrives()});
  EXPECT_THAT(Iterations(),
              ElementsAre(Call("ReconfigureByDebugFlag()"), Error("catch error: flag"), Call("sleep(2)"),
                          Call("ReconfigureByDebugFlag()"), Warning("Prepare to receive grpc request"),
                          Call("Receive()"), Warning(kReceived), Error(kFailedReceive), Call("sleep(4)"),
                          Warning("Prepare to receive grpc request"), Call("Receive()"), Warning(kReceived),
                          Error(kFailedReceive), Call("sleep(8)")));
}

// ---- Signals ----

TEST_F(WorkerLoopTest, SigtermInAPauseEndsTheWorkerWithoutAnyAnswer) {
  platform_.sleep = [](unsigned) {
    Signal(SIGTERM);
    return 1U;
  };
  Run({NothingArrives(), NothingArrives()});
  EXPECT_EQ(log_.CallsOf("Receive").size(), 1U);
  EXPECT_THAT(Answers(), IsEmpty());
}

TEST_F(WorkerLoopTest, SigtermGoesBeforeASighupOfTheSamePause) {
  platform_.sleep = [](unsigned) {
    Signal(SIGHUP);
    Signal(SIGTERM);
    return 1U;
  };
  Run({NothingArrives(), NothingArrives()});
  EXPECT_THAT(log_.CallsOf("ReconfigureByDebugFlag"), IsEmpty());
}

TEST_F(WorkerLoopTest, SigtermInTheWaitForTheCompletionRefusesTheTicketAndEndsTheWorkerAfterThePause) {
  InterruptTheWaitBy(SIGTERM);
  Run({TicketArrives("one"), TicketArrives("two"), NothingArrives()});
  const std::vector<Event> events = Iterations();
  EXPECT_THAT(std::vector<Event>(events.begin() + 6, events.end()),
              ElementsAre(Warning("Prepare to receive grpc request"), Call("Receive()"), Warning(kReceived),
                          Error("Failed to do select(), err=Interrupted system call\n"),
                          Warning("Sent grpc response: 1"), Call("Send(1)"), Call("sleep(2)")));
}

TEST_F(WorkerLoopTest, SighupInTheWaitForTheCompletionRefusesTheTicketAndReconfiguresAfterThePause) {
  InterruptTheWaitBy(SIGHUP);
  Run({TicketArrives("one"), TicketArrives("two"), NothingArrives()});
  const std::vector<Event> events = Iterations();
  ASSERT_GE(events.size(), 14U);
  EXPECT_THAT(std::vector<Event>(events.begin() + 9, events.begin() + 14),
              ElementsAre(Error("Failed to do select(), err=Interrupted system call\n"),
                          Warning("Sent grpc response: 1"), Call("Send(1)"), Call("sleep(2)"),
                          Call("ReconfigureByDebugFlag()")));
}

TEST_F(WorkerLoopTest, SighupInAPauseReconfiguresAtTheStartOfTheNextIteration) {
  platform_.sleep = [count = 0](unsigned) mutable {
    if (++count == 1) Signal(SIGHUP);
    return 1U;
  };
  Run({NothingArrives(), NothingArrives(), NothingArrives()});
  EXPECT_THAT(Iterations(),
              ElementsAre(Warning("Prepare to receive grpc request"), Call("Receive()"), Warning(kReceived),
                          Error(kFailedReceive), Call("sleep(2)"), Call("ReconfigureByDebugFlag()"),
                          Warning("Prepare to receive grpc request"), Call("Receive()"), Warning(kReceived),
                          Error(kFailedReceive), Call("sleep(4)"), Warning("Prepare to receive grpc request"),
                          Call("Receive()"), Warning(kReceived), Error(kFailedReceive), Call("sleep(8)")));
}

TEST_F(WorkerLoopTest, SighupInReceiveTakesEffectAtTheNextIteration) {
  Run({[] {
         Signal(SIGHUP);
         return Arrives({"one", {}});
       },
       NothingArrives()});
  const std::vector<Event> events = Iterations();
  EXPECT_THAT(std::vector<Event>(events.begin(), events.begin() + 8),
              ElementsAre(Warning("Prepare to receive grpc request"), Call("Receive()"), Warning(kReceived),
                          Warning("Notify main process"), Warning("Sent grpc response: 0"), Call("Send(0)"),
                          Call("ReconfigureByDebugFlag()"), Warning("Prepare to receive grpc request")));
}

TEST_F(WorkerLoopTest, SighupDuringTheReconfigurationIsClearedWithIt) {
  platform_.construct_client = [](const std::string&) { Signal(SIGHUP); };
  platform_.reconfigure = [] { Signal(SIGHUP); };
  Run({NothingArrives(), NothingArrives()});
  EXPECT_EQ(log_.CallsOf("ReconfigureByDebugFlag").size(), 1U);
}

// ---- A main process that has gone ----

TEST_F(WorkerLoopTest, MainProcessThatHasGoneWhileAwaitedRefusesEveryTicket) {
  main_.CloseDescriptor(main_.toWorkerWriteFd);
  Run({TicketArrives("one"), TicketArrives("two"), TicketArrives("three")});
  EXPECT_THAT(Answers(), ElementsAre("Send(0)", "Send(1)", "Send(1)"));
  EXPECT_THAT(Pauses(), ElementsAre("sleep(2)", "sleep(2)"));
  const auto refusal = ElementsAre(Error("Unexpected error, expected count: 2048, real count: 0"),
                                   Error("Failed to receive message from main process"));
  std::vector<Event> errors;
  for (const Event& event : log_.lines()) {
    if (event.level == LOG_ERR) errors.push_back(event);
  }
  ASSERT_EQ(errors.size(), 4U);
  EXPECT_THAT(std::vector<Event>(errors.begin(), errors.begin() + 2), refusal);
  EXPECT_THAT(std::vector<Event>(errors.begin() + 2, errors.end()), refusal);
}

TEST_F(WorkerLoopTest, MainProcessThatHasGoneWhileNotAwaitedEndsTheWorkerBySigpipe) {
  main_.CloseDescriptor(main_.fromWorkerReadFd);
  steps_ = {TicketArrives("one"), NothingArrives()};
  EXPECT_THAT(RunToEnd(), KilledBy(SIGPIPE));
  EXPECT_THAT(log_.lines().back(), Warning("Notify main process"));
  EXPECT_THAT(Answers(), IsEmpty());
}

}  // namespace
