#include "collector_service.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <linux/capability.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "api_error.h"
#include "collect_service.h"
#include "connection.h"
#include "file_util.h"
#include "hand_over.h"
#include "support_form_log.h"
#include "support_log_fixture.h"
#include "task.h"
#include "task_folder.h"

namespace TARVO::SupportForm {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr unsigned kWaitMs = 60'000;  // missed by a hung program only

/// The library's end of a hand-over, with a service of the test's own at the other end.
class HandOverToTest : public SupportLogTest {
 protected:
  /// The task, or what was thrown.
  std::string Outcome(unsigned wait_ms = kWaitMs, const std::string& app = "quick") const {
    Json::Value list(Json::arrayValue);
    list.append(app);
    try {
      const auto task = HandOver(paths_.socket, wait_ms, list);
      return task ? task->id : "nobody there";
    } catch (const ApiError& error) {
      return error.what();
    }
  }
  /// The same where that is what a service answers, to each request that is the right one.
  std::string OutcomeOf(const std::string& answer, int attached_fd = -1) const {
    const CollectService service(paths_.socket, [&](int connection_fd) {
      Message request;
      return ReceiveMessage(connection_fd, 4096, MonotonicMs() + kWaitMs, request) &&
                     request.text == R"(["quick"])" &&
                     SendMessage(connection_fd, answer, attached_fd, MonotonicMs() + kWaitMs)
                 ? 0
                 : 1;
    });
    std::string outcome = Outcome();
    fs::remove(paths_.socket);
    return outcome;
  }

  const std::string task_ = std::string(32, 'a');
  const UniqueFd null_ = UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC));
};

TEST_F(HandOverToTest, NothingIsHandedOverWhereThereIsNoSocket) { EXPECT_EQ(Outcome(), "nobody there"); }

TEST_F(HandOverToTest, TaskOfTheAnswerIsTaken) {
  EXPECT_EQ(OutcomeOf(R"({"task_id":")" + task_ + R"("})", null_.get()), task_);
}

TEST_F(HandOverToTest, RefusalIsToldWithItsReason) {
  EXPECT_EQ(OutcomeOf(R"({"error":"no room"})"), "the collector refuses: no room");
}

TEST_F(HandOverToTest, AnswerThatIsNoneIsAnErrorThatSaysWhereToLook) {
  for (const std::string& answer : {std::string(), std::string("{"), std::string("[]"), std::string("{}"),
                                    std::string(R"({"task_id":"../x"})"), std::string(R"({"task_id":7})")}) {
    EXPECT_THAT(OutcomeOf(answer), AllOf(StartsWith("the collector ended without an answer"),
                                         HasSubstr("journalctl -u 'debug-dat-collect@*'")))
        << answer;
  }
}

TEST_F(HandOverToTest, TaskWithoutItsOwnersLockIsAnError) {
  EXPECT_THAT(OutcomeOf(R"({"task_id":")" + task_ + R"("})"), HasSubstr("without the task's lock"));
}

TEST_F(HandOverToTest, RefusalIsHeardThoughTheRequestWasNotRead) {
  const CollectService service(paths_.socket, [](int connection_fd) {
    return SendMessage(connection_fd, R"({"error":"not you"})", -1, MonotonicMs() + kWaitMs) ? 0 : 1;
  });
  const std::string more_than_is_buffered(std::size_t{8} << 20, 'x');
  for (const std::string& app : {std::string("quick"), more_than_is_buffered}) {
    EXPECT_EQ(Outcome(kWaitMs, app), "the collector refuses: not you") << app.size();
  }
}

TEST_F(HandOverToTest, SilentServiceIsNotWaitedForForever) {
  const CollectService service(paths_.socket, [](int /*connection_fd*/) {
    pause();
    return 0;
  });
  EXPECT_THAT(Outcome(50), AllOf(HasSubstr("timed out"), HasSubstr("journalctl")));
}

TEST_F(HandOverToTest, SocketWithoutAServiceIsAnErrorThatSaysWhatToDo) {
  LeaveStaleSocket(paths_.socket);
  EXPECT_THAT(Outcome(), AllOf(HasSubstr(paths_.socket + ": Connection refused"),
                               HasSubstr("systemctl start debug-dat-collect.socket")));
}

TEST_F(HandOverToTest, SocketThatIsForOthersIsAnErrorThatSaysWhatToDo) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can play another user";
  ASSERT_EQ(chmod(folder_.c_str(), 0755), 0);
  const CollectService service(paths_.socket, [](int /*connection_fd*/) { return 0; });
  ASSERT_EQ(chmod(paths_.socket.c_str(), 0660), 0);
  const CallerProcess stranger([&]() -> std::string {
    if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) return "still root";
    return Outcome();
  });
  EXPECT_THAT(stranger.Answer(), AllOf(HasSubstr("Permission denied"), HasSubstr("as the user tarvo")));
}

TEST_F(HandOverToTest, PathTooLongForASocketIsAnError) {
  paths_.socket = folder_ / std::string(108, 'x');
  EXPECT_THAT(Outcome(), HasSubstr("File name too long"));
}

/// "collect" and "status" where the collector is a service of its own.
class HandedOverTest : public SupportLogTest {
 protected:
  HandedOverTest() {
    WriteText(gate_, "");
    Describe("slow", R"({"commands": [)" + GateCommand(gate_) + "]}");
    Describe("quick", "{}");
  }

  [[nodiscard]] std::unique_ptr<CollectService> Service() const {
    return std::make_unique<CollectService>(
        paths_.socket, [this](int connection_fd) { return ServeConnection(paths_, limits_, connection_fd); });
  }
  /// The library with which no task can be started but by the service.
  [[nodiscard]] SupportFormLog Library() const {
    return {paths_, limits_, [](const Paths&, const std::string&, const Json::Value&) -> int { abort(); }};
  }
  static std::string Start(SupportFormLog& log, const std::string& app) {
    Json::Value params(Json::objectValue);
    params["app_list"].append(app);
    return log.Collect(params)["task_id"].asString();
  }
  static Json::Value StatusOf(const SupportFormLog& log, const std::string& task) {
    Json::Value params(Json::objectValue);
    params["task_id"] = task;
    return log.Status(params);
  }
  static std::string ArchiveOf(const SupportFormLog& log, const std::string& task) {
    Json::Value status;
    EXPECT_TRUE(Eventually([&] {
      status = StatusOf(log, task);
      return status["finished"].asBool();
    }));
    return status["path"].asString();
  }
  [[nodiscard]] fs::path Folder(const std::string& task) const { return fs::path(paths_.state) / task; }

  fs::path gate_ = data_ / "gate";
};

TEST_F(HandedOverTest, AnswersAndArchiveAreTheSameAsWithoutAService) {
  limits_.status_wait_ms = 20;
  // All answers of a task's life, with what differs from one task to the next left out.
  const auto answers_of = [&](SupportFormLog& log) {
    WriteText(gate_, "");
    const std::string task = Start(log, "slow");
    EXPECT_TRUE(Eventually([&] { return StatusOf(log, task)["files"].asUInt64() >= 9; }));
    Json::Value running = StatusOf(log, task);
    EXPECT_TRUE(running["bytes"].isUInt64() && running["files"].isUInt64());
    running["bytes"] = running["files"] = 0;
    fs::remove(gate_);
    const std::string path = ArchiveOf(log, task);
    const ArchiveContent archive = ReadArchive(path);
    std::string text = running.toStyledString() + StatusOf(log, task).toStyledString() + path;
    for (const std::string& name : archive.Names()) text += "\n" + name;
    for (const std::string& error : archive.Errors()) text += "\n" + error;
    EXPECT_EQ(archive.ManifestJson()["task_id"].asString(), task);
    for (std::size_t at = 0; (at = text.find(task)) != std::string::npos;) {
      text.replace(at, task.size(), "TASK");
    }
    return text;
  };
  const auto service = Service();
  SupportFormLog with = Library();
  const std::string handed_over = answers_of(with);
  Paths alone = paths_;
  alone.socket = folder_ / "none";
  SupportFormLog without(alone, limits_,
                         [&](const Paths& paths, const std::string& id, const Json::Value& list) {
                           return RunTask(paths, limits_, id, list);
                         });
  EXPECT_EQ(handed_over, answers_of(without));
}

TEST_F(HandedOverTest, RefusalIsTheAnswerOfCollect) {
  limits_.handed_over_tasks = 0;
  const auto service = Service();
  SupportFormLog log = Library();
  EXPECT_THAT([&] { Start(log, "quick"); },
              testing::ThrowsMessage<ApiError>(StartsWith("the collector refuses: there are 0 collections")));
}

TEST_F(HandedOverTest, KilledTaskIsAnErrorAndIsRemovedByTheNext) {
  const auto service = Service();
  SupportFormLog log = Library();
  const std::string task = Start(log, "slow");
  long pid = 0;
  ASSERT_TRUE(Eventually(
      [&] { return (pid = std::strtol(ReadText(Folder(task) / kLockFile).c_str(), nullptr, 10)) > 0; }));
  ASSERT_EQ(kill(static_cast<pid_t>(pid), SIGKILL), 0);
  EXPECT_THAT([&] { ArchiveOf(log, task); },
              testing::ThrowsMessage<ApiError>(HasSubstr("task " + task + " was killed")));
  Start(log, "slow");
  EXPECT_FALSE(fs::exists(Folder(task)));
}

TEST_F(HandedOverTest, ArchiveIsItsCallersAsLongAsTheCallerLives) {
  const auto service = Service();
  auto caller = std::make_unique<CallerProcess>([&] {
    auto* const log = new SupportFormLog(Library());  // never destroyed, as in the daemon
    std::string task = Start(*log, "quick");
    ArchiveOf(*log, task);
    return task;
  });
  const fs::path folder = Folder(caller->Answer());
  SupportFormLog log = Library();
  Start(log, "slow");
  EXPECT_TRUE(fs::exists(folder / kArchiveFile));
  caller.reset();
  Start(log, "slow");
  EXPECT_FALSE(fs::exists(folder));
}

TEST_F(HandedOverTest, CallerKeepsOnlyTheOwnersLock) {
  const auto service = Service();
  SupportFormLog log = Library();
  const std::size_t before = test_support::OpenDescriptors(getpid()).size();
  const std::string path = ArchiveOf(log, Start(log, "quick"));
  EXPECT_EQ(test_support::OpenDescriptors(getpid()).size(), before + 1);
  fs::remove(path);
  Start(log, "slow");
  EXPECT_EQ(test_support::OpenDescriptors(getpid()).size(), before + 1) << "the former one is given up";
}

/// The two halves as different users: the daemon without rights, the collector as root with those of its unit alone.
class SplitTest : public HandedOverTest {
 protected:
  static constexpr unsigned kUser = 64646;  ///< The user "tarvo", and that user's group.
  static constexpr unsigned kStranger = 64647;
  static constexpr int kNoNamespace = 77;

  /// Gives this process file systems of its own, in which there is the user.
  bool MakeUser() const {
    if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0) return false;
    const fs::path users = folder_ / "passwd";
    WriteText(users, "root:x:0:0::/:/bin/sh\ntarvo:x:64646:64646::/:/bin/false\n");
    return chmod(folder_.c_str(), 0755) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount(users.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0;
  }
  /// What the unit of the collector says: User=root, Group=tarvo, and which capabilities.
  static bool BecomeCollectorsUser() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2] = {};
    if (setgroups(0, nullptr) != 0 || setresgid(kUser, kUser, kUser) != 0) return false;
    if (syscall(SYS_capget, &header, &sets[0]) != 0) return false;
    const unsigned wanted = (1U << CAP_DAC_READ_SEARCH) | (1U << CAP_SYS_PTRACE);
    sets[0].permitted = sets[0].effective = sets[0].permitted & wanted;
    sets[1] = {};
    sets[0].inheritable = 0;
    return syscall(SYS_capset, &header, &sets[0]) == 0;
  }
  static bool BecomeUser(unsigned user) {
    return setgroups(0, nullptr) == 0 && setresgid(user, user, user) == 0 && setresuid(user, user, user) == 0;
  }
  /// Runs `body` as another user, in a process that is waited for.
  static void RunAs(unsigned user, const std::function<void()>& body) {
    EXPECT_THAT(test_support::RunInChild([&] {
                  EXPECT_TRUE(BecomeUser(user));
                  body();
                  return 0;
                }),
                test_support::ExitedWith(0));
  }
  [[nodiscard]] std::unique_ptr<CollectService> CollectorsService() const {
    return std::make_unique<CollectService>(paths_.socket, [this](int connection_fd) {
      return BecomeCollectorsUser() ? ServeConnection(paths_, limits_, connection_fd) : 1;
    });
  }
  /// Runs `body` where there is the user, and the collector for them; skips the test where that can't be.
  void InSplit(const std::function<void()>& body) const {
    const test_support::Ending ending = test_support::RunInChild([&] {
      if (!MakeUser()) return kNoNamespace;
      const auto service = CollectorsService();
      body();
      return 0;
    });
    if (ending.exit_status == kNoNamespace) GTEST_SKIP() << "no other users, or no private mounts here";
    EXPECT_THAT(ending, test_support::ExitedWith(0));
  }
  static void ExpectClosed(const fs::path& path) {
    EXPECT_EQ(open(path.c_str(), O_RDONLY | O_CLOEXEC), -1) << path;
    EXPECT_EQ(errno, EACCES) << path;
  }
};

TEST_F(SplitTest, UserWithoutRightsGetsReadsAndDeletesTheArchiveAndNobodyElseCan) {
  InSplit([&] {
    // As a daemon leaves it that was started by hand, before the split: root's and the group root's.
    fs::create_directories(paths_.state);
    ASSERT_EQ(chmod(paths_.state.c_str(), 0700), 0);
    ASSERT_EQ(chmod(data_.c_str(), 0777), 0);  // the user opens the gate
    const CallerProcess asker([&]() -> std::string {
      EXPECT_TRUE(BecomeUser(kUser));
      auto* const log = new SupportFormLog(Library());  // never destroyed, as in the daemon
      const std::string task = Start(*log, "slow");
      EXPECT_FALSE(StatusOf(*log, task)["finished"].asBool());
      ExpectClosed(paths_.state + ".lock");
      EXPECT_TRUE(Eventually([&] { return fs::exists(Folder(task) / kUnfinishedFile); }));
      ExpectClosed(Folder(task) / kUnfinishedFile);
      EXPECT_EQ(symlink("/etc/passwd", (Folder(task) / kArchiveFile).c_str()), -1)
          << "while root writes there";
      fs::remove(gate_);
      const std::string path = ArchiveOf(*log, task);
      return HasFailure() ? "what was expected did not come" : path;
    });
    const fs::path path = asker.Answer();
    ASSERT_EQ(path.filename(), kArchiveFile) << path;

    RunAs(kStranger, [&] {
      for (const fs::path& closed : {path, path.parent_path(), path.parent_path() / kLockFile}) {
        ExpectClosed(closed);
      }
    });
    RunAs(kUser, [&] {
      EXPECT_TRUE(ReadArchive(path).Has("manifest.json"));
      EXPECT_EQ(open(path.c_str(), O_WRONLY | O_CLOEXEC), -1);
      EXPECT_EQ(unlink(path.c_str()), 0);
      SupportFormLog log = Library();
      Start(log, "quick");
      EXPECT_FALSE(fs::exists(path.parent_path()));
    });
    EXPECT_EQ(ModeOf(paths_.audit_log), 0600U);
  });
}

TEST_F(SplitTest, ArchiveOfATaskThatWasKilledBeforeItWasSharedIsNone) {
  InSplit([&] {
    const CallerProcess killed([&]() -> std::string {
      EXPECT_TRUE(BecomeCollectorsUser());
      const UniqueFd state = OpenStateFolder(paths_.state);
      ShareStateFolder(state.get());
      const NewTask task = CreateTask(state.get());
      ShareTask(state.get(), task);
      WriteText(Folder(task.id) / kArchiveFile, "complete");
      EXPECT_EQ(chmod((Folder(task.id) / kArchiveFile).c_str(), 0600), 0);
      return task.id;
    });
    RunAs(kUser, [&] {
      const SupportFormLog log = Library();
      EXPECT_THAT([&] { static_cast<void>(StatusOf(log, killed.Answer())); },
                  testing::ThrowsMessage<ApiError>(HasSubstr("was killed")));
    });
  });
}

TEST_F(SplitTest, RootAndTheUserInTheirGroupMayAskAndNobodyElse) {
  InSplit([&] {
    SupportFormLog log = Library();
    EXPECT_TRUE(IsTaskId(Start(log, "quick")));
    for (const auto& [user, group] : {std::pair{kUser, kStranger}, std::pair{kStranger, kUser}}) {
      const CallerProcess stranger([&, user = user, group = group] {
        EXPECT_EQ(setgroups(0, nullptr), 0);
        EXPECT_EQ(setresgid(group, group, group), 0);
        EXPECT_EQ(setresuid(user, user, user), 0);
        return Start(log, "quick");
      });
      EXPECT_EQ(
          stranger.Answer(),
          "exception: the collector refuses: only root and the user tarvo, in the group 64646, may ask for "
          "collections");
    }
  });
}

}  // namespace
}  // namespace TARVO::SupportForm
