#include "syslog_listener.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>

#include "child_process.h"
#include "temporary_folder.h"

namespace {

using test_support::kPatience;

class SyslogListenerTest : public testing::Test {
 protected:
  std::string Path(const char* name) const { return folder_.File(name); }

  /// Sends from the calling process; used by children too.
  void Send(const std::string& datagram) const {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    Path("log").copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&address),
           sizeof(address));
    close(fd);
  }

  /// A child that sends one line and stays a zombie until it is waited for.
  auto SendFromChild(const std::string& datagram) const {
    return std::make_unique<test_support::ChildProcess>([=] {
      Send(datagram);
      return 0;
    });
  }

  const test_support::TemporaryFolder folder_;
};

TEST(ParseSyslogDatagramTest, SplitsLevelIdentAndText) {
  const SyslogLine line = ParseSyslogDatagram("<12>Nov  1 10:00:00 daemon: a.cpp:7 text: more\n");
  EXPECT_EQ(line.level, LOG_WARNING);
  EXPECT_EQ(line.ident, "daemon");
  EXPECT_EQ(line.text, "a.cpp:7 text: more\n");
}

TEST(ParseSyslogDatagramTest, LeavesOutTheProcessIdBehindTheIdent) {
  EXPECT_EQ(ParseSyslogDatagram("<11>Nov 21 10:00:00 daemon[42]: text").ident, "daemon");
}

TEST(ParseSyslogDatagramTest, TakesADatagramWithoutAHeadAsText) {
  EXPECT_EQ(ParseSyslogDatagram("no head").text, "no head");
}

TEST_F(SyslogListenerTest, TellsSupervisorWorkerAndChildByTheirDescent) {
  std::ofstream(Path("pid")) << getpid() << '\n';
  const SyslogListener listener(Path("log"), Path("pid"));
  Send("<12>supervisor");
  std::unique_ptr<test_support::ChildProcess> children[2];
  for (int i = 0; i < 2; ++i) {
    children[i] = SendFromChild("<12>from a child");
    ASSERT_TRUE(listener.WaitUntil(
        [&](const auto& lines) { return lines.size() == static_cast<std::size_t>(i) + 2; }, kPatience));
  }
  const std::vector<SyslogLine> lines = listener.Lines();
  EXPECT_EQ(lines[0].role, SyslogRole::kSupervisor);
  EXPECT_EQ(lines[0].pid, getpid());
  EXPECT_EQ(lines[1].role, SyslogRole::kWorker);
  EXPECT_EQ(lines[1].pid, children[0]->pid());
  EXPECT_EQ(lines[2].role, SyslogRole::kChild);
  EXPECT_EQ(lines[2].pid, children[1]->pid());
}

TEST_F(SyslogListenerTest, KnowsAChildWhoseSupervisorIsGoneByItsSession) {
  const SyslogListener listener(Path("log"), Path("pid"));
  int stays[2];  // The orphan stays until the test closes its end: a process that has gone has no session.
  ASSERT_EQ(pipe2(stays, O_CLOEXEC), 0);
  const pid_t leader = fork();
  if (leader == 0) {
    close(stays[1]);
    setsid();
    std::ofstream(Path("pid")) << getpid() << std::endl;
    if (fork() == 0) {
      while (getppid() == getsid(0)) {
        usleep(1000);
      }
      Send("<12>from an orphan");
      char byte = 0;
      static_cast<void>(!read(stays[0], &byte, 1));
    }
    _exit(0);
  }
  waitpid(leader, nullptr, 0);
  ASSERT_TRUE(listener.WaitUntil([](const auto& lines) { return lines.size() == 1; }, kPatience));
  EXPECT_EQ(listener.Lines()[0].role, SyslogRole::kWorker);
  close(stays[0]);
  close(stays[1]);
}

TEST_F(SyslogListenerTest, CallsAProcessOfAnotherDescentOther) {
  std::ofstream(Path("pid")) << 1 << '\n';
  const SyslogListener listener(Path("log"), Path("pid"));
  Send("<12>text");
  ASSERT_TRUE(listener.WaitUntil([](const auto& lines) { return lines.size() == 1; }, kPatience));
  EXPECT_EQ(listener.Lines()[0].role, SyslogRole::kOther);
}

TEST_F(SyslogListenerTest, TakesALineOf200000Bytes) {
  const SyslogListener listener(Path("log"), Path("pid"));
  Send("<12>Nov 21 10:00:00 d: " + std::string(200000, 'x'));
  ASSERT_TRUE(listener.WaitUntil([](const auto& lines) { return lines.size() == 1; }, kPatience));
  EXPECT_EQ(listener.Lines()[0].text.size(), 200000U);
}

TEST_F(SyslogListenerTest, NeverBlocksItsSenders) {
  const SyslogListener listener(Path("log"), Path("pid"));
  for (int i = 0; i < 1000; ++i) {
    Send("<12>line " + std::to_string(i));
  }
  ASSERT_TRUE(listener.WaitUntil([](const auto& lines) { return lines.size() == 1000; }, kPatience));
  EXPECT_EQ(listener.Lines().back().text, "line 999");
}

}  // namespace
