#include "file_entry.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <fstream>

#include "support_log_fixture.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class FileEntryTest : public SupportLogTest {
 protected:
  FileEntryTest()
      : folder_fd_(open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
        archive_fd_(open((folder_ / "archive").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)),
        progress_(folder_fd_.get(), 0),
        writer_(archive_fd_.get(), 1, progress_) {}

  /// Opens the file, lets `change` happen to it, and then archives it.
  FileEntry Add(const std::string& text, const std::function<void()>& change,
                std::uint64_t max_bytes = 1 << 20) {
    WriteText(path_, text);
    const UniqueFd fd(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    EXPECT_EQ(fstat(fd.get(), &status), 0);
    change();
    return AddFile(writer_, "file", fd.get(), status, max_bytes);
  }
  std::string Archived() {
    writer_.Close();
    return ReadArchive(folder_ / "archive").Of("file");
  }

  fs::path path_ = data_ / "file";
  UniqueFd folder_fd_;
  UniqueFd archive_fd_;
  Progress progress_;
  ArchiveWriter writer_;
};

TEST_F(FileEntryTest, QuietFileIsTakenAsItIs) {
  const FileEntry entry = Add("some text", [] {});
  EXPECT_EQ(entry.size, 9U);
  EXPECT_THAT(entry.notes, IsEmpty());
  EXPECT_EQ(Archived(), "some text");
  EXPECT_EQ(entry.sha256, Sha256Of("some text"));
}

TEST_F(FileEntryTest, FileThatShrankIsFilledUpWithZerosAndNoted) {
  const FileEntry entry = Add("some text", [&] { fs::resize_file(path_, 4); });
  EXPECT_EQ(entry.size, 9U);
  EXPECT_THAT(entry.notes,
              ElementsAre(HasSubstr("shrank while it was read: zeros stand for its last 5 bytes")));
  EXPECT_EQ(Archived(), std::string("some\0\0\0\0\0", 9));
}

TEST_F(FileEntryTest, FileThatGrewIsCutAndNoted) {
  const FileEntry entry = Add("some text", [&] { std::ofstream(path_, std::ios::app) << " and more"; });
  EXPECT_EQ(entry.size, 9U);
  EXPECT_THAT(entry.notes, ElementsAre(HasSubstr("grew while it was read: cut at the 9 bytes")));
  EXPECT_EQ(Archived(), "some text");
}

TEST_F(FileEntryTest, FileThatWasRemovedOrRotatedAfterItWasOpenedIsTakenWhole) {
  const FileEntry entry = Add("some text", [&] { fs::remove(path_); });
  EXPECT_THAT(entry.notes, IsEmpty());
  EXPECT_EQ(Archived(), "some text");
}

TEST_F(FileEntryTest, OfALongFileTheTailIsTakenAndTheCutNoted) {
  const FileEntry entry = Add(
      "old lines, new lines", [] {}, 9);
  EXPECT_EQ(entry.size, 9U);
  EXPECT_THAT(entry.notes, ElementsAre(HasSubstr("the last 9 of its 20 bytes")));
  EXPECT_EQ(Archived(), "new lines");
}

TEST_F(FileEntryTest, FileJustAtTheLimitIsWhole) {
  EXPECT_THAT(Add(
                  "some text", [] {}, 9)
                  .notes,
              IsEmpty());
  EXPECT_EQ(Archived(), "some text");
}

TEST_F(FileEntryTest, TailThatBeginsInsideATokenIsMasked) {
  const std::string old(200'000, 'x');
  Add(
      old + R"({"token":"secret","apps":[]})", [] {}, 15);
  EXPECT_EQ(Archived(), R"(***","apps":[]})");
}

TEST_F(FileEntryTest, EmptyFileIsAnEmptyEntry) {
  EXPECT_EQ(Add("", [] {}).size, 0U);
  EXPECT_EQ(Archived(), "");
}

}  // namespace
}  // namespace TARVO::SupportForm
