// Signals in the pause before a stream is reopened, in a process of its own (reopening_probe_main.cpp).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include "probe.h"
#include "scripted_server.h"

namespace TarvoOrvane::Internal {
namespace {

using std::chrono::milliseconds;
using Testing::Probe;
using Testing::ScriptedServer;

class ReopeningPauseTest : public testing::Test {
 protected:
  void SetUp() override {
    probe_.Command(server_.url());
    const auto session = server_.AwaitSession();
    ASSERT_NE(session, nullptr);
    std::this_thread::sleep_for(milliseconds(5));  // longer than a stream has to stand here
    session->End(grpc::Status(grpc::StatusCode::UNAVAILABLE, "link lost"));
    ASSERT_THAT(probe_.Line(), testing::HasSubstr("link lost; it is opened again in "));
    ASSERT_TRUE(probe_.AwaitBlockedIn("ppoll"));
  }

  ScriptedServer server_;
  Probe probe_{{}, REOPENING_PROBE_PATH};
};

TEST_F(ReopeningPauseTest, SigtermEndsItAtOnce) {
  probe_.Signal(SIGTERM);
  EXPECT_EQ(probe_.Line(), "handler SIGTERM");
  EXPECT_EQ(probe_.Line(), "receive 1003 SIGTERM ended the wait");
}

TEST_F(ReopeningPauseTest, OtherSignalsRunTheirHandlersAndDoNotEndIt) {
  for (int i = 0; i < 5; ++i) {
    probe_.Signal(SIGHUP);
    ASSERT_EQ(probe_.Line(), "handler SIGHUP");
  }
  EXPECT_EQ(server_.AwaitSession(milliseconds(100)), nullptr);
  EXPECT_TRUE(probe_.AwaitBlockedIn("ppoll"));
}

}  // namespace
}  // namespace TarvoOrvane::Internal
