#include "daemon_checks.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>

#include "check_matchers.h"
#include "child_process.h"
#include "temporary_folder.h"
#include "unique_fd.h"

namespace DebugDatCheck {
namespace {

using DebugDatRun::ProcessFacts;
using test_support::TemporaryFolder;
using ::testing::AllOf;

constexpr char kName[] = "debug_dat_trans";

// Ids that no process of this machine has: what a check looks up about them in /proc is not there.
constexpr pid_t kSupervisor = 10'000'001;
constexpr pid_t kWorker = 10'000'002;
constexpr pid_t kChild = 10'000'003;
constexpr pid_t kStray = 10'000'004;

ProcessFacts Process(pid_t pid, pid_t parent, std::uint64_t start, char state = 'S') {
  return {pid, kName, state, parent, pid, start};
}

class DaemonCheckTest : public ::testing::Test {
 protected:
  /// The daemon among these processes, where the pid file names the supervisor.
  [[nodiscard]] DaemonProcesses Among(const std::vector<ProcessFacts>& all) const {
    return FindDaemon(temp_.Write("pid", std::to_string(kSupervisor) + "\n"), all);
  }

  TemporaryFolder temp_;
};

TEST_F(DaemonCheckTest, WholeDaemonIsOkAlsoWithATicketUnderWay) {
  const auto daemon = Among(
      {Process(kChild, kSupervisor, 30), Process(kWorker, kSupervisor, 21), Process(kSupervisor, 1, 20)});
  ASSERT_TRUE(daemon.worker);
  EXPECT_EQ(daemon.worker->pid, kWorker);
  EXPECT_THAT(CheckDaemon(daemon), IsOk("(supervisor 10000001, worker 10000002)"));
}

TEST_F(DaemonCheckTest, FilesThatAreNotShownAreNotCalledTheInstalledOnes) {
  DaemonProcesses daemon;
  daemon.supervisor = daemon.worker = Process(getpid(), 1, 20);
  EXPECT_THAT(CheckDaemon(daemon), AllOf(IsOk("runs since"), Not(IsOk("not shown"))));
  daemon.worker = Process(kWorker, getpid(), 21);  // nobody is shown what it runs
  EXPECT_THAT(CheckDaemon(daemon), IsOk("whether its files have been replaced is not shown to this user"));
}

TEST_F(DaemonCheckTest, DaemonThatNeverRanIsWarnedOf) {
  EXPECT_THAT(CheckDaemon(FindDaemon(temp_.File("none"), std::vector<ProcessFacts>())),
              Warns("does not run"));
}

TEST_F(DaemonCheckTest, UnreadablePidFileIsNoDeadDaemon) {
  const DaemonProcesses daemon = FindDaemon(temp_.File(""), {Process(kWorker, kSupervisor, 21)});
  EXPECT_THAT(CheckDaemon(daemon), IsProblem("its pid file can't be read"));
}

TEST_F(DaemonCheckTest, DaemonThatHasEndedIsAProblem) {
  EXPECT_THAT(CheckDaemon(Among({})), AllOf(IsProblem("does not run"), Advises("Start it")));
  EXPECT_THAT(CheckDaemon(Among({Process(kSupervisor, 1, 20, 'Z')})), IsProblem("does not run"));
  ProcessFacts other = Process(kSupervisor, 1, 20);
  other.name = "another";
  EXPECT_THAT(CheckDaemon(Among({other})), IsProblem("does not run"))
      << "its id has another program's process";
}

TEST_F(DaemonCheckTest, DeadWorkerIsAProblem) {
  const ProcessFacts supervisor = Process(kSupervisor, 1, 20);
  EXPECT_THAT(CheckDaemon(Among({supervisor})), IsProblem("its worker has ended"));
  EXPECT_THAT(CheckDaemon(Among({supervisor, Process(kWorker, kSupervisor, 21, 'Z')})),
              IsProblem("its worker has ended"));
  EXPECT_THAT(CheckDaemon(Among(
                  {supervisor, Process(kWorker, kSupervisor, 21, 'Z'), Process(kChild, kSupervisor, 30)})),
              IsProblem("its worker has ended"))
      << "what serves a ticket is no worker";
}

TEST_F(DaemonCheckTest, WorkerWithoutItsSupervisorIsAProblem) {
  EXPECT_THAT(CheckDaemon(Among({Process(kWorker, 1, 21)})),
              AllOf(IsProblem("process 10000002 is left of it"), Advises("kill 10000002")));
}

TEST_F(DaemonCheckTest, SecondWorkerIsAProblem) {
  EXPECT_THAT(CheckDaemon(Among(
                  {Process(kSupervisor, 1, 20), Process(kWorker, kSupervisor, 21), Process(kStray, 1, 11)})),
              AllOf(IsProblem("process 10000004 belongs to another start of it"), Advises("kill 10000004")));
}

TEST_F(DaemonCheckTest, UserIsTold) {
  const auto ids = UserOf(getpid());
  ASSERT_TRUE(ids);
  EXPECT_EQ(ids->user, getuid());
  EXPECT_EQ(ids->group, getgid());
  EXPECT_FALSE(UserOf(kStray));
}

TEST_F(DaemonCheckTest, CollectorWithoutItsSocketIsAProblem) {
  EXPECT_THAT(CheckCollectorSocket(temp_.File("none")),
              AllOf(IsProblem("nothing listens"), Advises("systemctl start")));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = temp_.File("socket");
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  {
    const TARVO::SupportForm::UniqueFd socket_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(socket_fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_THAT(CheckCollectorSocket(path), IsProblem("nothing listens"));
    ASSERT_EQ(listen(socket_fd.get(), 1), 0);
    EXPECT_THAT(CheckCollectorSocket(path), IsOk(path));
  }
  EXPECT_THAT(CheckCollectorSocket(path), IsProblem("nothing listens"))
      << "the file alone is no socket's unit";
}

// ---- the connection ----

TEST_F(DaemonCheckTest, ConnectionOfAUnixSocketCountsWhereTheNotificationAddressIsOne) {
  std::array<int, 2> ends = {-1, -1};
  const test_support::CallerProcess worker([&]() -> std::string {
    return socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0 ? "" : "no sockets";
  });
  ASSERT_EQ(worker.Answer(), "");
  DaemonProcesses daemon;
  daemon.supervisor = daemon.worker = Process(worker.pid(), 1, 20);
  const auto status_with_file = [&](const std::string& configuration) {
    TarvoOrvane::Internal::LoggerOptions logger;
    logger.flag_file = temp_.Write("debug", "");  // no journal
    logger.log_file = temp_.File("none");
    return DaemonStatus(daemon, configuration, logger, {});
  };
  const auto status_with = [&](const std::string& url) {
    const std::string text = R"({"debug_dat_file_transmitter": {"grpc_server": {"url": ")" + url + R"("}}})";
    return status_with_file(temp_.Write("conf", text));
  };
  EXPECT_THAT(status_with("unix:/run/notification.sock"), IsOk("working: connected, runs since"));
  EXPECT_THAT(status_with("http://127.0.0.1:9"), IsProblem("no connection to the notification server"));
  const std::string not_known = "working: its connection is not shown, runs since";
  EXPECT_THAT(status_with_file(temp_.File("missing")), IsOk(not_known));
  EXPECT_THAT(status_with_file(temp_.Write("conf", R"({"debug_dat_file_transmitter": )")), IsOk(not_known));
}

// ---- the last ticket ----

TEST_F(DaemonCheckTest, LinesOfOthersUnderTheDaemonsNameAreNotAskedFor) {
  TARVO::SupportForm::Paths paths;
  paths.programs = temp_.File("bin");
  chmod(temp_.Write("bin/journalctl", "#!/bin/sh\necho \"$*\" >" + temp_.File("asked")).c_str(), 0755);
  TarvoOrvane::Internal::LoggerOptions logger;
  logger.flag_file = temp_.File("none");
  EXPECT_THAT(DaemonStatus({}, temp_.File("none"), logger, paths), IsProblem("no word of tickets"));
  const std::string self = geteuid() == 0 ? "" : " _UID=" + std::to_string(geteuid());
  EXPECT_THAT(temp_.Read("asked"), AllOf(HasSubstr(" --identifier=debug_dat_transmitter "),
                                         ::testing::ContainsRegex(" _UID=0" + self + "( _UID=[0-9]+)?\n$")));
}

std::string TicketEnd(const std::string& log) {
  const auto ticket = LastTicketIn(log);
  return ticket ? ticket->time + " " + ticket->end : "";
}

constexpr char kBegun[] =
    "T1 host debug_dat_transmitter[8]: debug_dat_transmitter.cpp:300 Receive a request({}) from\n";
constexpr char kFinished[] =
    "T2 host debug_dat_transmitter[9]: debug_dat_transmitter.cpp:480 Finish handling the request({})\n";

TEST(LastTicketTest, EndIsWhatTheLogSays) {
  const std::string begun = kBegun;
  const std::string finished = kFinished;
  EXPECT_EQ(TicketEnd(""), "");
  EXPECT_EQ(TicketEnd(finished), "") << "it began before the log does";
  EXPECT_EQ(TicketEnd(begun), "T1 no end of it in the log");
  EXPECT_EQ(TicketEnd(begun + finished), "T1 served");
  EXPECT_EQ(TicketEnd(begun + "T1 x Failed to generagte debug.dat\n" + finished),
            "T1 no archive could be made");
  EXPECT_EQ(TicketEnd(begun + "T1 x Failed to transmit debug.dat\n" + finished),
            "T1 the archive could not be uploaded");
  EXPECT_EQ(TicketEnd(begun + "T1 x Failed to update '0' to server\n" + finished),
            "T1 the result could not be reported");
  EXPECT_EQ(TicketEnd(begun + "T1 x Failed to fork()\n"), "T1 no process could be made for it");
  EXPECT_EQ(TicketEnd("T0 x Receive a request({}) from\n" + begun + finished), "T1 served");
  EXPECT_EQ(TicketEnd(begun + finished + "T3 x Receive a request({}) from"), "T3 no end of it in the log");
}

}  // namespace
}  // namespace DebugDatCheck
