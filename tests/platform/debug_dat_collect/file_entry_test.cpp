#include "file_entry.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <fstream>

#include "archive_fixture.h"
#include "file_util.h"
#include "redaction_rules.h"

namespace TARVO::SupportForm {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class FileEntryTest : public ArchiveTest {
 protected:
  /// Opens the file, lets `change` happen to it, and then archives it.
  FileEntry Add(const std::string& text, const std::function<void()>& change,
                std::uint64_t max_bytes = 1 << 20, const FileCheck& check = {}) {
    WriteText(path_, text);
    const UniqueFd fd(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    EXPECT_EQ(fstat(fd.get(), &status), 0);
    change();
    return AddFile(writer_, "file", fd.get(), status, max_bytes, check);
  }
  std::string Archived() {
    writer_.Close();
    return ReadArchive(folder_ / "archive").Of("file");
  }

  fs::path path_ = data_ / "file";
};

TEST_F(FileEntryTest, QuietFileIsTakenAsItIs) {
  const FileEntry entry = Add("some text", [] {});
  EXPECT_EQ(entry.size, 9U);
  EXPECT_THAT(entry.notes, IsEmpty());
  EXPECT_EQ(Archived(), "some text");
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

TEST_F(FileEntryTest, LargeFileThatGrewIsCutAndNoted) {
  const std::string text(100'000, 'x');
  const FileEntry entry = Add(text, [&] { std::ofstream(path_, std::ios::app) << " and more"; });
  EXPECT_THAT(entry.notes, ElementsAre(HasSubstr("grew while it was read")));
  EXPECT_TRUE(Archived() == text);
}

TEST_F(FileEntryTest, FilesAroundTheSizeOfTheHeadAreWhole) {
  for (const std::size_t size : {8191U, 8192U, 8193U}) {
    const std::string text(size, 'x');
    const FileEntry entry = Add(text, [] {});
    EXPECT_THAT(entry.notes, IsEmpty()) << size;
  }
}

TEST_F(FileEntryTest, SecretsAreMaskedAndCounted) {
  const RedactionRules rules(folder_ / "no-patterns");
  const FileEntry entry = Add("password=hunter2-and-more\n", [] {}, 1 << 20, {&rules, false});
  EXPECT_EQ(entry.redacted, 1U);
  EXPECT_EQ(Archived(), "password=****************\n");
}

TEST_F(FileEntryTest, TailThatBeginsInsideASecretIsMasked) {
  const RedactionRules rules(folder_ / "no-patterns");
  Add(std::string(100'000, '\n') + "password=hunter2-and-more\n", [] {}, 5, {&rules, false});
  EXPECT_EQ(Archived(), "****\n");
}

TEST_F(FileEntryTest, WhatIsNotTextIsLeftOutWhereItWouldHaveToBeChecked) {
  const RedactionRules rules(folder_ / "no-patterns");
  const std::string binary("\x7F\x45LF\0\0\1\2 and more", 17);
  const FileEntry entry = Add(binary, [] {}, 1 << 20, {&rules, false});
  EXPECT_THAT(entry.left_out, HasSubstr("not text"));
  writer_.Close();
  EXPECT_THAT(ReadArchive(folder_ / "archive").Names(), IsEmpty());
}

TEST_F(FileEntryTest, WhatIsNotTextIsTakenWhereTheDescriptionAllowsIt) {
  const RedactionRules rules(folder_ / "no-patterns");
  const std::string binary("\x7F\x45LF\0\0\1\2 and more", 17);
  const FileEntry entry = Add(binary, [] {}, 1 << 20, {&rules, true});
  EXPECT_THAT(entry.left_out, IsEmpty());
  EXPECT_THAT(entry.notes, ElementsAre(HasSubstr("taken unchecked")));
  EXPECT_EQ(Archived(), binary);
}

TEST_F(FileEntryTest, TextIsCheckedWhereTheDescriptionAllowsWhatIsNot) {
  const RedactionRules rules(folder_ / "no-patterns");
  Add("password=hunter2-and-more\n", [] {}, 1 << 20, {&rules, true});
  EXPECT_EQ(Archived(), "password=****************\n");
}

TEST_F(FileEntryTest, WithRedactionOffWhatIsNotTextIsTaken) {
  const std::string binary("a\0b", 3);
  EXPECT_THAT(Add(binary, [] {}).left_out, IsEmpty());
  EXPECT_EQ(Archived(), binary);
}

TEST_F(FileEntryTest, CompressedFileThatChangedSinceItWasMeasuredIsCutOrFilledUpAndCheckedAgain) {
  const RedactionRules rules(folder_ / "no-patterns");
  const UnpackLimits limits = {1 << 20, 1 << 20, MonotonicMs() + 60'000};
  const auto add = [&](const std::string& name, const std::string& now) {
    WriteText(path_, Packed(Packing::kGzip, "some text, of which there is enough"));
    const UniqueFd fd(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    EXPECT_EQ(fstat(fd.get(), &status), 0);
    const PackedFile packed = MeasurePacked(fd.get(), status, Packing::kGzip, limits);
    EXPECT_EQ(packed.left_out, "");
    EXPECT_EQ(packed.size, 35U);
    WriteText(path_, now);
    return AddUnpacked(writer_, name, fd.get(), status, packed, 1 << 20, &rules, limits);
  };
  const FileEntry shorter = add("shorter", Packed(Packing::kGzip, "password=hunter2\n"));
  EXPECT_THAT(shorter.notes, testing::Contains(HasSubstr("zeros stand for its last 18 bytes")));
  EXPECT_THAT(add("binary", Packed(Packing::kGzip, std::string("\0\1\2", 3))).left_out,
              HasSubstr("no text inside"));
  EXPECT_THAT(add("gone", "").notes, testing::Contains(HasSubstr("could not be read to its end (damaged)")));
  writer_.Close();
  const ArchiveContent content = ReadArchive(folder_ / "archive");
  EXPECT_EQ(content.Of("shorter"), "password=*******\n" + std::string(18, '\0'));
  EXPECT_EQ(content.Of("gone"), std::string(35, '\0'));
  EXPECT_FALSE(content.Has("binary"));
}

TEST_F(FileEntryTest, UnpackingEndsWhenTheTimeIsOver) {
  WriteText(path_, Packed(Packing::kGzip, "some text"));
  const UniqueFd fd(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status = {};
  ASSERT_EQ(fstat(fd.get(), &status), 0);
  EXPECT_THAT(MeasurePacked(fd.get(), status, Packing::kGzip, {1 << 20, 1 << 20, 0}).left_out,
              HasSubstr("Timer expired"));
}

TEST_F(FileEntryTest, EmptyFileIsAnEmptyEntry) {
  EXPECT_EQ(Add("", [] {}).size, 0U);
  EXPECT_EQ(Archived(), "");
}

}  // namespace
}  // namespace TARVO::SupportForm
