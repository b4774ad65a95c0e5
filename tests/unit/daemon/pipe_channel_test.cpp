#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "daemon_fixture.h"

using TarvoOrvane::FastSupport::Ticket;

namespace {

class PipeChannelTest : public DaemonTest {
 protected:
  void SetUp() override { JoinByPipes(); }

  /// A ticket whose message has a text of `size` bytes.
  static Ticket TicketWithTextOf(std::size_t size) {
    const std::string rest = R"({"apps":[],"token":""})";
    return {std::string(size - rest.size(), 't'), {}};
  }

  /// What write() returns once, and its errno; afterwards it takes everything. Counted in writes_.
  void ScriptWrite(ssize_t result, int error = 0) {
    writes_ = 0;
    platform_.write = [this, result, error](int, const void*, std::size_t size) {
      errno = error;
      return ++writes_ == 1 ? result : static_cast<ssize_t>(size);
    };
  }

  /// Gives the calling child pipes that no other process holds.
  void JoinByOwnPipes(void (*sigpipe)(int)) {
    struct sigaction action = {};
    action.sa_handler = sigpipe;
    sigaction(SIGPIPE, &action, nullptr);
    JoinByPipes();
  }

  /// Sends a ticket to a pipe whose reader has gone; runs in a child.
  bool SendTicketWithoutReader(void (*sigpipe)(int)) {
    JoinByOwnPipes(sigpipe);
    main_.CloseDescriptor(main_.fromWorkerReadFd);
    return worker_.SendTicketToMain({"t", {}});
  }

  /// Sends a Completion to a pipe whose reader has gone; runs in a child.
  bool SendCompletionWithoutReader(void (*sigpipe)(int)) {
    JoinByOwnPipes(sigpipe);
    worker_.CloseDescriptor(worker_.toWorkerReadFd);
    return main_.SendResultToWorker();
  }

  /// The supervisor gets no ticket, and logs why in one line before its usual one.
  void ExpectNoTicket(const std::string& line) {
    Json::Value ticket;
    EXPECT_FALSE(main_.ReceiveTicketFromWorker(ticket));
    EXPECT_THAT(log_.lines(),
                ElementsAre(Error(line), Error("Failed to receive message from worker process")));
  }

  static std::string Select(int fd) { return "select(" + std::to_string(fd) + ", 0, 500000)"; }

  int writes_ = 0;
};

// ---- Writing ----

TEST_F(PipeChannelTest, TicketTravelsAsOneZeroPaddedFrame) {
  EXPECT_TRUE(worker_.SendTicketToMain({"secret", {"zebra", "ant", ""}}));
  EXPECT_THAT(TakeFrames(main_.fromWorkerReadFd),
              ElementsAre(R"({"apps":["zebra","ant",""],"token":"secret"})"));
  EXPECT_THAT(log_.events(), IsEmpty());
}

TEST_F(PipeChannelTest, TicketWithoutApplicationsHasAnEmptyArray) {
  EXPECT_TRUE(worker_.SendTicketToMain({"", {}}));
  EXPECT_THAT(TakeFrames(main_.fromWorkerReadFd), ElementsAre(R"({"apps":[],"token":""})"));
}

TEST_F(PipeChannelTest, PercentSignsOfATicketAreNoFormat) {
  EXPECT_TRUE(worker_.SendTicketToMain({"100%s%n", {"%d"}}));
  EXPECT_THAT(TakeFrames(main_.fromWorkerReadFd), ElementsAre(R"({"apps":["%d"],"token":"100%s%n"})"));
}

TEST_F(PipeChannelTest, CompletionIsTheConstantTrue) {
  EXPECT_TRUE(main_.SendResultToWorker());
  EXPECT_THAT(TakeFrames(worker_.toWorkerReadFd), ElementsAre(R"({"success":true})"));
  EXPECT_THAT(log_.events(), IsEmpty());
}

TEST_F(PipeChannelTest, TicketOf2047BytesIsSent) {
  EXPECT_TRUE(worker_.SendTicketToMain(TicketWithTextOf(2047)));
  const std::vector<std::string> frames = TakeFrames(main_.fromWorkerReadFd);
  ASSERT_EQ(frames.size(), 1U);
  EXPECT_EQ(frames[0].size(), 2047U);
  EXPECT_EQ(Parse(frames[0])["token"].asString(), TicketWithTextOf(2047).token);
}

TEST_F(PipeChannelTest, TicketOf2048BytesIsRefusedBeforeAnyWrite) {
  const Ticket ticket = TicketWithTextOf(2048);
  EXPECT_FALSE(worker_.SendTicketToMain(ticket));
  EXPECT_THAT(log_.lines(),
              ElementsAre(Error("The ticket is too large, ticket content: {\"apps\":[],\"token\":\"" +
                                ticket.token + "\"}"),
                          Error("Failed to send message to main process")));
  EXPECT_EQ(TakeAll(main_.fromWorkerReadFd), "");
}

TEST_F(PipeChannelTest, MessageToTheWorkerIsCalledATicketTooWhenItIsTooLarge) {
  const std::string text = "\"" + std::string(2046, 'x') + "\"";
  EXPECT_FALSE(main_.WritePipeMessage(main_.toWorkerWriteFd, Parse(text)));
  EXPECT_THAT(log_.lines(), ElementsAre(Error("The ticket is too large, ticket content: " + text)));
  EXPECT_EQ(TakeAll(worker_.toWorkerReadFd), "");
}

TEST_F(PipeChannelTest, TextThatSnprintfFindsTooLongIsRefusedBeforeAnyWrite) {
  for (const int length : {2047, 2048}) {
    log_.Clear();
    platform_.snprintf = [=](const std::string& format, int result) {
      return format == "%s" ? length : result;
    };
    EXPECT_EQ(main_.WritePipeMessage(main_.toWorkerWriteFd, Parse("{}")), length == 2047);
    EXPECT_EQ(TakeAll(worker_.toWorkerReadFd).size(), length == 2047 ? 2048U : 0U);
  }
  EXPECT_THAT(log_.lines(), ElementsAre(Error("The soruce data size exceeds the expected size")));
}

TEST_F(PipeChannelTest, FrameIsWrittenByOneWriteToTheGivenDescriptor) {
  platform_.write = [](int fd, const void*, std::size_t size) {
    RecordCall("write(" + std::to_string(fd) + ", " + std::to_string(size) + ")");
    return static_cast<ssize_t>(size);
  };
  EXPECT_TRUE(worker_.SendTicketToMain({"t", {}}));
  EXPECT_TRUE(main_.SendResultToWorker());
  EXPECT_THAT(log_.events(),
              ElementsAre(Call("write(" + std::to_string(worker_.fromWorkerWriteFd) + ", 2048)"),
                          Call("write(" + std::to_string(main_.toWorkerWriteFd) + ", 2048)")));
}

TEST_F(PipeChannelTest, ShortWriteIsAFailureAndNotRepeated) {
  for (const ssize_t count : {ssize_t{0}, ssize_t{100}, ssize_t{2047}}) {
    log_.Clear();
    ScriptWrite(count);
    EXPECT_FALSE(worker_.SendTicketToMain({"t", {}}));
    EXPECT_THAT(log_.lines(), ElementsAre(Error("Unexpected error, expected count: 2048, real count: " +
                                                std::to_string(count)),
                                          Error("Failed to send message to main process")));
    EXPECT_EQ(writes_, 1);
  }
}

TEST_F(PipeChannelTest, FailedWriteIsLoggedWithItsErrorOnBothLogPaths) {
  for (const bool use_logger : {false, true}) {
    ScriptWrite(-1, EIO);
    ScriptedPlatform::UseLogger(use_logger);
    log_.Clear();
    EXPECT_FALSE(main_.SendResultToWorker());
    EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to write, err=Input/output error"),
                                          Error("Failed to send message to worker process")));
  }
}

TEST_F(PipeChannelTest, FailedWriteIsNotRepeatedWhateverItsError) {
  for (const int error : {EINTR, EAGAIN}) {
    ScriptWrite(-1, error);
    EXPECT_FALSE(worker_.SendTicketToMain({"t", {}}));
    EXPECT_EQ(writes_, 1);
  }
}

TEST_F(PipeChannelTest, InterruptedReadIsNotRepeated) {
  Put(worker_.fromWorkerWriteFd, "{}");
  int reads = 0;
  platform_.read = [&reads](int fd, void* buffer, std::size_t size) {
    if (++reads > 1) return real::Read(fd, buffer, size);
    errno = EINTR;
    return ssize_t{-1};
  };
  Json::Value ticket;
  EXPECT_FALSE(main_.ReceiveTicketFromWorker(ticket));
  EXPECT_EQ(reads, 1);
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to do read(), err=Interrupted system call\n"),
                                        Error("Failed to receive message from worker process")));
}

TEST_F(PipeChannelTest, FullPipeLosesTheMessageAtOnce) {
  for (int frame = 0; frame < 32; ++frame) ASSERT_TRUE(worker_.SendTicketToMain({"t", {}})) << frame;
  EXPECT_FALSE(worker_.SendTicketToMain({"lost", {}}));
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to write, err=Resource temporarily unavailable"),
                                        Error("Failed to send message to main process")));
}

// Tickets go one way and completions the other, and each process tells of it in a line of its own.

TEST_F(PipeChannelTest, TicketToAMainProcessThatHasGoneEndsTheWorker) {
  EXPECT_THAT(RunInChild([this] { return SendTicketWithoutReader(SIG_DFL) ? 1 : 0; }), KilledBy(SIGPIPE));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(PipeChannelTest, TicketToAMainProcessThatHasGoneFailsWhereSigpipeIsIgnored) {
  EXPECT_THAT(RunInChild([this] { return SendTicketWithoutReader(SIG_IGN) ? 1 : 0; }), ExitedWith(0));
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to write, err=Broken pipe"),
                                        Error("Failed to send message to main process")));
}

TEST_F(PipeChannelTest, CompletionToAWorkerThatHasGoneEndsTheMainProcess) {
  EXPECT_THAT(RunInChild([this] { return SendCompletionWithoutReader(SIG_DFL) ? 1 : 0; }), KilledBy(SIGPIPE));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(PipeChannelTest, CompletionToAWorkerThatHasGoneFailsWhereSigpipeIsIgnored) {
  EXPECT_THAT(RunInChild([this] { return SendCompletionWithoutReader(SIG_IGN) ? 1 : 0; }), ExitedWith(0));
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to write, err=Broken pipe"),
                                        Error("Failed to send message to worker process")));
}

// ---- Reading ----

TEST_F(PipeChannelTest, TicketIsReadFromTheWorker) {
  Put(worker_.fromWorkerWriteFd, R"({"token":"t","apps":["a"]})");
  Json::Value ticket(Json::arrayValue);
  EXPECT_TRUE(main_.ReceiveTicketFromWorker(ticket));
  EXPECT_EQ(ticket, Parse(R"({"token":"t","apps":["a"]})"));
  EXPECT_THAT(log_.events(), ElementsAre(Call(Select(main_.fromWorkerReadFd))));
}

TEST_F(PipeChannelTest, MembersOfATicketAreNotChecked) {
  Put(worker_.fromWorkerWriteFd, "[1]");
  Json::Value ticket;
  EXPECT_TRUE(main_.ReceiveTicketFromWorker(ticket));
  EXPECT_EQ(ticket, Parse("[1]"));
}

TEST_F(PipeChannelTest, FramesAreReadInOrderOnePerRead) {
  for (const char* const text : {"[1]", "[2]", "[3]"}) Put(worker_.fromWorkerWriteFd, text);
  for (int number = 1; number <= 3; ++number) {
    Json::Value ticket;
    EXPECT_TRUE(main_.ReceiveTicketFromWorker(ticket));
    EXPECT_EQ(ticket[0].asInt(), number);
  }
}

TEST_F(PipeChannelTest, TextEndsAtTheFirstZeroByte) {
  Put(worker_.fromWorkerWriteFd, std::string("{\"a\":1}\0garbage{", 16));
  Json::Value message;
  EXPECT_TRUE(main_.ReadPipeMessage(main_.fromWorkerReadFd, message));
  EXPECT_EQ(message, Parse(R"({"a":1})"));
}

TEST_F(PipeChannelTest, CommentsOfAMessageAreKept) {
  Put(worker_.fromWorkerWriteFd, "/* note */ {}");
  Json::Value message;
  EXPECT_TRUE(main_.ReadPipeMessage(main_.fromWorkerReadFd, message));
  EXPECT_TRUE(message.hasComment(Json::commentBefore));
}

TEST_F(PipeChannelTest, FrameOf2047CharactersIsRead) {
  const std::string text = "[\"" + std::string(2043, 'x') + "\"]";
  Put(worker_.fromWorkerWriteFd, text);
  Json::Value message;
  EXPECT_TRUE(main_.ReadPipeMessage(main_.fromWorkerReadFd, message));
  EXPECT_EQ(message[0].asString().size(), 2043U);
}

TEST_F(PipeChannelTest, FrameWhoseLastByteIsNotZeroIsRefused) {
  std::string frame = "{\"a\":1}";
  frame.resize(2047, '\0');
  Put(worker_.fromWorkerWriteFd, frame + "x");
  ExpectNoTicket("The data format is wrong");
  EXPECT_EQ(TakeAll(main_.fromWorkerReadFd), "") << "the frame is consumed";
}

TEST_F(PipeChannelTest, FrameOf2048CharactersIsRefused) {
  Put(worker_.fromWorkerWriteFd, std::string(2048, '1'));
  ExpectNoTicket("The data format is wrong");
}

TEST_F(PipeChannelTest, FrameThatIsNoJsonIsRefusedWithItsText) {
  for (const std::string& text : {std::string("{\"token\":"), std::string(), std::string(1200, '[')}) {
    log_.Clear();
    Put(worker_.fromWorkerWriteFd, text);
    ExpectNoTicket("Failed to parse pipe data: " + text);
  }
}

TEST_F(PipeChannelTest, PartOfAFrameIsDropped) {
  Put(worker_.fromWorkerWriteFd, "{}", 100);
  ExpectNoTicket("Unexpected error, expected count: 2048, real count: 100");
}

TEST_F(PipeChannelTest, PartsOfAFrameAreNotPutTogether) {
  Json::Value ticket(Json::arrayValue);
  for (const std::size_t part : {100U, 1948U}) {
    log_.Clear();
    Put(worker_.fromWorkerWriteFd, "[1]", part);
    EXPECT_FALSE(main_.ReceiveTicketFromWorker(ticket));
    EXPECT_THAT(log_.lines(), ElementsAre(Error("Unexpected error, expected count: 2048, real count: " +
                                                std::to_string(part)),
                                          Error("Failed to receive message from worker process")));
  }
  EXPECT_EQ(ticket, Json::Value(Json::arrayValue));
  Put(worker_.fromWorkerWriteFd, "[2]");
  EXPECT_TRUE(main_.ReceiveTicketFromWorker(ticket));
  EXPECT_EQ(ticket, Parse("[2]"));
}

TEST_F(PipeChannelTest, EndOfFileIsAShortRead) {
  worker_.CloseDescriptor(worker_.fromWorkerWriteFd);
  ExpectNoTicket("Unexpected error, expected count: 2048, real count: 0");
}

TEST_F(PipeChannelTest, FailedReadIsLoggedWithItsNewlineOnBothLogPaths) {
  Put(worker_.fromWorkerWriteFd, "{}");
  platform_.read = [](int, void*, std::size_t) {
    errno = EIO;
    return ssize_t{-1};
  };
  for (const bool use_logger : {false, true}) {
    ScriptedPlatform::UseLogger(use_logger);
    log_.Clear();
    ExpectNoTicket("Failed to do read(), err=Input/output error\n");
  }
}

TEST_F(PipeChannelTest, FrameIsReadByOneReadOfItsSize) {
  Put(worker_.fromWorkerWriteFd, "{}");
  platform_.read = [](int fd, void* buffer, std::size_t size) {
    RecordCall("read(" + std::to_string(fd) + ", " + std::to_string(size) + ")");
    return real::Read(fd, buffer, size);
  };
  Json::Value ticket;
  EXPECT_TRUE(main_.ReceiveTicketFromWorker(ticket));
  EXPECT_THAT(log_.calls(), ElementsAre(Select(main_.fromWorkerReadFd),
                                        "read(" + std::to_string(main_.fromWorkerReadFd) + ", 2048)"));
}

TEST_F(PipeChannelTest, NoTicketIsNoLine) {
  Json::Value ticket(Json::arrayValue);
  EXPECT_FALSE(main_.ReceiveTicketFromWorker(ticket));
  EXPECT_EQ(ticket, Json::Value(Json::arrayValue));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(PipeChannelTest, WaitForATicketThatFailsIsLoggedOnce) {
  platform_.select = [](int, fd_set*, fd_set*, fd_set*, timeval*) {
    errno = EINTR;
    return -1;
  };
  Json::Value ticket;
  EXPECT_FALSE(main_.ReceiveTicketFromWorker(ticket));
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to do select(), err=Interrupted system call\n")));
}

// ---- The Completion, as the worker reads it ----

TEST_F(PipeChannelTest, CompletionIsReadByTheWorker) {
  ASSERT_TRUE(main_.SendResultToWorker());
  EXPECT_TRUE(worker_.ReceiveResultFromMain());
  EXPECT_THAT(log_.events(), ElementsAre(Call(Select(worker_.toWorkerReadFd))));
}

TEST_F(PipeChannelTest, FurtherMembersOfACompletionDoNotMatter) {
  Put(main_.toWorkerWriteFd, R"({"success":true,"x":1})");
  EXPECT_TRUE(worker_.ReceiveResultFromMain());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(PipeChannelTest, NoCompletionIsNoLine) {
  EXPECT_FALSE(worker_.ReceiveResultFromMain());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(PipeChannelTest, AnswerWithoutSuccessTrueIsNoCompletion) {
  for (const char* const answer : {R"({"success":false})", R"({"success":"true"})", "{}", R"({"success":1})",
                                   R"({"success":null})", "[true]", R"({"result":true})"}) {
    log_.Clear();
    Put(main_.toWorkerWriteFd, answer);
    EXPECT_FALSE(worker_.ReceiveResultFromMain()) << answer;
    EXPECT_THAT(log_.lines(), ElementsAre(Error("Something wrong in the main process"))) << answer;
  }
}

TEST_F(PipeChannelTest, CompletionThatCannotBeReadIsLoggedTwice) {
  Put(main_.toWorkerWriteFd, "nonsense");
  EXPECT_FALSE(worker_.ReceiveResultFromMain());
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Failed to parse pipe data: nonsense"),
                                        Error("Failed to receive message from main process")));
}

TEST_F(PipeChannelTest, MainProcessThatHasGoneIsAShortRead) {
  main_.CloseDescriptor(main_.toWorkerWriteFd);
  EXPECT_FALSE(worker_.ReceiveResultFromMain());
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Unexpected error, expected count: 2048, real count: 0"),
                                        Error("Failed to receive message from main process")));
}

// ---- PollTransmissionChild ----

class PollTransmissionChildTest : public PipeChannelTest {
 protected:
  void SetUp() override {
    PipeChannelTest::SetUp();
    main_.transmitterRunning = true;
    main_.transmitterPid = 4711;
  }

  void ScriptWaitpid(pid_t result, int status = 0) {
    platform_.waitpid = [=](pid_t pid, int* out, int options) {
      EXPECT_EQ(options, WNOHANG);
      RecordCall("waitpid(" + std::to_string(pid) + ")");
      *out = status;
      errno = ECHILD;
      return result;
    };
  }
};

TEST_F(PollTransmissionChildTest, WithoutAChildThereIsNothingToReap) {
  main_.transmitterRunning = false;
  ScriptWaitpid(4711);
  EXPECT_TRUE(main_.PollTransmissionChild());
  EXPECT_THAT(log_.events(), IsEmpty());
  EXPECT_EQ(TakeAll(worker_.toWorkerReadFd), "");
}

TEST_F(PollTransmissionChildTest, ChildThatHasEndedIsReapedAndTheWorkerTold) {
  ScriptWaitpid(4711);
  EXPECT_TRUE(main_.PollTransmissionChild());
  EXPECT_FALSE(main_.transmitterRunning);
  EXPECT_THAT(log_.events(), ElementsAre(Call("waitpid(4711)"), Warning("Notify worker process")));
  EXPECT_THAT(TakeFrames(worker_.toWorkerReadFd), ElementsAre(R"({"success":true})"));
}

TEST_F(PollTransmissionChildTest, ChildCountsAsReapedOnceTheLoggerHearsOfIt) {
  ScriptedPlatform::UseLogger(true);
  ScriptWaitpid(4711);
  platform_.log = [this](int, const std::string&) { EXPECT_FALSE(main_.transmitterRunning); };
  EXPECT_TRUE(main_.PollTransmissionChild());
  EXPECT_THAT(log_.lines(), ElementsAre(Warning("Notify worker process")));
}

TEST_F(PollTransmissionChildTest, HowTheChildEndedDoesNotMatter) {
  ScriptWaitpid(4711, SIGKILL);
  EXPECT_TRUE(main_.PollTransmissionChild());
  EXPECT_THAT(TakeFrames(worker_.toWorkerReadFd), ElementsAre(R"({"success":true})"));
}

TEST_F(PollTransmissionChildTest, NoTicketIsReadWhileTheChildRunsOrCannotBeAskedFor) {
  for (const pid_t result : {0, -1, 4712}) {
    log_.Clear();
    ScriptWaitpid(result);
    EXPECT_FALSE(main_.PollTransmissionChild());
    EXPECT_TRUE(main_.transmitterRunning);
    Put(worker_.fromWorkerWriteFd, "{}");
    Json::Value ticket;
    EXPECT_FALSE(main_.ReceiveTicketFromWorker(ticket));
    EXPECT_THAT(log_.events(), ElementsAre(Call("waitpid(4711)"), Call("waitpid(4711)")));
  }
  EXPECT_EQ(TakeAll(worker_.toWorkerReadFd), "");
  EXPECT_THAT(TakeFrames(main_.fromWorkerReadFd), ElementsAre("{}", "{}", "{}"));
}

TEST_F(PollTransmissionChildTest, CompletionThatCannotBeSentDoesNotHoldBackTheNextTicket) {
  ScriptWaitpid(4711);
  ScriptWrite(-1, EAGAIN);
  EXPECT_TRUE(main_.PollTransmissionChild());
  EXPECT_FALSE(main_.transmitterRunning);
  EXPECT_THAT(log_.lines(), ElementsAre(Warning("Notify worker process"),
                                        Error("Failed to write, err=Resource temporarily unavailable"),
                                        Error("Failed to send message to worker process"),
                                        Error("Failed to notify worker process")));
}

TEST_F(PollTransmissionChildTest, TicketIsReadInThePassThatReapsTheChild) {
  ScriptWaitpid(4711);
  Put(worker_.fromWorkerWriteFd, R"({"a":1})");
  Json::Value ticket;
  EXPECT_TRUE(main_.ReceiveTicketFromWorker(ticket));
  EXPECT_THAT(log_.events(), ElementsAre(Call("waitpid(4711)"), Warning("Notify worker process"),
                                         Call(Select(main_.fromWorkerReadFd))));
}

TEST_F(PollTransmissionChildTest, RealChildLeavesNoZombie) {
  main_.transmitterPid = fork();
  if (main_.transmitterPid == 0) real::Exit(1);
  ASSERT_GT(main_.transmitterPid, 0);
  const auto end = std::chrono::steady_clock::now() + test_support::kPatience;
  while (!main_.PollTransmissionChild()) ASSERT_LT(std::chrono::steady_clock::now(), end);
  EXPECT_EQ(real::Waitpid(main_.transmitterPid, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

}  // namespace
