#include "task_folder.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "api_error.h"
#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class TaskFolderTest : public SupportLogTest {
 protected:
  fs::path Folder(const std::string& id) const { return fs::path(paths_.state) / id; }

  /// A task whose process and caller have ended, with a file in its folder.
  std::string EndedTask(const std::string& file) {
    const UniqueFd state = OpenStateFolder(paths_.state);
    const NewTask task = CreateTask(state.get());
    WriteText(Folder(task.id) / file, "content");
    return task.id;
  }
  std::vector<std::string> Sweep() {
    const UniqueFd state = OpenStateFolder(paths_.state);
    return RemoveLeftovers(state.get());
  }
};

TEST_F(TaskFolderTest, StateFolderIsMadeForItsOwnerOnly) {
  umask(0);
  const UniqueFd state = OpenStateFolder(paths_.state);
  umask(022);
  EXPECT_EQ(ModeOf(paths_.state), 0700U);
  EXPECT_EQ(ModeOf(fs::path(paths_.state).parent_path()), 0755U);
}

TEST_F(TaskFolderTest, StateFolderThatOthersMayWriteToOrThatIsALinkIsRefused) {
  fs::create_directories(paths_.state);
  ASSERT_EQ(chmod(paths_.state.c_str(), 0770), 0);
  EXPECT_THROW(static_cast<void>(OpenStateFolder(paths_.state)), ApiError);
  fs::remove(paths_.state);
  fs::create_symlink(data_, paths_.state);
  EXPECT_THROW(static_cast<void>(OpenStateFolder(paths_.state)), ApiError);
}

TEST_F(TaskFolderTest, StateFolderBelowOneThatOthersMayChangeIsRefusedAndNothingMadeThere) {
  ASSERT_EQ(chmod(folder_.c_str(), 0777), 0);
  EXPECT_THAT([&] { static_cast<void>(OpenStateFolder(paths_.state)); },
              testing::ThrowsMessage<ApiError>(testing::HasSubstr("; chmod go-w " + folder_.string())));
  EXPECT_FALSE(fs::exists(fs::path(paths_.state).parent_path()));
}

TEST_F(TaskFolderTest, NeighbourWhoMayReadTheStateFolderCannotLockIt) {
  fs::create_directories(paths_.state);
  ASSERT_EQ(chmod(paths_.state.c_str(), 0755), 0);
  const UniqueFd neighbour(open(paths_.state.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(flock(neighbour.get(), LOCK_EX), 0);
  static_cast<void>(OpenStateFolder(paths_.state));
  EXPECT_TRUE(LockStateFolder(paths_.state, 0).valid());
  EXPECT_EQ(ModeOf(paths_.state + ".lock"), 0600U);
}

TEST_F(TaskFolderTest, NewTaskHasItsOwnFolderAndBothLocks) {
  const UniqueFd state = OpenStateFolder(paths_.state);
  const NewTask first = CreateTask(state.get());
  const NewTask second = CreateTask(state.get());
  EXPECT_TRUE(IsTaskId(first.id));
  EXPECT_NE(first.id, second.id);
  EXPECT_EQ(ModeOf(Folder(first.id)), 0700U);
  const UniqueFd folder = OpenTaskFolder(paths_.state, first.id);
  EXPECT_TRUE(IsHeld(folder.get(), kLockFile));
  EXPECT_TRUE(IsHeld(folder.get(), kOwnerFile));
}

TEST_F(TaskFolderTest, SharedTaskIsItsGroupsToReadAndOnceItsArchiveIsCompleteToDelete) {
  const UniqueFd state = OpenStateFolder(paths_.state);
  ShareStateFolder(state.get());
  const NewTask task = CreateTask(state.get());
  const UniqueFd folder = OpenTaskFolder(paths_.state, task.id);
  EXPECT_FALSE(IsShared(folder.get()));
  ShareTask(state.get(), task);
  EXPECT_TRUE(IsShared(folder.get()));
  EXPECT_EQ(ModeOf(paths_.state), 0750U);
  EXPECT_EQ(ModeOf(Folder(task.id)), 0750U);
  EXPECT_EQ(ModeOf(Folder(task.id) / kLockFile), 0640U);
  EXPECT_EQ(ModeOf(Folder(task.id) / kOwnerFile), 0640U);

  WriteText(Folder(task.id) / kArchiveFile, "content");
  ShareArchive(folder.get());
  EXPECT_EQ(ModeOf(Folder(task.id)), 0770U);
  EXPECT_EQ(ModeOf(Folder(task.id) / kArchiveFile), 0640U);
}

TEST_F(TaskFolderTest, SharedTaskGoesToTheGroupOfTheProcessWhateverGroupItWasOf) {
  if (geteuid() != 0) GTEST_SKIP() << "only root has other groups for sure";
  const auto group_of = [](const fs::path& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_gid : 0;
  };
  static_cast<void>(OpenStateFolder(paths_.state));
  const CallerProcess collector([&] {
    EXPECT_EQ(setegid(65534), 0);
    const UniqueFd state = OpenStateFolder(paths_.state);
    ShareStateFolder(state.get());
    const NewTask task = CreateTask(state.get());
    ShareTask(state.get(), task);
    return task.id;
  });
  EXPECT_EQ(group_of(paths_.state), 65534U);
  EXPECT_EQ(group_of(Folder(collector.Answer())), 65534U);
  EXPECT_EQ(group_of(Folder(collector.Answer()) / kLockFile), 65534U);
}

TEST_F(TaskFolderTest, ArchiveThatIsNoFileIsNotShared) {
  const UniqueFd state = OpenStateFolder(paths_.state);
  const NewTask task = CreateTask(state.get());
  ShareTask(state.get(), task);
  WriteText(data_ / "precious", "x");
  ASSERT_EQ(chmod((data_ / "precious").c_str(), 0600), 0);
  fs::create_symlink(data_ / "precious", Folder(task.id) / kArchiveFile);
  const UniqueFd folder = OpenTaskFolder(paths_.state, task.id);
  EXPECT_THROW(ShareArchive(folder.get()), ApiError);
  EXPECT_EQ(ModeOf(data_ / "precious"), 0600U);
  EXPECT_EQ(ModeOf(Folder(task.id)), 0750U);
}

TEST_F(TaskFolderTest, WhoGetsTheOwnersLockCannotWriteWithIt) {
  const UniqueFd state = OpenStateFolder(paths_.state);
  const NewTask task = CreateTask(state.get());
  EXPECT_EQ(fcntl(task.owner.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
}

TEST_F(TaskFolderTest, AllTaskFoldersAreCountedAndNothingElse) {
  const UniqueFd state = OpenStateFolder(paths_.state);
  EXPECT_EQ(CountTasks(state.get()), 0U);
  static_cast<void>(CreateTask(state.get()));
  EndedTask(kArchiveFile);
  WriteText(Folder("README"), "x");
  EXPECT_EQ(CountTasks(state.get()), 2U);
}

TEST_F(TaskFolderTest, LockIsFreeOnceItsHolderHasEnded) {
  std::string id;
  {
    const CallerProcess holder([&] {
      const UniqueFd state = OpenStateFolder(paths_.state);
      auto* kept = new NewTask(CreateTask(state.get()));
      return kept->id;
    });
    id = holder.Answer();
    const UniqueFd folder = OpenTaskFolder(paths_.state, id);
    EXPECT_TRUE(IsHeld(folder.get(), kLockFile));
  }
  const UniqueFd folder = OpenTaskFolder(paths_.state, id);
  EXPECT_FALSE(IsHeld(folder.get(), kLockFile));
  EXPECT_FALSE(IsHeld(folder.get(), "missing"));
}

TEST_F(TaskFolderTest, FoldersOfLiveTasksAndOfArchivesWithAnOwnerStay) {
  const UniqueFd state = OpenStateFolder(paths_.state);
  NewTask running = CreateTask(state.get());
  running.owner.Close();
  NewTask finished = CreateTask(state.get());
  finished.lock.Close();
  WriteText(Folder(finished.id) / "debug.dat", "archive");
  EXPECT_THAT(Sweep(), IsEmpty());
  EXPECT_TRUE(fs::exists(Folder(finished.id) / "debug.dat"));

  finished.owner.Close();
  EXPECT_THAT(Sweep(), ElementsAre(finished.id));
  EXPECT_FALSE(fs::exists(Folder(finished.id)));
  EXPECT_TRUE(fs::exists(Folder(running.id)));
}

TEST_F(TaskFolderTest, EndedTaskWithoutAnArchiveIsRemovedThoughItsOwnerLives) {
  const UniqueFd state = OpenStateFolder(paths_.state);
  NewTask task = CreateTask(state.get());
  task.lock.Close();
  WriteText(Folder(task.id) / "debug.dat.part", "half an archive");
  EXPECT_THAT(Sweep(), ElementsAre(task.id));
}

TEST_F(TaskFolderTest, RecordTellsWhyATaskFailedAndALongTextIsCut) {
  const UniqueFd state = OpenStateFolder(paths_.state);
  const NewTask task = CreateTask(state.get());
  const UniqueFd folder = OpenTaskFolder(paths_.state, task.id);
  EXPECT_EQ(ReadFailure(folder.get()), "") << "the process has not begun";
  WriteTaskRecord(task.lock.get());
  EXPECT_EQ(ReadFailure(folder.get()), "");
  WriteTaskRecord(task.lock.get(), "no room:\n" + std::string(10'000, 'x'));
  EXPECT_THAT(ReadFailure(folder.get()), testing::MatchesRegex("no room:\nx+"));
  EXPECT_EQ(fs::file_size(Folder(task.id) / kLockFile), 4096U);
  WriteTaskRecord(task.lock.get(), "no memory");
  EXPECT_EQ(ReadFailure(folder.get()), "no memory");
  WriteTaskRecord(task.lock.get());
  EXPECT_EQ(ReadFailure(folder.get()), "");
}

TEST_F(TaskFolderTest, HalfRemovedFolderIsRemoved) {
  const std::string id = EndedTask("debug.dat");
  fs::remove(Folder(id) / kLockFile);
  fs::remove(Folder(id) / kOwnerFile);
  EXPECT_THAT(Sweep(), ElementsAre(id));
}

TEST_F(TaskFolderTest, EveryFileThatATaskMayLeaveIsRemoved) {
  const std::string id = EndedTask("debug.dat");
  for (const char* name : {"debug.dat.part", "progress", "progress.new", "spool"}) {
    WriteText(Folder(id) / name, "x");
  }
  EXPECT_THAT(Sweep(), ElementsAre(id));
  EXPECT_FALSE(fs::exists(Folder(id)));
}

TEST_F(TaskFolderTest, ForeignThingsAreLeftAlone) {
  const std::string with_foreign_file = EndedTask("my-notes.txt");
  const std::string link(32, 'b');
  WriteText(data_ / "debug.dat", "precious");
  fs::create_symlink(data_, Folder(link));
  WriteText(Folder("README"), "x");
  WriteText(Folder("other") / "debug.dat", "x");
  WriteText(Folder(std::string(32, 'c')), "a file with a task's name");
  EXPECT_THAT(Sweep(), IsEmpty());
  EXPECT_TRUE(fs::exists(Folder(with_foreign_file) / "my-notes.txt"));
  EXPECT_EQ(ReadText(data_ / "debug.dat"), "precious");
  EXPECT_TRUE(fs::exists(Folder("README")));
  EXPECT_TRUE(fs::exists(Folder("other") / "debug.dat"));
  EXPECT_TRUE(fs::exists(Folder(std::string(32, 'c'))));
}

TEST_F(TaskFolderTest, LinkInPlaceOfTheArchiveIsRemovedAndNotItsTarget) {
  const std::string id = EndedTask("progress");
  WriteText(data_ / "precious", "x");
  fs::create_symlink(data_ / "precious", Folder(id) / "debug.dat");
  EXPECT_THAT(Sweep(), ElementsAre(id));
  EXPECT_TRUE(fs::exists(data_ / "precious"));
}

TEST_F(TaskFolderTest, LockedStateFolderIsWaitedForAndNotForever) {
  static_cast<void>(OpenStateFolder(paths_.state));
  const UniqueFd holder = LockStateFolder(paths_.state, 0);
  EXPECT_THROW(static_cast<void>(LockStateFolder(paths_.state, 50)), ApiError);
}

TEST(TaskIdTest, Is32LowerCaseHexDigits) {
  EXPECT_TRUE(IsTaskId("0123456789abcdef0123456789abcdef"));
  for (const char* text : {"", "0123456789abcdef0123456789abcde", "0123456789abcdef0123456789abcdef0",
                           "0123456789ABCDEF0123456789abcdef", "0123456789abcdef0123456789abcde/", ".."}) {
    EXPECT_FALSE(IsTaskId(text)) << text;
  }
}

TEST_F(TaskFolderTest, FolderThatCantBeJudgedStaysAndDoesNotKeepOthersFromBeingRemoved) {
  const std::string broken = EndedTask(kProgressFile);
  const std::string other = EndedTask(kProgressFile);
  // A socket can't be opened, so nobody can tell whether it is locked.
  ASSERT_EQ(unlink((Folder(broken) / kLockFile).c_str()), 0);
  ASSERT_EQ(mknod((Folder(broken) / kLockFile).c_str(), S_IFSOCK | 0600, 0), 0);
  EXPECT_THAT(Sweep(), ElementsAre(other));
  EXPECT_TRUE(fs::exists(Folder(broken)));
}

}  // namespace
}  // namespace TARVO::SupportForm
