#include "connection.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "collect_service.h"
#include "file_util.h"
#include "hand_over.h"
#include "support_log_fixture.h"
#include "task_folder.h"

namespace {

std::string log_file;  ///< Where this process's log lines go; nowhere while empty.

void RecordLine(const char* format, va_list arguments) {
  char line[4096];
  static_cast<void>(vsnprintf(line, sizeof(line), format, arguments));
  if (!log_file.empty()) TARVO::SupportForm::WriteText(log_file, line);
}

}  // namespace

// The C library's names; with _FORTIFY_SOURCE the second one is called.
extern "C" {

__attribute__((format(printf, 2, 3))) void syslog(int /*level*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  RecordLine(format, arguments);
  va_end(arguments);
}

__attribute__((format(printf, 3, 4))) void __syslog_chk(int level, int flag, const char* format, ...);
void __syslog_chk(int /*level*/, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  RecordLine(format, arguments);
  va_end(arguments);
}

}  // extern "C"

namespace TARVO::SupportForm {
namespace {

using test_support::ChildProcess;
using test_support::ExitedWith;
using test_support::kPatience;
using testing::HasSubstr;

class ConnectionTest : public SupportLogTest {
 protected:
  ConnectionTest() {
    WriteText(gate_, "");
    Describe("slow", R"({"commands": [)" + GateCommand(gate_) + "]}");
    Describe("quick", "{}");
  }

  /// A collector, with this process at the other end of its connection.
  class Collector {
   public:
    explicit Collector(const ConnectionTest& test) : Collector(test, NewConnection()) {}

    /// Sends a request and closes that direction.
    void Ask(const std::string& request) const {
      EXPECT_TRUE(SendMessage(connection_.get(), request, -1, Deadline()) || errno == EPIPE)
          << ErrorText(errno);
    }
    Message Answer() const {
      Message answer;
      EXPECT_TRUE(ReceiveMessage(connection_.get(), 4096, Deadline(), answer)) << ErrorText(errno);
      return answer;
    }
    [[nodiscard]] int connection() const { return connection_.get(); }
    void HangUp() { connection_.Close(); }
    auto WaitForEnd() { return process_.WaitForEnd(); }

   private:
    struct Ends {
      UniqueFd here;
      UniqueFd there;
    };
    static Ends NewConnection() {
      int ends[2];
      if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) abort();
      return {UniqueFd(ends[0]), UniqueFd(ends[1])};
    }
    Collector(const ConnectionTest& test, Ends ends)
        : connection_(std::move(ends.here)), process_([&] {
            connection_.Close();
            log_file = test.log_;
            return ServeConnection(test.paths_, test.limits_, ends.there.Release());
          }) {}

    static std::int64_t Deadline() { return MonotonicMs() + std::chrono::milliseconds(kPatience).count(); }

    UniqueFd connection_;
    ChildProcess process_;
  };

  /// What is answered to a request that is refused; nothing of it may be left.
  std::string RefusalOf(const std::string& request) const {
    Collector collector(*this);
    collector.Ask(request);
    std::string error = ParseJson(collector.Answer().text)["error"].asString();
    EXPECT_THAT(collector.WaitForEnd(), ExitedWith(1));
    EXPECT_EQ(TaskFolders(), 0U);
    EXPECT_THAT(ReadText(log_), HasSubstr(error));
    return error;
  }
  std::size_t TaskFolders() const {
    const UniqueFd state(open(paths_.state.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return state.valid() ? CountTasks(state.get()) : 0;
  }
  fs::path Folder(const std::string& task) const { return fs::path(paths_.state) / task; }

  std::string log_ = folder_ / "log";
  fs::path gate_ = data_ / "gate";
};

TEST_F(ConnectionTest, AnswersWithATaskWhoseOwnersLockIsTheAskersAlone) {
  Collector collector(*this);
  collector.Ask(R"(["quick", "../etc", "unknown"])");
  Message answer = collector.Answer();
  const std::string task = ParseJson(answer.text)["task_id"].asString();
  ASSERT_TRUE(IsTaskId(task)) << answer.text;
  EXPECT_THAT(collector.WaitForEnd(), ExitedWith(0));
  EXPECT_THAT(ReadArchive(Folder(task) / kArchiveFile).Errors(),
              testing::IsSupersetOf({HasSubstr("../etc"), HasSubstr("apps/unknown")}));

  const UniqueFd folder = OpenTaskFolder(paths_.state, task);
  EXPECT_TRUE(IsHeld(folder.get(), kOwnerFile));
  answer.attached.Close();
  EXPECT_FALSE(IsHeld(folder.get(), kOwnerFile));
}

TEST_F(ConnectionTest, FolderIsItsGroupsToReadWhileTheTaskRunsAndToWriteOnceItHasEnded) {
  umask(077);  // as a service manager may be told to
  Collector collector(*this);
  umask(022);
  collector.Ask(R"(["slow"])");
  const Message answer = collector.Answer();
  const fs::path folder = Folder(ParseJson(answer.text)["task_id"].asString());
  EXPECT_EQ(ModeOf(fs::path(paths_.state).parent_path()), 0755U);
  EXPECT_EQ(ModeOf(paths_.state), 0750U);
  EXPECT_EQ(ModeOf(folder), 0750U);
  EXPECT_EQ(ModeOf(folder / kLockFile), 0640U);
  EXPECT_EQ(ModeOf(folder / kOwnerFile), 0640U);
  ASSERT_TRUE(Eventually([&] { return fs::exists(folder / kProgressFile); }));
  EXPECT_EQ(ModeOf(folder / kProgressFile), 0640U);
  EXPECT_EQ(ModeOf(folder / kUnfinishedFile), 0600U) << "before it is complete";
  EXPECT_EQ(ModeOf(folder), 0750U);

  fs::remove(gate_);
  EXPECT_THAT(collector.WaitForEnd(), ExitedWith(0));
  EXPECT_EQ(ModeOf(folder), 0770U);
  EXPECT_EQ(ModeOf(folder / kArchiveFile), 0640U);
  EXPECT_EQ(ModeOf(folder / kProgressFile), 0640U);
  EXPECT_EQ(ModeOf(paths_.audit_log), 0600U);
}

TEST_F(ConnectionTest, PeerThatSendsNothingIsRefusedInTime) {
  limits_.request_wait_ms = 20;
  Collector collector(*this);
  EXPECT_THAT(ParseJson(collector.Answer().text)["error"].asString(), HasSubstr("timed out"));
  EXPECT_THAT(collector.WaitForEnd(), ExitedWith(1));
  EXPECT_FALSE(fs::exists(paths_.state));
}

TEST_F(ConnectionTest, PeerThatDoesNotSayThatItIsDoneIsRefusedInTime) {
  limits_.request_wait_ms = 20;
  Collector collector(*this);
  ASSERT_EQ(send(collector.connection(), R"(["quick"])", 9, MSG_NOSIGNAL), 9);
  EXPECT_THAT(ParseJson(collector.Answer().text)["error"].asString(), HasSubstr("timed out"));
  EXPECT_THAT(collector.WaitForEnd(), ExitedWith(1));
  EXPECT_FALSE(fs::exists(paths_.state));
}

TEST_F(ConnectionTest, RequestThatIsNoListOfNamesIsRefusedAndNothingMade) {
  for (const char* request : {"", "null", "{}", R"({"app_list": ["quick"]})", R"("quick")", "[",
                              R"(["quick"] [])", R"(["quick"]x)", "quick"}) {
    EXPECT_THAT(RefusalOf(request), HasSubstr("no JSON array")) << request;
  }
  for (const char* request : {"[1]", "[null]", R"(["quick", {"token": "x"}])", R"([["quick"]])", "[true]"}) {
    EXPECT_THAT(RefusalOf(request), HasSubstr("something else than names")) << request;
  }
  EXPECT_NE(RefusalOf(std::string(2'000, '[') + std::string(2'000, ']')), "");
  EXPECT_FALSE(fs::exists(paths_.state));
}

TEST_F(ConnectionTest, RequestAtTheLimitIsTakenAndALongerOneRefused) {
  const std::string longest = "[\"" + std::string(kAppListBytes - 4, 'x') + "\"]";
  EXPECT_THAT(RefusalOf(longest + " "), HasSubstr("Message too long"));
  Collector collector(*this);
  collector.Ask(longest);
  EXPECT_TRUE(ParseJson(collector.Answer().text).isMember("task_id"));
}

TEST_F(ConnectionTest, PeerThatIsGoneBeforeTheAnswerGetsNoTask) {
  Collector collector(*this);
  static_cast<void>(OpenStateFolder(paths_.state));
  UniqueFd others = LockStateFolder(paths_.state, 0);  // holds the answer up
  collector.Ask(R"(["quick"])");
  collector.HangUp();
  others.Close();
  EXPECT_THAT(collector.WaitForEnd(), ExitedWith(1));
  EXPECT_EQ(TaskFolders(), 0U);
  EXPECT_THAT(ReadText(log_), HasSubstr("gone"));
}

TEST_F(ConnectionTest, DescriptorsThatThePeerSendsAlongAreDropped) {
  const UniqueFd stray(open("/dev/null", O_RDONLY | O_CLOEXEC));
  Collector collector(*this);
  EXPECT_TRUE(SendMessage(collector.connection(), R"(["slow"])", stray.get(), MonotonicMs() + 60'000));
  const Message answer = collector.Answer();
  const std::string task = ParseJson(answer.text)["task_id"].asString();
  EXPECT_TRUE(IsTaskId(task)) << answer.text;
}

TEST_F(ConnectionTest, TasksThatNobodyTakesAwayAreBoundedInNumber) {
  limits_.handed_over_tasks = 2;
  const UniqueFd state = OpenStateFolder(paths_.state);
  const NewTask running = CreateTask(state.get());
  // What somebody put into the folder of an ended task, who may write there.
  const std::string spoilt = CreateTask(state.get()).id;
  WriteText(Folder(spoilt) / "deep" / "file", "x");
  EXPECT_EQ(TaskFolders(), 2U);
  Collector collector(*this);
  collector.Ask(R"(["quick"])");
  EXPECT_THAT(ParseJson(collector.Answer().text)["error"].asString(),
              AllOf(HasSubstr("there are 2 collections already"), HasSubstr(paths_.state)));
  EXPECT_THAT(collector.WaitForEnd(), ExitedWith(1));
  EXPECT_EQ(TaskFolders(), 2U);

  fs::remove_all(Folder(spoilt));
  Collector next(*this);
  next.Ask(R"(["quick"])");
  EXPECT_TRUE(ParseJson(next.Answer().text).isMember("task_id"));
}

TEST_F(ConnectionTest, WhatIsPlantedInAFolderThatItsGroupMayWriteToHarmsNothingElse) {
  Collector collector(*this);
  collector.Ask(R"(["quick"])");
  const std::string task = ParseJson(collector.Answer().text)["task_id"].asString();
  EXPECT_THAT(collector.WaitForEnd(), ExitedWith(0));
  const fs::path precious = data_ / "precious";
  WriteText(precious, "x");
  for (const char* name : kTaskFiles) {
    fs::remove(Folder(task) / name);
    fs::create_symlink(precious, Folder(task) / name);
  }
  fs::remove(Folder(task) / kOwnerFile);
  ASSERT_EQ(mkfifo((Folder(task) / kOwnerFile).c_str(), 0600), 0);

  Collector next(*this);
  next.Ask(R"(["quick"])");
  EXPECT_TRUE(ParseJson(next.Answer().text).isMember("task_id"));
  EXPECT_FALSE(fs::exists(Folder(task)));
  EXPECT_EQ(ReadText(precious), "x");
}

TEST_F(ConnectionTest, AnotherUserIsRefusedByWhoTheyAreAndTheLogTellsIt) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can play another user";
  ASSERT_EQ(chmod(folder_.c_str(), 0755), 0);
  const CollectService service(paths_.socket, [&](int connection_fd) {
    log_file = log_;
    return ServeConnection(paths_, limits_, connection_fd);
  });
  const CallerProcess stranger([&]() -> std::string {
    if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) return "still root";
    const UniqueFd connection = ConnectTo(paths_.socket);
    Message answer;
    const std::int64_t deadline_ms = MonotonicMs() + std::chrono::milliseconds(kPatience).count();
    static_cast<void>(SendMessage(connection.get(), R"(["quick"])", -1, deadline_ms));
    static_cast<void>(ReceiveMessage(connection.get(), 4096, deadline_ms, answer));
    return answer.text + (answer.attached.valid() ? " and a lock" : "");
  });
  EXPECT_EQ(stranger.Answer(),
            R"({"error":"only root and the user tarvo, in the group 0, may ask for collections"})");
  EXPECT_FALSE(fs::exists(paths_.state));
  EXPECT_THAT(ReadText(log_), HasSubstr("user 65534"));
}

TEST_F(ConnectionTest, WhatIsNoConnectionIsAnError) {
  const CallerProcess process([&] {
    return std::to_string(ServeConnection(paths_, limits_, open("/dev/null", O_RDWR | O_CLOEXEC)));
  });
  EXPECT_THAT(process.Answer(), testing::StartsWith("exception: standard input is no connection"));
}

}  // namespace
}  // namespace TARVO::SupportForm
