#include "task.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support_log_fixture.h"
#include "task_folder.h"
#include "task_process.h"

namespace TARVO::SupportForm {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr int kIoprioWhoProcess = 1;
constexpr int kIoprioIdleClass = 3 << 13;

TEST(LowerPriorityTest, GivesWayInEveryRespectAndCommandsInheritIt) {
  const CallerProcess process([] {
    setsid();  // The session of whoever runs the tests keeps its own priority.
    LowerPriority();
    return std::to_string(getpriority(PRIO_PROCESS, 0)) + " " +
           std::to_string(syscall(SYS_ioprio_get, kIoprioWhoProcess, 0)) + " " +
           ReadText("/proc/self/oom_score_adj");
  });
  EXPECT_EQ(process.Answer(), "19 " + std::to_string(kIoprioIdleClass) + " 1000\n");
}

TEST(LowerPriorityTest, CountsForTheWholeSessionWhereSessionsAreGroups) {
  if (ReadText("/proc/sys/kernel/sched_autogroup_enabled") != "1\n")
    GTEST_SKIP() << "no groups of sessions here";
  const CallerProcess process([] {
    setsid();
    LowerPriority();
    return ReadText("/proc/self/autogroup");
  });
  EXPECT_THAT(process.Answer(), HasSubstr(" nice 19\n"));
}

class TaskTest : public SupportLogTest {
 protected:
  /// Runs a task in a process of its own. Returns its folder.
  fs::path Run(
      const std::string& app_list, const std::function<void()>& prepare = [] {}) {
    const CallerProcess process([&]() -> std::string {
      setsid();  // The session of whoever runs the tests keeps its own priority.
      const UniqueFd state = OpenStateFolder(paths_.state);
      const NewTask task = CreateTask(state.get());
      prepare();
      dup2(task.lock.get(), kTaskLockFd);
      static_cast<void>(RunTask(paths_, limits_, task.id, ParseJson(app_list)));
      return task.id;
    });
    return fs::path(paths_.state) / process.Answer();
  }
};

TEST_F(TaskTest, LeavesALineInTheAuditLogWithTheArchivesSumAndNoToken) {
  Describe("demo", "{}");
  const fs::path folder = Run(R"(["demo", {"token": "s3cret"}])");
  const std::string log = ReadText(paths_.audit_log);
  const Json::Value line = ParseJson(log);
  EXPECT_THAT(log, HasSubstr(Sha256Of(ReadText(folder / kArchiveFile))));
  EXPECT_THAT(log, HasSubstr("demo"));
  EXPECT_THAT(log, HasSubstr(folder.filename().string()));
  EXPECT_THAT(log, Not(HasSubstr("s3cret")));
  struct stat status = {};
  ASSERT_EQ(stat(paths_.audit_log.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(TaskTest, RunsItselfAndItsCommandsAtTheLowestPriority) {
  Describe("demo", R"({"commands": [{"argv": ["nice"]}]})");
  EXPECT_EQ(ReadArchive(Run(R"(["demo"])") / kArchiveFile).Of("apps/demo/commands/01-nice.txt"), "19\n");
}

TEST_F(TaskTest, AuditLogThatCanNotBeWrittenCostsNoArchive) {
  paths_.audit_log = folder_ / "missing" / "audit.log";
  EXPECT_TRUE(fs::exists(Run("[]") / kArchiveFile));
}

TEST_F(TaskTest, FailedTaskLeavesItsReasonAndNoLine) {
  WriteText(data_ / "a.log", RandomLetters(100'000));
  Describe("demo", R"({"paths": [")" + (data_ / "a.log").string() + R"("]})");
  const fs::path folder = Run(R"(["demo"])", [] { LimitFileSize(); });
  const UniqueFd folder_fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_THAT(ReadFailure(folder_fd.get()), HasSubstr("File too large"));
  EXPECT_FALSE(fs::exists(folder / kArchiveFile));
  EXPECT_FALSE(fs::exists(paths_.audit_log));
}

}  // namespace
}  // namespace TARVO::SupportForm
