// Signals and the ticket client, in a process of its own that links the real library (probe_main.cpp).
#include "stop_signal.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <sstream>

#include "probe.h"
#include "scripted_server.h"

namespace TarvoOrvane::Internal {
namespace {

using Testing::Probe;
using Testing::ScriptedServer;
using Testing::Session;

constexpr char kTicket[] = R"({"token": "t1", "apps": []})";
constexpr char kStopped[] = "receive failed 1003 SIGTERM ended the wait";
constexpr std::chrono::seconds kSoon{5};  // far below the pause of 600 s that a missed signal would leave

class StopSignalTest : public testing::Test {
 protected:
  void StartClient(const std::string& address) {
    probe_.Command("handlers");
    probe_.Command("client " + address);
    ASSERT_EQ(probe_.Line(), "client ready");
  }
  void StartClient() { StartClient(server_.url()); }

  /// Gives a command that ends in a Receive() and waits until that sleeps on an open stream.
  void StartReceive(const std::string& command) {
    probe_.Command(command);
    session_ = server_.AwaitSession();
    ASSERT_NE(session_, nullptr);
    ASSERT_TRUE(probe_.AwaitBlockedIn("ppoll"));
  }

  void ReceiveOneTicket() {
    StartReceive("receive");
    session_->Deliver("id-1", kTicket);
    ASSERT_EQ(probe_.Line(), "ticket t1");
  }

  void ExpectExitWithZero() { EXPECT_THAT(probe_.AwaitEnd(kSoon), test_support::ExitedWith(0)); }

  ScriptedServer server_;
  Probe probe_;
  std::shared_ptr<Session> session_;
};

TEST_F(StopSignalTest, SigtermEndsAnIdleReceiveWithAFailureAfterTheHandlerHasRun) {
  StartClient();
  StartReceive("receive");
  probe_.Signal(SIGTERM);
  EXPECT_EQ(probe_.Line(), "handler SIGTERM");
  EXPECT_EQ(probe_.Line(), kStopped);
}

TEST_F(StopSignalTest, SigtermIsGivenAgainSoThatItCutsTheSleepThatFollows) {
  StartClient();
  StartReceive("receive");
  probe_.Signal(SIGTERM);
  ASSERT_EQ(probe_.LineStartingWith("receive"), kStopped);
  probe_.Command("sleep 600");
  EXPECT_EQ(probe_.LineStartingWith("slept", kSoon), "slept");
  probe_.Command("sleep 600");
  EXPECT_EQ(probe_.LineStartingWith("slept", kSoon), "slept") << "it is given only once";
}

TEST_F(StopSignalTest, SigtermIsGivenAgainAlsoWhereTheHandlerIsYoungerThanTheClient) {
  probe_.Command("client " + server_.url());
  ASSERT_EQ(probe_.Line(), "client ready");
  probe_.Command("handlers");
  StartReceive("receive");
  probe_.Signal(SIGTERM);
  ASSERT_EQ(probe_.LineStartingWith("receive"), kStopped);
  probe_.Command("sleep 600");
  EXPECT_EQ(probe_.LineStartingWith("slept", kSoon), "slept");
}

TEST_F(StopSignalTest, TheWorkersLoopEndsOnOneSigtermWhileItReceives) {
  StartClient();
  StartReceive("loop");
  probe_.Signal(SIGTERM);
  EXPECT_EQ(probe_.LineStartingWith("stopped", kSoon), "stopped");
  ExpectExitWithZero();
}

TEST_F(StopSignalTest, TheWorkersLoopEndsOnOneSigtermInItsPause) {
  StartClient("http://127.0.0.1:99999");
  probe_.Command("loop");
  ASSERT_EQ(probe_.LineStartingWith("sleeping"), "sleeping");
  ASSERT_TRUE(probe_.AwaitBlockedIn("clock_nanosleep"));
  probe_.Signal(SIGTERM);
  EXPECT_EQ(probe_.LineStartingWith("stopped", kSoon), "stopped");
  ExpectExitWithZero();
}

TEST_F(StopSignalTest, ASigtermThatLandsBeforeReceiveIsEnteredStillEndsIt) {
  StartClient();
  StartReceive("receive");
  session_->Deliver("id-1", kTicket);
  ASSERT_EQ(probe_.Line(), "ticket t1");
  probe_.Command("raise-and-receive");
  EXPECT_EQ(probe_.Line(), "handler SIGTERM");
  EXPECT_EQ(probe_.LineStartingWith("receive", kSoon), kStopped);
}

TEST_F(StopSignalTest, OtherSignalsRunTheirHandlersDuringReceiveAndEndNothing) {
  StartClient();
  StartReceive("receive");
  for (int i = 0; i < 20; ++i) {
    probe_.Signal(SIGHUP);
    ASSERT_EQ(probe_.Line(), "handler SIGHUP");
  }
  session_->Deliver("id-1", kTicket);
  EXPECT_EQ(probe_.Line(), "ticket t1");
}

TEST_F(StopSignalTest, NoSignalIsLostToTheThreadsOfGrpc) {
  StartClient();
  StartReceive("receive");
  session_->Deliver("id-1", kTicket);
  ASSERT_EQ(probe_.Line(), "ticket t1");
  // Each cuts the sleep of the main thread; a thread of gRPC that took it would leave the sleep alone.
  for (int i = 0; i < 100; ++i) {
    probe_.Command("sleep 600");
    ASSERT_TRUE(probe_.AwaitBlockedIn("clock_nanosleep"));
    probe_.Signal(SIGHUP);
    ASSERT_EQ(probe_.LineStartingWith("slept", kSoon), "slept") << i;
  }
}

TEST_F(StopSignalTest, ATicketThatComesTogetherWithSigtermStaysQueuedAndSoDoesTheStream) {
  StartClient();
  ReceiveOneTicket();
  session_->Deliver("id-2", R"({"token": "t2", "apps": []})");
  probe_.Command("block");
  probe_.Command("raise");
  probe_.Command("receive");
  EXPECT_EQ(probe_.Line(), kStopped);
  probe_.Command("receive");
  EXPECT_EQ(probe_.Line(), kStopped) << "it is still pending";
  probe_.Command("unblock");
  EXPECT_EQ(probe_.Line(), "handler SIGTERM");
  // From here on the timer may end a call; the ticket must come from the same stream nevertheless.
  std::string line;
  for (int i = 0; i < 10 && line != "ticket t2"; ++i) {
    probe_.Command("receive");
    do {
      line = probe_.Line();
    } while (line == "handler SIGTERM");
  }
  EXPECT_EQ(line, "ticket t2");
  EXPECT_EQ(server_.AwaitSession(std::chrono::milliseconds(0)), nullptr);
}

TEST_F(StopSignalTest, SendWithSigtermPendingFailsAtOnce) {
  StartClient();
  ReceiveOneTicket();
  probe_.Command("block");
  probe_.Command("raise");
  probe_.Command("send 0");
  EXPECT_EQ(probe_.Line(), "send failed 1003 SIGTERM ended the wait");
  const auto answer = session_->AwaitAnswer();
  ASSERT_TRUE(answer) << "the write was begun before the look at the signal";
  EXPECT_EQ(answer->status(), tarvo::support::v1::CLIENT_STATUS_ACCEPTED);
}

TEST_F(StopSignalTest, AnIgnoredSigtermStaysIgnored) {
  probe_.Command("ignore");
  probe_.Command("client " + server_.url());
  ASSERT_EQ(probe_.Line(), "client ready");
  StartReceive("receive");
  probe_.Signal(SIGTERM);
  session_->Deliver("id-1", kTicket);
  EXPECT_EQ(probe_.Line(), "ticket t1");
}

TEST_F(StopSignalTest, WithoutAHandlerSigtermEndsTheProcessAsEver) {
  probe_.Command("client " + server_.url());
  ASSERT_EQ(probe_.Line(), "client ready");
  StartReceive("receive");
  probe_.Signal(SIGTERM);
  EXPECT_THAT(probe_.AwaitEnd(kSoon), test_support::KilledBy(SIGTERM));
}

TEST_F(StopSignalTest, DestructionStopsTheTimerAndGivesTheHandlerBack) {
  StartClient();
  StartReceive("receive");
  probe_.Signal(SIGTERM);
  ASSERT_EQ(probe_.LineStartingWith("receive"), kStopped);
  probe_.Command("destroy");
  ASSERT_EQ(probe_.LineStartingWith("destroyed"), "destroyed");
  probe_.Command("sleep 1");
  EXPECT_EQ(probe_.Line(), "slept") << "the timer still runs";
  probe_.Command("former-handler");
  EXPECT_EQ(probe_.Line(), "own handler");
}

struct Usage {
  int threads = 0;
  int descriptors = 0;
};

Usage UsageOf(Probe& probe) {
  probe.Command("count");
  std::istringstream line(probe.Line());
  std::string word;
  Usage usage;
  if (!(line >> word >> usage.threads >> word >> usage.descriptors)) ADD_FAILURE() << "no count";
  return usage;
}

/// gRPC lets go of threads and descriptors a moment later: waits until no more than `limit` are left.
void ExpectAtMost(Probe& probe, const Usage& limit) {
  Usage usage = UsageOf(probe);
  const auto deadline = std::chrono::steady_clock::now() + kSoon;
  while ((usage.threads > limit.threads || usage.descriptors > limit.descriptors) &&
         std::chrono::steady_clock::now() < deadline) {
    usage = UsageOf(probe);
  }
  EXPECT_LE(usage.threads, limit.threads);
  EXPECT_LE(usage.descriptors, limit.descriptors);
}

TEST_F(StopSignalTest, TwentyReconnectsLeaveNoThreadAndNoDescriptorBehind) {
  StartClient();
  Usage limit;
  for (int i = 0; i < 25; ++i) {
    StartReceive("receive");
    session_->End(grpc::Status(grpc::StatusCode::UNAVAILABLE, "again"));
    ASSERT_EQ(probe_.Line(), "receive failed 14 again");
    if (i == 4) limit = UsageOf(probe_);
  }
  limit.threads += 2;  // gRPC's pools breathe; one thread lost per round would make it twenty
  ExpectAtMost(probe_, limit);
}

TEST_F(StopSignalTest, DestructionLeavesNoThreadBehind) {
  const Usage before = UsageOf(probe_);
  StartClient();
  ReceiveOneTicket();
  const Usage connected = UsageOf(probe_);
  probe_.Command("destroy");
  ASSERT_EQ(probe_.Line(), "destroyed");
  // gRPC keeps descriptors of its own for good; the stream's and ours go.
  ExpectAtMost(probe_, {before.threads, connected.descriptors - 1});
}

}  // namespace
}  // namespace TarvoOrvane::Internal
