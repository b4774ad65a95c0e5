/// The program as people run it.
#include "program.h"

#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "loopback_socket.h"
#include "supportctl_fixture.h"

namespace TarvoOrvane::Supportctl {
namespace {

using test_support::Program;
using ::testing::HasSubstr;
using ::testing::Not;

/// supportctl on a terminal of its own.
class OnTerminal {
 public:
  explicit OnTerminal(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), SUPPORTCTL_PROGRAM);
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_ = forkpty(&terminal_, nullptr, nullptr, nullptr);
    if (pid_ == 0) {
      execv(argv[0], argv.data());
      _exit(127);
    }
  }
  ~OnTerminal() {
    if (status_ == -1) kill(pid_, SIGKILL);
    close(terminal_);
    if (status_ == -1) waitpid(pid_, nullptr, 0);
  }
  OnTerminal(const OnTerminal&) = delete;
  OnTerminal& operator=(const OnTerminal&) = delete;

  void Type(const std::string& text) const {
    EXPECT_EQ(write(terminal_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  /// Reads until this has been shown.
  [[nodiscard]] bool Shows(const std::string& text) {
    return Eventually([&] {
      Read();
      return shown_.find(text) != std::string::npos;
    });
  }
  /// @return its exit status; 128 and the number of the signal that ended it.
  int End() {
    EXPECT_TRUE(Eventually([&] {
      Read();
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
      status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
      return true;
    }));
    Read();
    return status_;
  }
  [[nodiscard]] const std::string& shown() const { return shown_; }
  [[nodiscard]] bool Echoes() const {
    termios settings{};
    tcgetattr(terminal_, &settings);
    return (settings.c_lflag & ECHO) != 0;
  }

 private:
  void Read() {
    std::array<char, 4096> bytes{};
    while (WaitFor(terminal_, POLLIN, 0)) {
      const ssize_t count = read(terminal_, bytes.data(), bytes.size());
      if (count <= 0) return;  // nobody has the terminal open any more
      shown_.append(bytes.data(), static_cast<std::size_t>(count));
    }
  }

  int terminal_ = -1;
  pid_t pid_ = -1;
  int status_ = -1;
  std::string shown_;
};

class SupportctlProgramTest : public SupportctlFixture {
 protected:
  SupportctlProgramTest() {
    Json::Value user;
    user["name"] = "ada";
    server_.On("POST", "/users", {Answers(user, 201)});
  }

  const std::vector<std::string> add_ada_ = {"--data", data_, "users", "add", "ada", "--role", "support"};
};

TEST_F(SupportctlProgramTest, ResultsAndErrorsHaveTheirStatus) {
  Program version({SUPPORTCTL_PROGRAM, "--version"}, temp_.File("version.out"));
  EXPECT_EQ(version.Wait(), 0);
  EXPECT_THAT(version.Output(), ::testing::StartsWith("supportctl "));
  Program wrong({SUPPORTCTL_PROGRAM, "nonsense"}, temp_.File("wrong.out"));
  EXPECT_EQ(wrong.Wait(), 2);
  Program nobody({SUPPORTCTL_PROGRAM, "whoami"}, temp_.File("nobody.out"),
                 {{"SUPPORTCTL_DATA", temp_.File("none")}});
  EXPECT_EQ(nobody.Wait(), 3);
  EXPECT_THAT(nobody.Output(),
              HasSubstr("no support service to speak with (there is no " + temp_.File("none")));
}

TEST_F(SupportctlProgramTest, EventsAreWrittenWhenTheyCome) {
  server_.On("GET", "/events", {StreamsOn(SentEvent(1, "created", TicketJson()))});
  Program follow({SUPPORTCTL_PROGRAM, "--data", data_, "follow"}, temp_.File("follow.out"));
  EXPECT_TRUE(Eventually([&] { return follow.Output().find("SN1  created\n") != std::string::npos; }));
}

TEST_F(SupportctlProgramTest, FullDiskUnderTheOutputIsAFailure) {
  server_.On("GET", "/users", {Answers(ListJson("users", {}))});
  Program list({SUPPORTCTL_PROGRAM, "--data", data_, "users", "--json"}, "/dev/full");
  EXPECT_EQ(list.Wait(), 1);
}

TEST_F(SupportctlProgramTest, PasswordIsAskedForTwiceAndNotShown) {
  OnTerminal supportctl(add_ada_);
  ASSERT_TRUE(supportctl.Shows("Password for ada: "));
  EXPECT_FALSE(supportctl.Echoes());
  supportctl.Type("correct horse\n");
  ASSERT_TRUE(supportctl.Shows("The same again: "));
  supportctl.Type("correct horse\n");
  EXPECT_EQ(supportctl.End(), 0) << supportctl.shown();
  EXPECT_THAT(supportctl.shown(), HasSubstr("ada added"));
  EXPECT_THAT(supportctl.shown(), Not(HasSubstr("correct")));
  EXPECT_EQ(server_.Requests().at(0).Json()["password"], "correct horse");
}

TEST_F(SupportctlProgramTest, PasswordsThatDifferChangeNothing) {
  OnTerminal supportctl(add_ada_);
  ASSERT_TRUE(supportctl.Shows("Password for ada: "));
  supportctl.Type("correct horse\n");
  ASSERT_TRUE(supportctl.Shows("The same again: "));
  supportctl.Type("correct house\n");
  EXPECT_EQ(supportctl.End(), 2);
  EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(SupportctlProgramTest, InterruptedQuestionLeavesTheTerminalAsItWas) {
  OnTerminal supportctl(add_ada_);
  ASSERT_TRUE(supportctl.Shows("Password for ada: "));
  supportctl.Type("correct\x03");
  EXPECT_EQ(supportctl.End(), 128 + SIGINT);
  EXPECT_TRUE(supportctl.Echoes());
  EXPECT_TRUE(server_.Requests().empty());
}

}  // namespace
}  // namespace TarvoOrvane::Supportctl
