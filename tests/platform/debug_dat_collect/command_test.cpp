#include "command.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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
    const UniqueFd fd(open((folder_ / "output").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    CommandResult result = RunCommand(request_, fd.get());
    output_ = ReadText(folder_ / "output");
    return result;
  }
  CommandResult Shell(const std::string& script) { return Run({"sh", "-c", script}); }

  CommandRequest request_ = {{}, {}, 60'000, 1'000'000, Output::kBegin};
  std::string output_;
};

/// The last bytes of what "seq 1 LAST" prints.
std::string LastOfSeq(int last, std::size_t bytes) {
  std::string text;
  for (int i = 1; i <= last; ++i) text += std::to_string(i) + "\n";
  return text.substr(text.size() - bytes);
}

/// Whether a process runs; a zombie doesn't.
bool Runs(pid_t pid) {
  const std::string stat = ReadText("/proc/" + std::to_string(pid) + "/stat");
  const std::size_t name_end = stat.rfind(')');
  return name_end != std::string::npos && stat.substr(name_end).find(" Z ") == std::string::npos;
}

TEST_F(CommandTest, ProgramThatOthersCanChangeIsNotStarted) {
  Program("tool", "echo ran");
  const std::string path = (folder_ / "bin" / "tool").string();
  chmod(path.c_str(), 0777);
  for (const std::string& name : {std::string("tool"), path}) {
    const CommandResult result = Run({name});
    EXPECT_EQ(result.end, End::kNotStarted);
    EXPECT_THAT(result.Text(), HasSubstr("not started: " + path + " (owner "));
    EXPECT_THAT(result.Text(), HasSubstr("; chmod go-w " + path));
    EXPECT_EQ(output_, "");
  }
  chmod(path.c_str(), 0755);
  EXPECT_EQ(Run({"tool"}).end, End::kExited);
  chmod((folder_ / "bin").c_str(), 0775);
  EXPECT_THAT(Run({"tool"}).Text(), HasSubstr("bin (owner "));
}

TEST_F(CommandTest, ProgramThatOthersPutBeforeAnotherOnTheWayIsPassedOver) {
  Program("tool", "echo planted");
  Program("../safe/tool", "echo ran");
  chmod((folder_ / "bin").c_str(), 0777);
  paths_.programs = (folder_ / "bin").string() + ":" + (folder_ / "safe").string() + ":/usr/bin:/bin";
  EXPECT_EQ(Run({"tool"}).end, End::kExited);
  EXPECT_EQ(output_, "ran\n");
  Shell("tool; echo $PATH");
  EXPECT_EQ(output_, "ran\n" + (folder_ / "safe").string() + ":/usr/bin:/bin\n");
}

TEST_F(CommandTest, OutputAndErrorsAreKeptInTheirOrder) {
  const CommandResult result = Shell("echo one; echo two >&2; echo three; exit 3");
  EXPECT_EQ(result.end, End::kExited);
  EXPECT_EQ(result.code, 3);
  EXPECT_EQ(result.Text(), "exit status 3");
  EXPECT_EQ(output_, "one\ntwo\nthree\n");
}

TEST_F(CommandTest, ErrorsAreDroppedWhereTheyAreNotAskedFor) {
  request_.output = Output::kEndNoErrors;
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

TEST_F(CommandTest, WorkingFolderIsTheRootWhereverTheCallerIs) {
  ASSERT_NE(fs::current_path(), "/");
  Run({"pwd"});
  EXPECT_EQ(output_, "/\n");
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
  request_.time_limit_ms = 3000;  // for the shell to print both
  const CommandResult result = Shell("sleep 300 & echo $!; echo begun; wait");
  EXPECT_EQ(result.end, End::kTimeLimit);
  const pid_t background = std::stoi(output_);
  EXPECT_THAT(output_, HasSubstr("begun"));
  EXPECT_TRUE(Eventually([&] { return !Runs(background); })) << "pid " << background;
}

TEST_F(CommandTest, TimeLimitHoldsForACommandThatClosedItsOutput) {
  request_.time_limit_ms = 300;
  EXPECT_EQ(Shell("exec >&- 2>&-; sleep 300").end, End::kTimeLimit);
}

TEST_F(CommandTest, WhatTheCommandLeavesInItsGroupEndsWithIt) {
  const CommandResult result = Shell("sleep 300 & echo $!");
  EXPECT_EQ(result.end, End::kExited);
  const pid_t background = std::stoi(output_);
  EXPECT_TRUE(Eventually([&] { return !Runs(background); }));
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

TEST_F(CommandTest, OfALongOutputTheEndIsKeptWhereThatIsAskedFor) {
  request_.output = Output::kEndNoErrors;
  request_.output_limit = 100'000;
  const CommandResult result = Run({"seq", "1", "200000"});
  EXPECT_EQ(result.end, End::kExited);
  EXPECT_TRUE(result.begin_lost);
  EXPECT_GE(output_.size(), 100'000U);
  EXPECT_LE(output_.size(), 200'000U);
  EXPECT_EQ(output_.substr(output_.size() - 100'000), LastOfSeq(200'000, 100'000));
}

TEST_F(CommandTest, WhereTheEndIsKeptTheFileNeverHoldsMoreThanTwiceTheLimit) {
  request_.output = Output::kEndNoErrors;
  request_.output_limit = 100'000;
  const CallerProcess caller([&] {
    LimitFileSize(2 * request_.output_limit);
    return Run({"seq", "1", "200000"}).Text();
  });
  EXPECT_EQ(caller.Answer(), "exit status 0");
}

TEST_F(CommandTest, EndOfAShortOutputIsAllOfIt) {
  request_.output = Output::kEndNoErrors;
  const CommandResult result = Run({"seq", "1", "3"});
  EXPECT_FALSE(result.begin_lost);
  EXPECT_EQ(output_, "1\n2\n3\n");
}

TEST_F(CommandTest, WholeGroupEndsWithTheCallerHoweverThatEnds) {
  const fs::path ids = folder_ / "ids";
  test_support::ChildProcess caller([&] {
    Shell("sleep 300 & echo $! $$ >" + ids.string() + ".new; mv " + ids.string() + ".new " + ids.string() +
          "; wait");
    return 0;
  });
  ASSERT_TRUE(Eventually([&] { return fs::exists(ids); }));
  caller.Signal(SIGKILL);
  ASSERT_THAT(caller.WaitForEnd(), test_support::KilledBy(SIGKILL));
  std::istringstream line(ReadText(ids));
  pid_t background = 0;
  pid_t command = 0;
  line >> background >> command;
  ASSERT_GT(command, 0);
  EXPECT_TRUE(Eventually([&] { return !Runs(background) && !Runs(command); }));
}

TEST_F(CommandTest, LeaderOfTheGroupHoldsNothingOfTheCallersOpen) {
  const UniqueFd fd(open("/dev/null", O_RDONLY));
  const CommandResult result = Shell(
      "read -r _ _ _ _ leader _ </proc/$$/stat; until ls /proc/$leader/fd | tr '\\n' ' ' | grep -x '0 '; do "
      ":; done");
  EXPECT_EQ(result.Text(), "exit status 0");
  EXPECT_EQ(output_, "0 \n");
}

TEST_F(CommandTest, NoChildIsLeft) {
  Shell("sleep 300 & echo done");
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(CommandTest, OutputThatCanNotBeStoredEndsTheCommandAndIsTold) {
  request_.argv = {"yes"};
  request_.programs = paths_.programs;
  const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  const CommandResult result = RunCommand(request_, full.get());
  EXPECT_EQ(result.end, CommandResult::End::kNotStored);
  EXPECT_EQ(result.Text(), "its output can't be stored: No space left on device");
}

}  // namespace
}  // namespace TARVO::SupportForm
