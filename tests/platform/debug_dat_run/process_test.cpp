#include "process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "child_process.h"

namespace DebugDatRun {
namespace {

using test_support::ChildProcess;

int Sleep() {
  while (true) pause();
}

TEST(ProcessTest, IsReadWhateverItsNameHolds) {
  const ChildProcess child([] {
    prctl(PR_SET_NAME, "a) R 1 (b) ");
    return Sleep();
  });
  ProcessFacts facts;
  ASSERT_TRUE(
      test_support::Eventually([&] { return LookAt(child.pid(), facts) && facts.name == "a) R 1 (b) "; }));
  EXPECT_EQ(facts.pid, child.pid());
  EXPECT_EQ(facts.parent, getpid());
  EXPECT_EQ(facts.session, getsid(0));
  EXPECT_GT(facts.start, 0U);
}

TEST(ProcessTest, ThatIsGoneIsNot) {
  ProcessFacts facts;
  EXPECT_FALSE(LookAt(0, facts));
  EXPECT_FALSE(LookAt(99'999'999, facts));
}

TEST(ProcessTest, IsWatchedUntilItEnds) {
  const ChildProcess child(Sleep);
  ProcessFacts facts;
  ASSERT_TRUE(LookAt(child.pid(), facts));
  const WatchedProcess watched = WatchedProcess::Open(facts);
  ASSERT_TRUE(watched.valid());
  EXPECT_FALSE(watched.HasEnded());
  EXPECT_TRUE(watched.Signal(SIGTERM));
  EXPECT_TRUE(test_support::Eventually([&] { return watched.HasEnded(); }));
}

TEST(ProcessTest, WhoseIdAnotherOneHasByNowIsNotWatched) {
  const ChildProcess child(Sleep);
  ProcessFacts facts;
  ASSERT_TRUE(LookAt(child.pid(), facts));
  --facts.start;  // as a former holder of the id, that was looked at before
  EXPECT_FALSE(WatchedProcess::Open(facts).valid());
  facts.pid = 99'999'999;
  EXPECT_FALSE(WatchedProcess::Open(facts).valid());
}

TEST(ProcessTest, HasDescendantsOfAllGenerations) {
  const std::vector<ProcessFacts> all = {{1, "", 'S', 0, 0, 0}, {5, "", 'S', 3, 0, 0}, {3, "", 'S', 2, 0, 0},
                                         {2, "", 'S', 1, 0, 0}, {4, "", 'S', 1, 0, 0}, {6, "", 'Z', 5, 0, 0}};
  std::vector<pid_t> found;
  for (const ProcessFacts& facts : DescendantsOf(2, all)) found.push_back(facts.pid);
  EXPECT_THAT(found, testing::UnorderedElementsAre(3, 5, 6));
}

TEST(ProcessTest, NameIsTheProgramsCut) {
  EXPECT_EQ(ProcessNameOf("/usr/sbin/debug_dat_transmitter"), "debug_dat_trans");
  EXPECT_EQ(ProcessNameOf("short"), "short");
}

TEST(ProcessTest, EndIsToldInWords) {
  EXPECT_EQ(EndingText(3 << 8), "status 3");
  EXPECT_EQ(EndingText(SIGKILL), "SIGKILL");
  EXPECT_EQ(EndingText(SIGRTMIN + 1), "signal " + std::to_string(SIGRTMIN + 1));
}

}  // namespace
}  // namespace DebugDatRun
