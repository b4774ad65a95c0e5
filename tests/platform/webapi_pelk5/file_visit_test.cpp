#include "file_visit.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "file_util.h"
#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FileVisitTest : public SupportLogTest, private FileVisitor {
 protected:
  void Visit(const std::string& pattern, unsigned depth = 8) { VisitMatches(data_ / pattern, depth, *this); }
  [[nodiscard]] std::string Relative(const std::string& path) const {
    return path.substr(data_.string().size() + 1);
  }

  bool TakeFile(const std::string& path, UniqueFd fd, const struct stat& status) override {
    std::string text;
    bool more = false;
    EXPECT_TRUE(ReadUpTo(fd.get(), 1000, text, more));
    EXPECT_EQ(static_cast<std::size_t>(status.st_size), text.size());
    taken_.push_back(Relative(path));
    if (on_file_) on_file_();
    return taken_.size() < max_files_;
  }
  bool LeaveOut(const std::string& path, const std::string& why) override {
    left_out_.push_back(Relative(path) + ": " + why);
    return true;
  }

  std::vector<std::string> taken_;
  std::vector<std::string> left_out_;
  std::function<void()> on_file_;
  std::size_t max_files_ = 1000;
};

TEST_F(FileVisitTest, MatchesAndFoldersAreVisitedInTheOrderOfTheirNames) {
  for (const char* name : {"b.log", "a.log", "c.txt", "d.log/2", "d.log/1/x", "d.log/.hidden"})
    WriteText(data_ / name, "x");
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
  Visit("a", 2);
  EXPECT_THAT(taken_, ElementsAre("a/1", "a/b/2"));
  EXPECT_THAT(left_out_, ElementsAre("a/b/c: a folder too many levels below the pattern's match"));
}

TEST_F(FileVisitTest, FileThatVanishesMeanwhileIsTold) {
  for (const char* name : {"a", "b", "c"}) WriteText(data_ / name, "x");
  on_file_ = [&] { fs::remove(data_ / "b"); };
  Visit("*");
  EXPECT_THAT(taken_, ElementsAre("a", "c"));
  EXPECT_THAT(left_out_, ElementsAre("b: vanished before it was read"));
}

TEST_F(FileVisitTest, FileThatVanishesFromAFolderMeanwhileIsTold) {
  for (const char* name : {"d/a", "d/b", "d/c"}) WriteText(data_ / name, "x");
  on_file_ = [&] { fs::remove(data_ / "d/b"); };
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

}  // namespace
}  // namespace TARVO::SupportForm
