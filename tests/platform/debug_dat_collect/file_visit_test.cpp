#include "file_visit.h"

#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "file_util.h"
#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// Whether a folder belongs neither to root nor to the test's own user, as in a user namespace.
bool AnotherUserOwns(const char* path) {
  struct stat status = {};
  return stat(path, &status) != 0 || (status.st_uid != 0 && status.st_uid != geteuid());
}

class FileVisitTest : public SupportLogTest, private FileVisitor {
 protected:
  void Visit(const std::string& pattern) { VisitMatches(data_ / pattern, limits_, *this); }
  [[nodiscard]] std::string Relative(const std::string& path) const {
    return path.substr(std::min(path.size(), data_.string().size() + 1));
  }

  bool TakeFile(const std::string& path, UniqueFd fd, const struct stat& status) override {
    std::string text;
    bool more = false;
    EXPECT_TRUE(ReadUpTo(fd.get(), 1000, text, more));
    EXPECT_EQ(static_cast<std::size_t>(status.st_size), text.size());
    taken_.push_back(Relative(path));
    contents_ += text;
    if (on_file_) on_file_();
    return taken_.size() < max_files_;
  }
  bool LeaveOut(const std::string& path, const std::string& why) override {
    left_out_.push_back(Relative(path) + ": " + why);
    return true;
  }

  /// Makes files a, b and c there. As soon as a is taken, b is gone.
  void MakeThreeOfWhichTheSecondVanishes(const std::string& folder) {
    for (const char* name : {"a", "b", "c"}) WriteText(data_ / (folder + name), "x");
    on_file_ = [this, folder] { fs::remove(data_ / (folder + "b")); };
  }

  std::vector<std::string> taken_;
  std::string contents_;  ///< Of the files taken, one after the other.
  std::vector<std::string> left_out_;
  std::function<void()> on_file_;
  std::size_t max_files_ = 1000;
};

TEST_F(FileVisitTest, MatchesAndFoldersAreVisitedInTheOrderOfTheirNames) {
  for (const char* name : {"b.log", "a.log", "c.txt", "d.log/2", "d.log/1/x", "d.log/.hidden"}) {
    WriteText(data_ / name, "x");
  }
  Visit("*.log");
  EXPECT_THAT(taken_, ElementsAre("a.log", "b.log", "d.log/.hidden", "d.log/1/x", "d.log/2"));
  EXPECT_THAT(left_out_, IsEmpty());
}

TEST_F(FileVisitTest, PatternWithoutAMatchIsTold) {
  Visit("*.log");
  EXPECT_THAT(left_out_, ElementsAre("*.log: matches nothing"));
}

TEST_F(FileVisitTest, LinksAreNotFollowed) {
  WriteText(folder_ / "outside" / "secret", "x");
  fs::create_symlink(folder_ / "outside" / "secret", data_ / "file");
  fs::create_directory(data_ / "folder");
  fs::create_symlink(folder_ / "outside", data_ / "folder" / "inner");
  Visit("*");
  EXPECT_THAT(taken_, IsEmpty());
  EXPECT_THAT(left_out_, ElementsAre("file: a symbolic link, not followed",
                                     "folder/inner: a symbolic link, not followed"));
}

TEST_F(FileVisitTest, LinksOfAFolderAreOneNote) {
  WriteText(data_ / "d" / "b", "x");
  for (const char* name : {"a", "c", "e"}) fs::create_symlink("b", data_ / "d" / name);
  Visit("d");
  EXPECT_THAT(taken_, ElementsAre("d/b"));
  EXPECT_THAT(left_out_, ElementsAre("d/a: the first of 3 symbolic links in its folder, not followed"));
}

TEST_F(FileVisitTest, SpecialFilesAreLeftOutAtOnce) {
  ASSERT_EQ(mkfifo((data_ / "pipe").c_str(), 0600), 0);
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  (data_ / "socket").string().copy(address.sun_path, sizeof(address.sun_path) - 1);
  const void* generic = &address;
  ASSERT_EQ(bind(fd.get(), static_cast<const sockaddr*>(generic), sizeof(address)), 0);
  Visit("*");
  EXPECT_THAT(left_out_, ElementsAre("pipe: not a regular file", "socket: not a regular file"));
}

TEST_F(FileVisitTest, HiddenPatternDoesNotLeadOutOfItsFolder) {
  WriteText(data_ / "a" / ".profile", "x");
  WriteText(data_ / "outside", "x");
  Visit("a/.*");
  EXPECT_THAT(taken_, ElementsAre("a/.profile"));
}

TEST_F(FileVisitTest, FoldersBelowTheDepthAreLeftOut) {
  WriteText(data_ / "a" / "1", "x");
  WriteText(data_ / "a" / "b" / "2", "x");
  WriteText(data_ / "a" / "b" / "c" / "3", "x");
  limits_.folder_depth = 2;
  Visit("a");
  EXPECT_THAT(taken_, ElementsAre("a/1", "a/b/2"));
  EXPECT_THAT(left_out_, ElementsAre("a/b/c: a folder too many levels below the pattern's match"));
}

TEST_F(FileVisitTest, FileThatVanishesMeanwhileIsTold) {
  MakeThreeOfWhichTheSecondVanishes("");
  Visit("*");
  EXPECT_THAT(taken_, ElementsAre("a", "c"));
  EXPECT_THAT(left_out_, ElementsAre("b: vanished before it was read"));
}

TEST_F(FileVisitTest, FileThatVanishesFromAFolderMeanwhileIsTold) {
  MakeThreeOfWhichTheSecondVanishes("d/");
  Visit("d");
  EXPECT_THAT(taken_, ElementsAre("d/a", "d/c"));
  EXPECT_THAT(left_out_, ElementsAre("d/b: vanished before it was read"));
}

TEST_F(FileVisitTest, VisitorEndsTheVisit) {
  for (const char* name : {"a", "b/1", "b/2", "c"}) WriteText(data_ / name, "x");
  max_files_ = 2;
  Visit("*");
  EXPECT_THAT(taken_, ElementsAre("a", "b/1"));
}

TEST_F(FileVisitTest, LinkOnTheWayIsNotFollowedWhereOthersMayPutOne) {
  // The folder lies below one for everybody's temporary files.
  WriteText(folder_ / "outside" / "secret", "x");
  fs::create_symlink(folder_ / "outside", data_ / "link");
  fs::create_symlink(folder_ / "outside" / "secret", data_ / "file");
  Visit("link/secret");
  Visit("l*/secret");
  Visit("file");
  EXPECT_THAT(taken_, IsEmpty());
  EXPECT_THAT(left_out_,
              ElementsAre("link: a symbolic link, not followed", "link: a symbolic link, not followed",
                          "file: a symbolic link, not followed"));
}

TEST_F(FileVisitTest, FolderSwappedForALinkDuringTheVisitDoesNotLeadOut) {
  for (const char* name : {"home/a", "home/b", "home/sub/c"}) WriteText(data_ / name, "x");
  WriteText(folder_ / "outside" / "b", "secret");
  WriteText(folder_ / "outside" / "sub" / "c", "secret");
  on_file_ = [&] {
    if (fs::is_symlink(data_ / "home")) return;
    fs::rename(data_ / "home", data_ / "moved");
    fs::create_symlink(folder_ / "outside", data_ / "home");
  };
  Visit("home");
  EXPECT_THAT(taken_, ElementsAre("home/a", "home/b", "home/sub/c"));
  EXPECT_EQ(contents_, "xxx");
}

TEST_F(FileVisitTest, FolderSwappedForALinkBeforeItsTurnIsLeftOut) {
  for (const char* name : {"home/a", "home/sub/c"}) WriteText(data_ / name, "x");
  WriteText(folder_ / "outside" / "c", "secret");
  on_file_ = [&] {
    fs::remove_all(data_ / "home" / "sub");
    fs::create_symlink(folder_ / "outside", data_ / "home" / "sub");
  };
  Visit("home");
  EXPECT_THAT(taken_, ElementsAre("home/a"));
  EXPECT_EQ(left_out_.size(), 1U);
}

TEST_F(FileVisitTest, PipeInTheFilesPlaceDoesNotHoldTheVisit) {
  for (const char* name : {"d/a", "d/b"}) WriteText(data_ / name, "x");
  on_file_ = [&] {
    fs::remove(data_ / "d" / "b");
    ASSERT_EQ(mkfifo((data_ / "d" / "b").c_str(), 0600), 0);
  };
  Visit("d");
  EXPECT_THAT(taken_, ElementsAre("d/a"));
  EXPECT_THAT(left_out_, ElementsAre("d/b: not a regular file"));
}

TEST_F(FileVisitTest, FileWithSeveralNamesIsLeftOutWhereOthersMayWrite) {
  WriteText(folder_ / "outside" / "secret", "x");
  fs::create_hard_link(folder_ / "outside" / "secret", data_ / "mine");
  Visit("*");
  EXPECT_THAT(taken_, IsEmpty());
  EXPECT_THAT(left_out_, ElementsAre("mine: a file with several names in a folder that others may write to"));
}

TEST_F(FileVisitTest, FolderWithTooManyNamesIsBounded) {
  for (const char* name : {"d/1", "d/2", "d/3", "d/4"}) WriteText(data_ / name, "x");
  limits_.folder_names = 3;
  Visit("d");
  EXPECT_EQ(taken_.size(), 3U);
  EXPECT_THAT(left_out_, ElementsAre("d: more than 3 names in a folder: the others are left out"));
  left_out_.clear();
  limits_.folder_names = 4;
  Visit("d");
  EXPECT_THAT(left_out_, IsEmpty());
}

TEST_F(FileVisitTest, NamesOfAFolderAndThoseAboveItAreBoundedTogether) {
  for (const char* name : {"d/1/1/x", "d/1/2", "d/1/3", "d/2", "d/3/1", "d/3/2", "d/3/3"}) {
    WriteText(data_ / name, "x");
  }
  limits_.folder_names = 3;
  for (const char* pattern : {"d", "d/*", "d/*/*"}) {
    taken_.clear();
    left_out_.clear();
    Visit(pattern);
    EXPECT_THAT(left_out_, ElementsAre("d/1/1: more than 0 names in a folder: the others are left out"));
    EXPECT_THAT(taken_, testing::IsSupersetOf({"d/1/2", "d/1/3", "d/3/1", "d/3/2", "d/3/3"})) << pattern;
  }
}

TEST_F(FileVisitTest, RootThatCannotBeOpenedIsTold) {
  const CallerProcess caller([&] {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    Visit("*");
    return left_out_.size() == 1 ? left_out_.front() : "no line";
  });
  EXPECT_EQ(caller.Answer(), ": Too many open files");
}

TEST_F(FileVisitTest, WildcardsAreTheShells) {
  for (const char* name : {"a.log", "ab.log", "b.log", "[x]", "dir/a.log", "dir2/a.log", ".hidden"}) {
    WriteText(data_ / name, "x");
  }
  const auto matches = [&](const char* pattern) {
    taken_.clear();
    Visit(pattern);
    return taken_;
  };
  EXPECT_THAT(matches("?.log"), ElementsAre("a.log", "b.log"));
  EXPECT_THAT(matches("[!b].log"), ElementsAre("a.log"));
  EXPECT_THAT(matches("\\[x\\]"), ElementsAre("[x]"));
  EXPECT_THAT(matches("*/a.log"), ElementsAre("dir/a.log", "dir2/a.log"));
  EXPECT_THAT(matches(".h*"), ElementsAre(".hidden"));
  EXPECT_THAT(matches("dir?/*"), ElementsAre("dir2/a.log"));
  EXPECT_THAT(left_out_, IsEmpty());
}

TEST_F(FileVisitTest, NamesThatAreNoTextMatchAsWell) {
  WriteText(data_ / "\xff\xfe.log", "x");
  Visit("*.log");
  EXPECT_THAT(taken_, ElementsAre("\xff\xfe.log"));
}

TEST_F(FileVisitTest, LinksOfTheSystemsOwnAreFollowedWhereThePatternNamesThem) {
  if (!fs::is_symlink("/etc/os-release")) GTEST_SKIP() << "no link here that is known";
  if (AnotherUserOwns("/")) GTEST_SKIP() << "the root belongs to nobody in this namespace";
  const CallerProcess visitor([&] {
    data_ = "/etc";
    Visit("os-release");
    return contents_;
  });
  EXPECT_EQ(visitor.Answer(), ReadText("/etc/os-release").substr(0, visitor.Answer().size()));
  EXPECT_NE(visitor.Answer(), "");
}

/// What lies below /mnt, and what a visit makes of it.
struct TrustedCase {
  const char* name;
  void (*prepare)();
  const char* pattern;
  const char* lines;
};

/// A file system of the test's own, right below the root, where nobody else may write.
class TrustedFolderTest : public FileVisitTest, public testing::WithParamInterface<TrustedCase> {
 protected:
  /// Visits the pattern below /mnt, where `prepare` has been at work.
  /// @return What was taken and left out, a line each; "no namespace" where none can be had.
  std::string VisitMnt(const std::function<void()>& prepare, const std::string& pattern) {
    const CallerProcess visitor([&]() -> std::string {
      if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0 ||
          mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          mount("none", "/mnt", "tmpfs", 0, "mode=0755") != 0) {
        return "no namespace";
      }
      data_ = "/mnt";
      prepare();
      Visit(pattern);
      std::string lines;
      for (const std::string& name : taken_) lines += name + "\n";
      for (const std::string& line : left_out_) lines += line + "\n";
      return lines;
    });
    return visitor.Answer();
  }
};

TEST_P(TrustedFolderTest, IsVisited) {
  const std::string lines = VisitMnt(GetParam().prepare, GetParam().pattern);
  if (lines == "no namespace") GTEST_SKIP() << "no private mounts here";
  EXPECT_EQ(lines, GetParam().lines);
}

// A row for each kind of link or folder; they look alike because they are rows.
INSTANTIATE_TEST_SUITE_P(
    , TrustedFolderTest,
    testing::Values(
        TrustedCase{"LinkIsFollowedWhereThePatternNamesIt",
                    [] {
                      WriteText("/mnt/real/deep/a.log", "x");
                      fs::create_symlink("../mnt/./real", "/mnt/way");
                      fs::create_symlink("/mnt/way/deep", "/mnt/real/second");
                      fs::create_symlink("..", "/mnt/real/up");
                    },
                    "way/up/real/second/*.log", "way/up/real/second/a.log\n"},
        TrustedCase{
            "LinkIsNotFollowedWhereAWildcardMeetsIt",
            [] {
              WriteText("/mnt/real/a.log", "x");
              fs::create_symlink("real", "/mnt/link");
              fs::create_symlink("real/a.log", "/mnt/a.log");
            },
            "*", "real/a.log\na.log: a symbolic link, not followed\nlink: a symbolic link, not followed\n"},
        TrustedCase{"LinkOfAnotherUserIsNotFollowed",
                    [] {
                      WriteText("/mnt/real/a.log", "x");
                      fs::create_symlink("real", "/mnt/link");
                      ASSERT_EQ(lchown("/mnt/link", 1234, 1234), 0);
                    },
                    "link/a.log", "link: a symbolic link, not followed\n"},
        TrustedCase{"LinkInAFolderOfAnotherUserIsNotFollowed",
                    [] {
                      WriteText("/mnt/home/real/a.log", "x");
                      fs::create_symlink("real", "/mnt/home/link");
                      ASSERT_EQ(chown("/mnt/home", 1234, 1234), 0);
                    },
                    "home/link/a.log", "home/link: a symbolic link, not followed\n"},
        TrustedCase{"RingOfLinksIsLeftOut",
                    [] {
                      fs::create_symlink("b", "/mnt/a");
                      fs::create_symlink("a", "/mnt/b");
                    },
                    "a/x.log", "a: a symbolic link, not followed\n"},
        TrustedCase{"FileWithSeveralNamesIsTaken",
                    [] {
                      WriteText("/mnt/a.log", "x");
                      fs::create_hard_link("/mnt/a.log", "/mnt/b.log");
                    },
                    "*.log", "a.log\nb.log\n"},
        TrustedCase{"FolderMountedBelowItselfEnds",
                    [] {
                      WriteText("/mnt/ring/a.log", "x");
                      fs::create_directory("/mnt/ring/again");
                      ASSERT_EQ(mount("/mnt/ring", "/mnt/ring/again", nullptr, MS_BIND, nullptr), 0);
                    },
                    "ring", "ring/a.log\nring/again: a folder that is met below itself\n"}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace TARVO::SupportForm
