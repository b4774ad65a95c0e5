#include "support_form_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <list>
#include <thread>

#include "api_error.h"
#include "collector_launch.h"
#include "file_util.h"
#include "support_log_fixture.h"
#include "task.h"
#include "task_folder.h"

namespace TARVO::SupportForm {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class SupportFormLogTest : public SupportLogTest {
 protected:
  void SetUp() override {
    WriteText(gate_, "");
    Describe("slow", R"({"paths": [")" + (data_ / "*.log").string() + R"("], "commands": [)" +
                         GateCommand(gate_) + "]}");
    WriteText(data_ / "a.log", "a line\n");
    Describe("quick", R"({"paths": [")" + (data_ / "a.log").string() + R"("]})");
  }

  /// Does the collector's work in the forked process, with limits of a test's own.
  static TaskWork Forked(const Limits& limits) {
    return [limits](const Paths& paths, const std::string& task_id, const Json::Value& app_list) {
      return RunTask(paths, limits, task_id, app_list);
    };
  }

  /// The same where the archive can't be written.
  static TaskWork Failing(const Limits& limits) {
    return [limits](const Paths& paths, const std::string& task_id, const Json::Value& app_list) {
      LimitFileSize();
      return RunTask(paths, limits, task_id, app_list);
    };
  }

  static std::string Start(SupportFormLog& log, const std::string& app) {
    Json::Value params(Json::objectValue);
    params["app_list"].append(app);
    return log.Collect(params)["task_id"].asString();
  }
  std::string Start(const std::string& app) { return Start(log_, app); }

  Json::Value Status(const std::string& task) const {
    Json::Value params(Json::objectValue);
    params["task_id"] = task;
    return log_.Status(params);
  }
  /// The error code of "status", at the task's end at the latest; 0 when it is no error.
  int StatusError(const std::string& task, std::string* message = nullptr) const {
    try {
      WaitForArchive(task);
      return 0;
    } catch (const ApiError& error) {
      if (message != nullptr) *message = error.what();
      return static_cast<int>(error.code);
    }
  }
  void WaitForEnd(const std::string& task) const {
    EXPECT_TRUE(Eventually([&] { return !Alive(task); }));
  }
  /// What is said of a task that lacked something: the manifest's errors, or why there is no archive.
  std::string Told(const std::string& task) const {
    WaitForEnd(task);
    std::string told;
    const int code = StatusError(task, &told);
    EXPECT_TRUE(code == 0 || code == static_cast<int>(ApiErrorCode::kTaskFailed)) << told;
    EXPECT_FALSE(fs::exists(Folder(task) / kUnfinishedFile));
    if (code != 0) return told;
    for (const std::string& error : ReadArchive(WaitForArchive(task)).Errors()) told += error + "\n";
    return told;
  }
  /// Bytes of this process's address space.
  static rlim_t AddressSpace() {
    return std::strtoul(ReadText("/proc/self/statm").c_str(), nullptr, 10) *
           static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
  }
  /// Waits for a task to end well, and gives the archive's path.
  std::string WaitForArchive(const std::string& task) const {
    Json::Value status;
    EXPECT_TRUE(Eventually([&] {
      status = Status(task);
      return status["finished"].asBool();
    }));
    return status["path"].asString();
  }

  [[nodiscard]] fs::path Folder(const std::string& task) const { return fs::path(paths_.state) / task; }
  [[nodiscard]] bool Alive(const std::string& task) const {
    const UniqueFd folder = OpenTaskFolder(paths_.state, task);
    return folder.valid() && IsHeld(folder.get(), kLockFile);
  }
  /// The process of a task, once it has begun.
  [[nodiscard]] pid_t Pid(const std::string& task) const {
    long pid = 0;
    EXPECT_TRUE(Eventually(
        [&] { return (pid = std::strtol(ReadText(Folder(task) / kLockFile).c_str(), nullptr, 10)) > 0; }));
    return static_cast<pid_t>(pid);
  }
  void Kill(const std::string& task) const {
    ASSERT_EQ(kill(Pid(task), SIGKILL), 0);
    ASSERT_TRUE(Eventually([&] { return !Alive(task); }));
  }
  void OpenGate() const { fs::remove(gate_); }

  fs::path gate_ = data_ / "gate";
  SupportFormLog log_{paths_, limits_, Forked(limits_)};
};

TEST_F(SupportFormLogTest, CollectGivesATaskAndStatusThePathOfItsArchive) {
  const std::string task = Start("quick");
  EXPECT_TRUE(IsTaskId(task));
  const std::string path = WaitForArchive(task);
  EXPECT_EQ(path, paths_.state + "/" + task + "/debug.dat");
  const ArchiveContent archive = ReadArchive(path);
  EXPECT_EQ(archive.Of("apps/quick/files" + (data_ / "a.log").string()), "a line\n");
  EXPECT_EQ(archive.ManifestJson()["task_id"].asString(), task);
  EXPECT_EQ(ModeOf(Folder(task)), 0700U);
  EXPECT_EQ(ModeOf(path), 0600U);
}

TEST_F(SupportFormLogTest, FinishedTaskIsAnsweredAgainAndAgain) {
  const std::string task = Start("quick");
  const std::string path = WaitForArchive(task);
  EXPECT_EQ(WaitForArchive(task), path);
}

TEST_F(SupportFormLogTest, CollectDoesNotWaitForTheTask) {
  const std::string task = Start("slow");
  EXPECT_TRUE(Alive(task));
  EXPECT_FALSE(fs::exists(Folder(task) / "debug.dat"));
  OpenGate();
  WaitForArchive(task);
}

TEST_F(SupportFormLogTest, StatusAnswersAsSoonAsTheTaskEnds) {
  limits_.status_wait_ms = 60'000;
  SupportFormLog patient(paths_, limits_, Forked(limits_));
  Json::Value params(Json::objectValue);
  params["task_id"] = Start(patient, "slow");
  std::thread opener([&] {
    SleepMs(300);
    OpenGate();
  });
  const Json::Value status = patient.Status(params);
  opener.join();
  EXPECT_EQ(status["finished"], Json::Value(true));
}

TEST_F(SupportFormLogTest, StatusOfALongTaskWaitsFiveSecondsAndTellsItsProgress) {
  const std::string task = Start("slow");
  const std::int64_t begin = MonotonicMs();
  const Json::Value status = Status(task);
  EXPECT_GE(MonotonicMs() - begin, 4'900);
  EXPECT_EQ(status["finished"], Json::Value(false));
  EXPECT_GT(status["bytes"].asUInt64(), 0U);
  EXPECT_GE(status["files"].asUInt64(), 9U);
  EXPECT_FALSE(status.isMember("path"));
  OpenGate();
  WaitForArchive(task);
}

TEST_F(SupportFormLogTest, ProgressFileAdvancesToTheArchivesTotals) {
  const std::string task = Start("slow");
  ASSERT_TRUE(Eventually(
      [&] { return ReadText(Folder(task) / "progress").find("\"files\":10") != std::string::npos; }));
  OpenGate();
  const Json::Value totals = ReadArchive(WaitForArchive(task)).ManifestJson()["totals"];
  const Json::Value progress = ParseJson(ReadText(Folder(task) / "progress"));
  EXPECT_EQ(progress["files"].asUInt64(), totals["entries"].asUInt64() + 1);  // and the manifest
  EXPECT_GT(progress["bytes"].asUInt64(), totals["bytes"].asUInt64());
}

TEST_F(SupportFormLogTest, UnknownAndMalformedTasksAreErrors) {
  EXPECT_EQ(StatusError(std::string(32, '0')), static_cast<int>(ApiErrorCode::kUnknownTask));
  EXPECT_EQ(StatusError("../" + std::string(29, '0')), static_cast<int>(ApiErrorCode::kBadParameters));
  EXPECT_EQ(StatusError(""), static_cast<int>(ApiErrorCode::kBadParameters));
  EXPECT_FALSE(fs::exists(paths_.state)) << "a question makes no folders";
}

TEST_F(SupportFormLogTest, KilledTaskIsAnError) {
  const std::string task = Start("slow");
  Kill(task);
  EXPECT_EQ(StatusError(task), static_cast<int>(ApiErrorCode::kTaskKilled));
}

TEST_F(SupportFormLogTest, TaskKilledDuringTheWaitIsAnError) {
  const std::string task = Start("slow");
  const pid_t pid = Pid(task);
  std::thread killer([&] {
    SleepMs(300);
    kill(pid, SIGKILL);
  });
  EXPECT_EQ(StatusError(task), static_cast<int>(ApiErrorCode::kTaskKilled));
  killer.join();
}

TEST_F(SupportFormLogTest, FailedTaskIsAnErrorWithItsReason) {
  WriteText(data_ / "a.log", RandomLetters(100'000));
  SupportFormLog broken(paths_, limits_, Failing(limits_));
  const std::string task = Start(broken, "quick");
  std::string message;
  EXPECT_EQ(StatusError(task, &message), static_cast<int>(ApiErrorCode::kTaskFailed));
  EXPECT_THAT(message, HasSubstr("File too large"));
  EXPECT_FALSE(fs::exists(Folder(task) / "debug.dat"));
}

TEST_F(SupportFormLogTest, CollectorThatCantBeStartedIsAFailedTask) {
  const std::string program = (folder_ / "no-such-program").string();
  SupportFormLog lost(paths_, limits_,
                      [&](const Paths& /*paths*/, const std::string& id, const Json::Value& list) {
                        return BecomeProgram(program, id, list);
                      });
  const std::string task = Start(lost, "quick");
  std::string message;
  EXPECT_EQ(StatusError(task, &message), static_cast<int>(ApiErrorCode::kTaskFailed));
  EXPECT_EQ(message, "the collector " + program + " can't be started: No such file or directory");
}

TEST_F(SupportFormLogTest, CollectorIsTheOneBesideTheFileThatHoldsThisCode) {
  // By a task's id that is longer than any argument may be, so that none is started.
  SupportFormLog log(paths_, limits_,
                     [](const Paths& paths, const std::string& /*id*/, const Json::Value& list) {
                       return BecomeCollector(paths, std::string(200'000, 'a'), list);
                     });
  std::string message;
  StatusError(Start(log, "quick"), &message);
  const fs::path started_as = program_invocation_name;
  const fs::path own = started_as.is_absolute() ? started_as : fs::read_symlink("/proc/self/exe");
  EXPECT_THAT(message, StartsWith("the collector " + (own.parent_path() / "debug_dat_collect").string() +
                                  " can't be started: "));
}

TEST_F(SupportFormLogTest, CollectorFindsItsTaskTheListAndNothingOfTheCallers) {
  // The shell has descriptors of its own from 10 on.
  const fs::path program = folder_ / "bin" / "collector";
  const fs::path seen = folder_ / "seen";
  Program("collector",
          "ls /proc/$$/fd >" + seen.string() +
              ".fds\n" +  // not in a pipe, which the shell has open meanwhile
              "{ echo \"$0 $*\"; cat; echo; grep -x . " + seen.string() +
              ".fds | tr '\\n' ' '; tr '\\0' ' ' </proc/$$/environ; } >" + seen.string() + ".part\nmv " +
              seen.string() + ".part " + seen.string());
  setenv("LEFT_OVER", "1", 1);
  SupportFormLog log(paths_, limits_,
                     [&](const Paths& /*paths*/, const std::string& id, const Json::Value& list) {
                       return BecomeProgram(program.string(), id, list);
                     });
  const std::string task = Start(log, "quick");
  ASSERT_TRUE(Eventually([&] { return fs::exists(seen); }));
  EXPECT_EQ(ReadText(seen), program.string() + " --task " + task + "\n[\"quick\"]\n0 1 2 3 ");
  unsetenv("LEFT_OVER");
}

TEST_F(SupportFormLogTest, CollectorThatEndsBeforeItBeginsIsAFailedTask) {
  Program("collector", "exit 127");  // as where it lacks a library
  const std::string program = (folder_ / "bin" / "collector").string();
  SupportFormLog lost(paths_, limits_,
                      [&](const Paths& /*paths*/, const std::string& id, const Json::Value& list) {
                        return BecomeProgram(program, id, list);
                      });
  const std::string task = Start(lost, "quick");
  WaitForEnd(task);
  std::string message;
  EXPECT_EQ(StatusError(task, &message), static_cast<int>(ApiErrorCode::kTaskFailed));
  EXPECT_EQ(message, "the collector " + program + " ended before it began its work: see whether " + program +
                         " --help runs");
}

TEST_F(SupportFormLogTest, HangingTaskIsEndedAndTheCauseIsTold) {
  limits_.task_seconds_hard = 1;
  SupportFormLog short_lived(paths_, limits_, Forked(limits_));
  const std::string task = Start(short_lived, "slow");
  WaitForEnd(task);
  std::string message;
  EXPECT_EQ(StatusError(task, &message), static_cast<int>(ApiErrorCode::kTaskFailed));
  EXPECT_THAT(message, StartsWith("the collection took too long: it was ended after 1 seconds"));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which want memory and descriptors, too
TEST_F(SupportFormLogTest, WithFewDescriptorsThereIsAnArchiveThatSaysSoOrTheCauseIsTold) {
  for (const rlim_t count : {4U, 5U, 6U, 8U}) {
    SupportFormLog scarce(paths_, limits_,
                          [&](const Paths& paths, const std::string& id, const Json::Value& list) {
                            const rlimit limit = {count, count};
                            setrlimit(RLIMIT_NOFILE, &limit);
                            return RunTask(paths, limits_, id, list);
                          });
    EXPECT_THAT(Told(Start(scarce, "quick")), HasSubstr("Too many open files")) << count;
  }
}

TEST_F(SupportFormLogTest, CallerWithFewDescriptorsIsToldSoAndNothingIsLeft) {
  for (const rlim_t count : {4U, 6U, 7U, 8U}) {
    const CallerProcess caller([&] {
      const rlimit limit = {count, count};
      setrlimit(RLIMIT_NOFILE, &limit);
      return Start("quick");
    });
    EXPECT_THAT(caller.Answer(), AllOf(StartsWith("exception: "), HasSubstr("Too many open files"))) << count;
    EXPECT_TRUE(!fs::exists(paths_.state) || fs::is_empty(paths_.state)) << "something is left";
  }
}

TEST_F(SupportFormLogTest, WithoutMemoryThereIsAnArchiveThatSaysSoOrTheCauseIsTold) {
  const auto told = [&](rlim_t mebibytes) {
    SupportFormLog scarce(paths_, limits_,
                          [&](const Paths& paths, const std::string& id, const Json::Value& list) {
                            const rlim_t bytes = AddressSpace() + (mebibytes << 20U);
                            const rlimit limit = {bytes, bytes};
                            setrlimit(RLIMIT_AS, &limit);
                            return RunTask(paths, limits_, id, list);
                          });
    return Told(Start(scarce, "quick"));
  };
  EXPECT_THAT(told(1), testing::ContainsRegex("memory|thread"));
  for (const rlim_t mebibytes : {10U, 40U}) {  // enough for some machines
    EXPECT_THAT(told(mebibytes), AnyOf("", testing::ContainsRegex("memory|thread"))) << mebibytes;
  }
}
#endif

TEST_F(SupportFormLogTest, CauseIsToldThoughNoByteIsFreeOnTheDevice) {
  const CallerProcess caller([&]() -> std::string {
    if (!MountOwnTmpfs(paths_.state, "size=1m,mode=0700")) return "no namespace";
    SupportFormLog full(paths_, limits_,
                        [&](const Paths& paths, const std::string& id, const Json::Value& list) {
                          FillDevice(paths.state);
                          return RunTask(paths, limits_, id, list);
                        });
    std::string message;
    const std::string task = Start(full, "quick");
    const int code = StatusError(task, &message);
    return std::to_string(code) + " " + message + (fs::exists(Folder(task) / kUnfinishedFile) ? " left" : "");
  });
  if (caller.Answer() == "no namespace") GTEST_SKIP() << "no private mounts here";
  EXPECT_THAT(caller.Answer(), testing::MatchesRegex("7 .*No space left on device"));
}

TEST_F(SupportFormLogTest, FileSizeLimitOfTheCallerIsMetLikeAFullDeviceAndByNoSignal) {
  const auto collect = [&](rlim_t bytes) {
    return CallerProcess([&]() -> std::string {
             const rlimit limit = {bytes, bytes};
             setrlimit(RLIMIT_FSIZE, &limit);
             const ArchiveContent archive = ReadArchive(WaitForArchive(Start("quick")));
             return std::to_string(archive.entries.size()) + " " + archive.Of("manifest.json");
           })
        .Answer();
  };
  for (const rlim_t bytes : {0U, 100U, 4095U}) {
    EXPECT_THAT(collect(bytes), AllOf(StartsWith("exception: "), HasSubstr("File too large"))) << bytes;
    EXPECT_TRUE(fs::is_empty(paths_.state)) << "something is left";
  }
  EXPECT_THAT(collect(4096), AllOf(StartsWith("1 {"), HasSubstr("may write no file of more than 4096 bytes"),
                                   HasSubstr("a.log")));
}

TEST_F(SupportFormLogTest, FullDiskGivesAManifestThatSaysSo) {
  const CallerProcess caller([&]() -> std::string {
    if (!MountOwnTmpfs(paths_.state, "size=1m,mode=0700")) return "no namespace";
    const ArchiveContent archive = ReadArchive(WaitForArchive(Start("quick")));
    return std::to_string(archive.entries.size()) + " " + archive.Of("manifest.json");
  });
  if (caller.Answer() == "no namespace") GTEST_SKIP() << "no private mounts here";
  EXPECT_THAT(caller.Answer(), StartsWith("1 {"));
  EXPECT_THAT(caller.Answer(),
              testing::ContainsRegex("left out for want of space: 1[0-9]{6} bytes are free on the "
                                     "device, and 67108864 must remain"));
  EXPECT_THAT(caller.Answer(), HasSubstr("/a.log\""));
}

TEST_F(SupportFormLogTest, TaskOutlivesItsCaller) {
  std::string task;
  {
    const CallerProcess caller([&] { return Start("slow"); });
    task = caller.Answer();
  }
  ASSERT_TRUE(Alive(task));
  OpenGate();
  EXPECT_TRUE(ReadArchive(WaitForArchive(task)).Has("manifest.json"));
}

TEST_F(SupportFormLogTest, TaskIsNoChildOfItsCallerAndBecomesNoZombieOfIt) {
  const std::string task = Start("quick");
  WaitForArchive(task);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(SupportFormLogTest, CallerKeepsOnlyTheOwnersLock) {
  const auto open_descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const auto before = open_descriptors();
  for (int round = 0; round < 4; ++round) {
    const std::string path = WaitForArchive(Start("quick"));
    EXPECT_EQ(open_descriptors(), before + 1) << "round " << round;
    fs::remove(path);
  }
}

TEST_F(SupportFormLogTest, TwoTasksAtOnceDoNotDisturbEachOther) {
  WriteText(data_ / "b.log", "b line\n");
  Describe("other", R"({"paths": [")" + (data_ / "b.log").string() + R"("], "commands": [)" +
                        GateCommand(gate_) + "]}");
  const std::string first = Start("slow");
  const std::string second = Start("other");
  EXPECT_TRUE(Alive(first) && Alive(second));
  OpenGate();
  const ArchiveContent one = ReadArchive(WaitForArchive(first));
  const ArchiveContent two = ReadArchive(WaitForArchive(second));
  EXPECT_TRUE(one.Has("apps/slow/files" + (data_ / "a.log").string()));
  EXPECT_TRUE(two.Has("apps/other/files" + (data_ / "b.log").string()));
  EXPECT_FALSE(two.Has("apps/slow/files" + (data_ / "a.log").string()));
}

TEST_F(SupportFormLogTest, ManySimultaneousCallersAllGetTheirArchives) {
  constexpr int kCallers = 8;
  constexpr int kRounds = 5;
  std::list<test_support::ChildProcess> callers;
  for (int i = 0; i < kCallers; ++i) {
    callers.emplace_back([&] {
      int good = 0;
      for (int round = 0; round < kRounds; ++round) {
        const std::string path = WaitForArchive(Start("quick"));
        good += fs::exists(path) ? 1 : 0;
        fs::remove(path);
      }
      return good == kRounds ? 0 : 1;
    });
  }
  for (auto& caller : callers) EXPECT_THAT(caller.WaitForEnd(), test_support::ExitedWith(0));
}

TEST_F(SupportFormLogTest, CollectWaitsForAnotherThatIsStillStartingButNotForever) {
  static_cast<void>(OpenStateFolder(paths_.state));
  UniqueFd other = LockStateFolder(paths_.state, 0);
  limits_.prepare_wait_ms = 100;
  SupportFormLog second(paths_, limits_, Forked(limits_));
  EXPECT_THROW(Start(second, "quick"), ApiError);
  EXPECT_TRUE(fs::is_empty(paths_.state));

  std::thread starter([&] {
    SleepMs(200);
    other.Close();
  });
  const std::string task = Start("quick");
  starter.join();
  WaitForArchive(task);
}

TEST_F(SupportFormLogTest, NextCollectRemovesKilledFailedAndTakenTasks) {
  WriteText(data_ / "a.log", RandomLetters(100'000));
  SupportFormLog broken(paths_, limits_, Failing(limits_));
  const std::string failed = Start(broken, "quick");
  EXPECT_EQ(StatusError(failed), static_cast<int>(ApiErrorCode::kTaskFailed));
  const std::string killed = Start("slow");
  Kill(killed);
  const std::string taken = Start("quick");
  fs::remove(WaitForArchive(taken));

  const std::string next = Start("quick");
  for (const std::string& task : {failed, killed, taken}) {
    EXPECT_FALSE(fs::exists(Folder(task)));
    EXPECT_EQ(StatusError(task), static_cast<int>(ApiErrorCode::kUnknownTask));
  }
  WaitForArchive(next);
}

TEST_F(SupportFormLogTest, NextCollectKeepsTheArchiveOfALiveCallerAndRemovesItOnceTheCallerEnded) {
  auto caller = std::make_unique<CallerProcess>([&] {
    std::string task = Start("quick");
    WaitForArchive(task);
    return task;
  });
  const std::string task = caller->Answer();
  WaitForArchive(Start("quick"));
  EXPECT_TRUE(fs::exists(Folder(task) / "debug.dat"));

  caller.reset();
  WaitForArchive(Start("quick"));
  EXPECT_FALSE(fs::exists(Folder(task)));
}

TEST_F(SupportFormLogTest, NextCollectOfTheSameCallerKeepsItsFormerArchive) {
  const std::string path = WaitForArchive(Start("quick"));
  WaitForArchive(Start("quick"));
  EXPECT_TRUE(fs::exists(path));
}

TEST_F(SupportFormLogTest, RunningTaskOfAnEndedCallerIsKept) {
  std::string task;
  {
    const CallerProcess caller([&] { return Start("slow"); });
    task = caller.Answer();
  }
  WaitForArchive(Start("quick"));
  EXPECT_TRUE(Alive(task));
  OpenGate();
  WaitForArchive(task);
}

TEST_F(SupportFormLogTest, CollectRefusesAListThatIsNoneAndAFolderOfOthers) {
  EXPECT_THROW(log_.Collect(ParseJson("{}")), ApiError);
  EXPECT_THROW(log_.Collect(ParseJson(R"({"app_list": {"a": 1}})")), ApiError);
  fs::create_directories(paths_.state);
  ASSERT_EQ(chmod(paths_.state.c_str(), 0777), 0);
  EXPECT_THROW(Start("quick"), ApiError);
}

TEST_F(SupportFormLogTest, StatusWithoutPatienceAnswersAtOnceAndHasNumbersFromTheStart) {
  const std::string task = Start("slow");
  Json::Value params(Json::objectValue);
  params["task_id"] = task;
  limits_.status_wait_ms = 0;
  const Json::Value status = SupportFormLog(paths_, limits_, Forked(limits_)).Status(params);
  EXPECT_EQ(status["finished"], Json::Value(false));
  EXPECT_TRUE(status["bytes"].isUInt64());
  EXPECT_TRUE(status["files"].isUInt64());
  OpenGate();
  WaitForArchive(task);
}

}  // namespace
}  // namespace TARVO::SupportForm
