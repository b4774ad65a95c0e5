#include "trusted_path.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "file_util.h"
#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr uid_t kNeighbour = 65534;

void SetMode(const fs::path& path, unsigned mode) { ASSERT_EQ(chmod(path.c_str(), mode), 0) << path; }

class TrustedPathTest : public SupportLogTest {
 protected:
  TrustedPathTest() { WriteText(data_ / "sub" / "file", "text"); }

  /// What is wrong with the path; empty when nothing is.
  static std::string FaultOf(const fs::path& path) {
    const OpenedPath opened = OpenTrusted(path, O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(opened.fd.valid(), opened.error == 0 && !opened.distrust);
    return opened.error != 0 ? ErrorText(opened.error) : opened.distrust.text;
  }
  static std::string AdviceFor(const fs::path& path) { return OpenTrusted(path, O_RDONLY).distrust.advice; }

  const fs::path file_ = data_ / "sub" / "file";
};

TEST_F(TrustedPathTest, OwnFileInOwnFoldersIsRead) {
  std::string text;
  bool more = false;
  Distrust distrust;
  ASSERT_TRUE(ReadTrustedFile(file_, 3, text, more, distrust));
  EXPECT_EQ(text, "tex");
  EXPECT_TRUE(more);
  EXPECT_EQ(FaultOf("/"), "");
  EXPECT_EQ(FaultOf(data_ / ".." / "data" / "." / "sub"), "");
}

TEST_F(TrustedPathTest, FileThatOthersMayWriteToIsToldWithOwnerModeAndWhatToDo) {
  for (const unsigned mode : {0620U, 0602U, 0666U}) {
    SetMode(file_, mode);
    EXPECT_THAT(FaultOf(file_), StartsWith(file_.string() + " (owner "));
    EXPECT_THAT(FaultOf(file_), HasSubstr("mode 06"));
    EXPECT_EQ(AdviceFor(file_), "chmod go-w " + file_.string());
  }
  SetMode(file_, 0444);
  EXPECT_EQ(FaultOf(file_), "");
}

TEST_F(TrustedPathTest, FileFolderOrLinkOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  fs::create_symlink(file_, data_ / "link");
  ASSERT_EQ(FaultOf(data_ / "link"), "");
  ASSERT_EQ(lchown((data_ / "link").c_str(), kNeighbour, kNeighbour), 0);
  EXPECT_THAT(FaultOf(data_ / "link"),
              StartsWith((data_ / "link").string() + " (owner user 65534, mode 0777)"));
  EXPECT_EQ(AdviceFor(data_ / "link"), "chown -h root " + (data_ / "link").string());

  ASSERT_EQ(chown(file_.c_str(), kNeighbour, kNeighbour), 0);
  EXPECT_THAT(FaultOf(file_), HasSubstr("(owner user 65534, mode 0644) can be changed by others than root"));
  EXPECT_EQ(AdviceFor(file_), "chown root " + file_.string() + " && chmod go-w " + file_.string());

  ASSERT_EQ(chown(file_.c_str(), 0, 0), 0);
  ASSERT_EQ(chown((data_ / "sub").c_str(), kNeighbour, kNeighbour), 0);
  EXPECT_THAT(FaultOf(file_), StartsWith((data_ / "sub").string() + " (owner user 65534"));
}

TEST_F(TrustedPathTest, FolderAboveThatOthersMayWriteToIsToldThoughNothingIsThere) {
  SetMode(data_, 0775);
  EXPECT_THAT(FaultOf(file_), StartsWith(data_.string() + " (owner "));
  EXPECT_THAT(FaultOf(data_ / "sub" / "missing"), HasSubstr("mode 0775"));
  SetMode(data_, 0755);
  EXPECT_EQ(FaultOf(data_ / "sub" / "missing"), ErrorText(ENOENT));
}

TEST_F(TrustedPathTest, OfAStickyFolderOnlyAFolderBelowIsTrusted) {
  fs::create_symlink("sub", data_ / "link");
  WriteText(data_ / "direct", "text");
  SetMode(data_, 01777);
  EXPECT_EQ(FaultOf(file_), "");
  EXPECT_EQ(FaultOf(data_ / "sub"), "");
  EXPECT_THAT(FaultOf(data_ / "direct"), HasSubstr("direct (owner "));
  EXPECT_THAT(FaultOf(data_ / "direct"), HasSubstr("can be put there by others"));
  EXPECT_THAT(FaultOf(data_ / "link" / "file"), HasSubstr("link (owner "));
  EXPECT_THAT(FaultOf(data_), HasSubstr("mode 1777")) << "what is in it is anybody's";
  SetMode(data_ / "sub", 0777);
  EXPECT_THAT(FaultOf(file_), HasSubstr("sub (owner "));
}

TEST_F(TrustedPathTest, LinksAreJudgedWhereTheyLead) {
  fs::create_directory(folder_ / "links");
  fs::create_symlink("../data/sub/../sub/file", folder_ / "links" / "relative");
  fs::create_symlink(data_ / "sub", folder_ / "links" / "absolute");
  EXPECT_EQ(FaultOf(folder_ / "links" / "relative"), "");
  EXPECT_EQ(FaultOf(folder_ / "links" / "absolute" / "file"), "");
  EXPECT_EQ(FaultOf(folder_ / "links" / "absolute"), "");
  SetMode(data_, 0777);
  EXPECT_THAT(FaultOf(folder_ / "links" / "relative"), StartsWith(data_.string() + " "));
  EXPECT_THAT(FaultOf(folder_ / "links" / "absolute" / "file"), StartsWith(data_.string() + " "));
  EXPECT_THAT(FaultOf(folder_ / "links" / "absolute"), StartsWith(data_.string() + " "));
}

TEST_F(TrustedPathTest, LoopsDanglingLinksAndFilesOnTheWayAreErrors) {
  fs::create_symlink("loop", data_ / "loop");
  fs::create_symlink("nowhere", data_ / "dangling");
  EXPECT_EQ(FaultOf(data_ / "loop"), ErrorText(ELOOP));
  EXPECT_EQ(FaultOf(data_ / "dangling"), ErrorText(ENOENT));
  EXPECT_EQ(FaultOf(file_ / "below"), ErrorText(ENOTDIR));
  EXPECT_EQ(FaultOf("relative"), ErrorText(EINVAL));
  EXPECT_EQ(FaultOf(""), ErrorText(ENOENT));
}

TEST_F(TrustedPathTest, OnlyARegularFileIsReadAndAPipeNotWaitedFor) {
  ASSERT_EQ(mkfifo((data_ / "pipe").c_str(), 0600), 0);
  std::string text;
  bool more = false;
  Distrust distrust;
  for (const fs::path& path : {data_ / "pipe", data_ / "sub"}) {
    EXPECT_FALSE(ReadTrustedFile(path, 10, text, more, distrust));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(distrust);
  }
  EXPECT_FALSE(ReadTrustedFile("/dev/null", 10, text, more, distrust));
}

TEST_F(TrustedPathTest, InAUserNamespaceWithoutRootWhatIsRootsOutsideIsTrusted) {
  const CallerProcess inside([] {
    const uid_t user = geteuid() == 0 ? kNeighbour : geteuid();
    if (setresuid(user, user, user) != 0 || unshare(CLONE_NEWUSER) != 0) return std::string("no namespace");
    if (prctl(PR_SET_DUMPABLE, 1) != 0) return std::string("no way to its own file");
    const UniqueFd map(open("/proc/self/uid_map", O_WRONLY | O_CLOEXEC));
    if (!WriteAll(map.get(), "1000 " + std::to_string(user) + " 1\n")) return "no map, " + ErrorText(errno);
    return FaultOf("/etc/passwd") + "|" + (IsTrustedUser(kNeighbour) ? "unmapped" : "");
  });
  if (inside.Answer().rfind("no ", 0) == 0) GTEST_SKIP() << inside.Answer();
  EXPECT_EQ(inside.Answer(), "|unmapped");
  EXPECT_EQ(IsTrustedUser(kNeighbour), geteuid() == kNeighbour) << "here they are somebody";
}

}  // namespace
}  // namespace TARVO::SupportForm
