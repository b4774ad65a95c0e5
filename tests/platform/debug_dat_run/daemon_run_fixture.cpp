#include "daemon_run_fixture.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>

namespace DebugDatRun {

using test_support::Eventually;

void DaemonRunTest::SetUp() {
  test_support::AdoptOrphans();
  options_.daemon = FAKE_DAEMON_PATH;
  paths_ = {folder_.File("pid"), folder_.File("configuration"), folder_.File("log"),
            folder_.File("collections")};
}

void DaemonRunTest::TearDown() {
  run_.reset();
  // Their orphans become this process's own, as often as there are any.
  for (std::vector<pid_t> left; left = test_support::ChildrenOf(getpid()), !left.empty();) {
    for (const pid_t pid : left) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
}

void DaemonRunTest::Start(const std::string& ways, const std::function<void()>& prepare) {
  run_ = std::make_unique<test_support::ChildProcess>([&] {
    setenv("FAKE_FOLDER", folder_.path().c_str(), 1);
    setenv("FAKE_WAYS", ways.c_str(), 1);
    dup2(open(folder_.File("output").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600),
         STDERR_FILENO);
    prepare();
    return DaemonRun(options_, paths_, limits_).Run();
  });
}

void DaemonRunTest::StartAndWait(const std::string& ways) {
  Start(ways);
  ASSERT_TRUE(WaitForOutput("runs: supervisor ")) << Output();
}

test_support::Ending DaemonRunTest::End() {
  const test_support::Ending ending = run_->WaitForEnd();
  EXPECT_THAT(test_support::ChildrenOf(getpid()), testing::IsEmpty()) << "processes were left, or not reaped";
  return ending;
}

bool DaemonRunTest::WaitForOutput(const std::string& text) const {
  return Eventually([&] { return Output().find(text) != std::string::npos; });
}

bool DaemonRunTest::WaitForEvent(const std::string& text) const {
  return Eventually([&] { return Events().find(text) != std::string::npos; });
}

pid_t DaemonRunTest::Supervisor() const {
  return static_cast<pid_t>(std::strtol(folder_.Read("pid").c_str(), nullptr, 10));
}

pid_t DaemonRunTest::Worker() const {
  const std::vector<pid_t> children = test_support::ChildrenOf(Supervisor());
  return children.empty() ? 0 : *std::min_element(children.begin(), children.end());
}

}  // namespace DebugDatRun
