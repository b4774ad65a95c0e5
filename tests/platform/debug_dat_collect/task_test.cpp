#include "task.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>
#include <stdexcept>

#include "support_log_fixture.h"
#include "task_folder.h"
#include "task_process.h"

namespace {

constexpr long kNoEnd = std::numeric_limits<long>::max();
/// So often this process may still take memory from the heap.
std::atomic<long> allocations_left = kNoEnd;

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocations_left == kNoEnd || --allocations_left >= 0 ? malloc(size) : nullptr;
}
void* operator new(std::size_t size) {
  if (void* const memory = operator new(size, std::nothrow)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, std::size_t) noexcept { free(memory); }

namespace TARVO::SupportForm {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr int kIoprioWhoProcess = 1;
constexpr int kIoprioIdleClass = 3 << 13;

TEST(LowerPriorityTest, GivesWayInEveryRespectAndCommandsInheritIt) {
  const CallerProcess process([] {
    LowerPriority();
    return std::to_string(getpriority(PRIO_PROCESS, 0)) + " " +
           std::to_string(syscall(SYS_ioprio_get, kIoprioWhoProcess, 0)) + " " +
           ReadText("/proc/self/oom_score_adj");
  });
  EXPECT_EQ(process.Answer(), "19 " + std::to_string(kIoprioIdleClass) + " 1000\n");
}

TEST(LowerPriorityTest, CountsForTheWholeSessionWhereSessionsAreGroups) {
  if (ReadText("/proc/sys/kernel/sched_autogroup_enabled") != "1\n") {
    GTEST_SKIP() << "no groups of sessions here";
  }
  const CallerProcess process([] {
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
      const UniqueFd state = OpenStateFolder(paths_.state);
      const NewTask task = CreateTask(state.get());
      const Json::Value list = ParseJson(app_list);
      dup2(task.lock.get(), kTaskLockFd);
      prepare();
      static_cast<void>(RunTask(paths_, limits_, task.id, list));
      allocations_left = kNoEnd;
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

TEST_F(TaskTest, WhereverMemoryRunsOutThereIsTheCauseOrAnArchive) {
  // Each time the rules are made ready, which takes most of the memory.
  Describe("first", R"({"commands": [{"argv": ["sh", "-c", "kill -s USR1 $PPID"]}]})");
  Describe("second", R"({"paths": ["/etc/passwd"], "commands": [{"argv": ["echo"]}]})");
  const auto failure_of = [&](const std::function<void()>& prepare) {
    const fs::path folder = Run(R"(["first", "second"])", prepare);
    const UniqueFd folder_fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::string failure = ReadFailure(folder_fd.get());
    EXPECT_NE(fs::exists(folder / kArchiveFile), !failure.empty());
    EXPECT_FALSE(fs::exists(folder / kUnfinishedFile));
    return failure;
  };
  for (const long count : {0, 1, 10, 100, 1'000, 10'000}) {
    EXPECT_EQ(failure_of([count] { allocations_left = count; }), "memory ran out") << count;
  }
  static long count_then = 0;
  unsigned failed = 0;
  for (count_then = 150; failed < 1'000; count_then += count_then / 8) {
    const std::string failure =
        failure_of([] { static_cast<void>(signal(SIGUSR1, [](int) { allocations_left = count_then; })); });
    EXPECT_EQ(fs::exists(paths_.audit_log), failure.empty()) << "an archive that nobody knows of";
    if (failure.empty()) break;
    EXPECT_EQ(failure, "memory ran out") << count_then;
    ++failed;
  }
  EXPECT_GT(failed, 2U);
  EXPECT_LT(failed, 1'000U) << "no archive however much memory there is";
}

TEST_F(TaskTest, ThatItHasNotBegunIsNotSaidOfItAnyMore) {
  const fs::path folder = Run("[]", [] { WriteTaskRecord(kTaskLockFd, "it ended before it began"); });
  const UniqueFd folder_fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(ReadFailure(folder_fd.get()), "");
}

TEST_F(TaskTest, FailureIsRecordedThoughNoMemoryIsLeftToMaskItsText) {
  WriteText(folder_ / "lock", "");
  const CallerProcess process([&] {
    const UniqueFd lock(open((folder_ / "lock").c_str(), O_RDWR | O_CLOEXEC));
    dup2(lock.get(), kTaskLockFd);
    const std::runtime_error failure("a cause with too long a text to be kept where the string itself is");
    allocations_left = 0;
    RecordFailure(failure);
    allocations_left = kNoEnd;
    return std::string();
  });
  EXPECT_THAT(ReadText(folder_ / "lock"), HasSubstr("memory ran out"));
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
