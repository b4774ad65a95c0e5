#include "command.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>

#include <set>
#include <sstream>

#include "archive_writer.h"
#include "file_util.h"
#include "support_log_fixture.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {
namespace {

using End = CommandResult::End;
using testing::HasSubstr;

class CommandTest : public SupportLogTest {
 protected:
  CommandResult Run(const std::vector<std::string>& argv) {
    request_.argv = argv;
    request_.programs = paths_.programs;
    const UniqueFd fd(open((folder_ / "output").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    const CommandResult result = RunCommand(request_, fd.get());
    output_ = ReadText(folder_ / "output");
    return result;
  }
  CommandResult Shell(const std::string& script) { return Run({"sh", "-c", script}); }

  CommandRequest request_ = {{}, {}, kDeadlineMs, 1'000'000, true};
  std::string output_;
};

/// Whether a process runs; a zombie doesn't.
bool Runs(pid_t pid) {
  const std::string stat = ReadText("/proc/" + std::to_string(pid) + "/stat");
  const std::size_t name_end = stat.rfind(')');
  return name_end != std::string::npos && stat.substr(name_end).find(" Z ") == std::string::npos;
}

TEST_F(CommandTest, OutputAndErrorsAreKeptInTheirOrder) {
  const CommandResult result = Shell("echo one; echo two >&2; echo three; exit 3");
  EXPECT_EQ(result.end, End::kExited);
  EXPECT_EQ(result.code, 3);
  EXPECT_EQ(result.Text(), "exit status 3");
  EXPECT_EQ(output_, "one\ntwo\nthree\n");
}

TEST_F(CommandTest, ErrorsAreDroppedWhereTheyAreNotAskedFor) {
  request_.with_errors = false;
  Shell("echo one; echo two >&2");
  EXPECT_EQ(output_, "one\n");
}

TEST_F(CommandTest, ArgumentsGoToTheProgramAsTheyAre) {
  Run({"printf", "%s|", "a b", "$HOME", "*", ""});
  EXPECT_EQ(output_, "a b|$HOME|*||");
}

TEST_F(CommandTest, EnvironmentIsPathAndLocaleOnly) {
  ASSERT_EQ(setenv("SECRET", "x", 1), 0);
  Run({"env"});
  EXPECT_EQ(output_, "PATH=" + paths_.programs + "\nLC_ALL=C\n");
  unsetenv("SECRET");
}

TEST_F(CommandTest, ProgramIsLookedUpInTheGivenFoldersInTheirOrder) {
  Program("df", "echo ours");
  Run({"df"});
  EXPECT_EQ(output_, "ours\n");
}

TEST_F(CommandTest, InputIsEmptyAndSignalsAreDefault) {
  ASSERT_NE(signal(SIGUSR1, SIG_IGN), SIG_ERR);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
  // The C library starts programs with its two signals 32 and 33 ignored.
  Shell("cat; grep -E 'Sig(Blk|Ign)' /proc/self/status | sed s/0000000180000000/0000000000000000/");
  sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
  EXPECT_NE(signal(SIGUSR1, SIG_DFL), SIG_ERR);
  EXPECT_EQ(output_, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST_F(CommandTest, NoDescriptorOfOursIsThere) {
  std::set<int> inherited = {0, 1, 2};  // What started this test may have left some more open.
  for (int fd = 3; fd < 1024; ++fd) {
    if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) inherited.insert(fd);
  }
  Shell("ls /proc/$$/fd");
  std::istringstream lines(output_);
  std::set<int> open;
  for (int fd = -1; lines >> fd;) open.insert(fd);
  EXPECT_EQ(open, inherited);
}

TEST_F(CommandTest, SignalThatEndedItIsTold) {
  const CommandResult result = Shell("kill -KILL $$");
  EXPECT_EQ(result.end, End::kSignalled);
  EXPECT_EQ(result.code, SIGKILL);
}

TEST_F(CommandTest, ProgramThatIsMissingOrCanNotBeStartedIsTold) {
  EXPECT_EQ(Run({"no_such_program_anywhere"}).end, End::kNotStarted);
  EXPECT_THAT(Run({"/no/such/program"}).Text(), HasSubstr("No such file"));
  WriteText(folder_ / "plain", "text");
  EXPECT_EQ(Run({(folder_ / "plain").string()}).end, End::kNotStarted);
}

TEST_F(CommandTest, PastItsTimeLimitItsWholeGroupIsKilledAndItsOutputKept) {
  request_.time_limit_ms = 1000;
  const CommandResult result = Shell("sleep 300 & echo $!; echo begun; wait");
  EXPECT_EQ(result.end, End::kTimeLimit);
  const pid_t background = std::stoi(output_);
  EXPECT_THAT(output_, HasSubstr("begun"));
  EXPECT_TRUE(WaitUntil([&] { return !Runs(background); })) << "pid " << background;
}

TEST_F(CommandTest, TimeLimitHoldsForACommandThatClosedItsOutput) {
  request_.time_limit_ms = 300;
  EXPECT_EQ(Shell("exec >&- 2>&-; sleep 300").end, End::kTimeLimit);
}

TEST_F(CommandTest, WhatTheCommandLeavesInItsGroupEndsWithIt) {
  const CommandResult result = Shell("sleep 300 & echo $!");
  EXPECT_EQ(result.end, End::kExited);
  const pid_t background = std::stoi(output_);
  EXPECT_TRUE(WaitUntil([&] { return !Runs(background); }));
}

TEST_F(CommandTest, OutputIsCutAtTheLimitAndTheCommandEnded) {
  request_.output_limit = 100'000;
  const CommandResult result = Run({"yes"});
  EXPECT_EQ(result.end, End::kOutputLimit);
  EXPECT_EQ(output_.size(), 100'000U);
  EXPECT_THAT(result.Text(), HasSubstr("limit"));
}

TEST_F(CommandTest, OutputJustAtTheLimitIsComplete) {
  request_.output_limit = 4;
  EXPECT_EQ(Shell("printf 1234").end, End::kExited);
  EXPECT_EQ(output_, "1234");
  EXPECT_EQ(Shell("printf 12345").end, End::kOutputLimit);
  EXPECT_EQ(output_, "1234");
}

TEST_F(CommandTest, OutputThatCanNotBeStoredIsAFailure) {
  request_.argv = {"yes"};
  request_.programs = paths_.programs;
  const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  EXPECT_THROW(static_cast<void>(RunCommand(request_, full.get())), ArchiveFailed);
}

}  // namespace
}  // namespace TARVO::SupportForm
