#include "archive_writer.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <memory>

#include "archive_fixture.h"
#include "file_util.h"
#include "redaction_rules.h"

namespace TARVO::SupportForm {
namespace {

class ArchiveWriterTest : public ArchiveTest {
 protected:
  /// Ends the archive. The digests of its entries have to be those of what it holds.
  ArchiveContent Close() {
    const std::string sums = writer_.Sums();
    summary_ = writer_.Close();
    ArchiveContent content = ReadArchive(folder_ / "archive");
    std::string expected;
    for (const std::string& name : content.Names()) expected += Sha256Of(content.Of(name));
    EXPECT_EQ(sums, expected);
    return content;
  }

  /// Gives `text` in pieces of `step` bytes.
  static std::function<ssize_t(char*, std::size_t)> InSteps(const std::string& text, std::size_t step) {
    auto left = std::make_shared<std::string>(text);
    return [left, step](char* buffer, std::size_t capacity) {
      const std::size_t count = left->copy(buffer, std::min(step, capacity));
      left->erase(0, count);
      return static_cast<ssize_t>(count);
    };
  }

  ArchiveSummary summary_;
};

TEST_F(ArchiveWriterTest, KeepsContentAndOrder) {
  const std::string large(1'000'003, 'x');
  writer_.AddText("b", "text", 0);
  writer_.AddText("a/empty", "", 0);
  writer_.AddText("a/large", large, 0);
  const ArchiveContent content = Close();
  EXPECT_THAT(content.Names(), testing::ElementsAre("b", "a/empty", "a/large"));
  EXPECT_EQ(content.Of("b"), "text");
  EXPECT_EQ(content.Of("a/large"), large);
}

TEST_F(ArchiveWriterTest, MasksTokensAcrossReads) {
  EntrySource source;
  const std::string text = R"({"token":"secret","apps":[]})";
  source.size = text.size();
  source.read = InSteps(text, 3);
  writer_.Add("ticket", source);
  EXPECT_EQ(Close().Of("ticket"), R"({"token":"******","apps":[]})");
}

TEST_F(ArchiveWriterTest, SourceThatEndsEarlyIsFilledUpWithZerosAndCounted) {
  EntrySource source;
  source.size = 10'000;
  source.read = InSteps(R"("token":"abc)", 100);
  const WrittenEntry written = writer_.Add("short", source);
  EXPECT_EQ(written.missing_bytes, 10'000U - 12);
  writer_.AddText("next", "intact", 0);
  const ArchiveContent content = Close();
  EXPECT_EQ(content.Of("short"), R"("token":"***)" + std::string(10'000 - 12, '\0'));
  EXPECT_EQ(content.Of("next"), "intact");
}

TEST_F(ArchiveWriterTest, SourceThatHasMoreIsCutAtItsAnnouncedSize) {
  EntrySource source;
  source.size = 4;
  source.read = InSteps("12345678", 3);
  writer_.Add("long", source);
  EXPECT_EQ(Close().Of("long"), "1234");
}

TEST_F(ArchiveWriterTest, LeadIsReadForTheMaskAndNotArchived) {
  EntrySource source;
  const std::string text = R"(x"token":"abcdef" tail)";
  source.lead = 12;
  source.size = text.size() - source.lead;
  source.read = InSteps(text, 5);
  const WrittenEntry written = writer_.Add("tail", source);
  EXPECT_EQ(Close().Of("tail"), R"(****" tail)");
  EXPECT_EQ(written.missing_bytes, 0U);
}

TEST_F(ArchiveWriterTest, SourceThatEndsInTheLeadIsAllZeros) {
  EntrySource source;
  source.lead = 12;
  source.size = 3;
  source.read = InSteps("12345", 5);
  EXPECT_EQ(writer_.Add("gone", source).missing_bytes, 3U);
  EXPECT_EQ(Close().Of("gone"), std::string(3, '\0'));
}

TEST_F(ArchiveWriterTest, SecretsAreMaskedByTheRulesAndCounted) {
  const RedactionRules rules(folder_ / "no-patterns");
  const WrittenEntry first = writer_.AddText("a", "password=hunter2-and-more\n", 0, &rules);
  writer_.AddText("b", "password=hunter2-and-more\n", 0);
  const ArchiveContent content = Close();
  EXPECT_EQ(first.redacted, 1U);
  EXPECT_EQ(content.Of("a"), "password=****************\n");
  EXPECT_EQ(content.Of("b"), "password=hunter2-and-more\n");
  EXPECT_EQ(summary_.redacted, 1U);
}

TEST_F(ArchiveWriterTest, SecretAcrossBlocksIsMaskedAndNothingIsLost) {
  const RedactionRules rules(folder_ / "no-patterns");
  std::string text;
  while (text.size() < 3'000'000) {
    text += "an ordinary line of a log, number " + std::to_string(text.size()) + "\n";
  }
  std::string expected = text;
  for (std::size_t at = 131'072 - 20; at < text.size(); at += 131'072 - 3) {
    text.replace(at, 26, "\npassword=hunter2-and-more");
    expected.replace(at, 26, "\npassword=****************");
    text[at + 26] = expected[at + 26] = '\n';
  }
  writer_.AddText("a", text, 0, &rules);
  EXPECT_TRUE(Close().Of("a") == expected);
}

TEST_F(ArchiveWriterTest, SummaryTellsTheArchivesSizeSumAndContent) {
  writer_.AddText("a", "text", 0);
  writer_.AddText("b", std::string(1'000'000, 'x'), 0);
  Close();
  EXPECT_EQ(summary_.size, fs::file_size(folder_ / "archive"));
  EXPECT_EQ(summary_.sha256, Sha256Of(ReadText(folder_ / "archive")));
  EXPECT_EQ(summary_.entries, 2U);
  EXPECT_EQ(summary_.bytes, 1'000'004U);
}

TEST_F(ArchiveWriterTest, SizeBoundCoversHeadersAndTheArchivesEnd) {
  std::uint64_t bound = writer_.SizeBound(0);
  for (int i = 0; i < 2'000; ++i) {
    bound = writer_.SizeBound(0);
    writer_.AddText(std::string(4'000, 'a') + std::to_string(i), "", 0);
    EXPECT_LE(fs::file_size(folder_ / "archive"), bound);
  }
  Close();
  EXPECT_LE(fs::file_size(folder_ / "archive"), bound);
}

TEST_F(ArchiveWriterTest, WriterThatIsNotClosedLeavesNoCompleteArchive) {
  const fs::path path = folder_ / "unfinished";
  const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  {
    ArchiveWriter writer(fd.get(), 1, progress_);
    writer.AddText("a", "text", 0);
  }
  EXPECT_EQ(fs::file_size(path), 0U);
}

TEST_F(ArchiveWriterTest, DeviceThatFillsUpWithinAnEntryIsMetByZerosAndTheArchiveCanBeEnded) {
  const std::string text = RandomLetters(3'000'000);
  const fs::path device = folder_ / "device";
  const CallerProcess caller([&]() -> std::string {
    if (!MountOwnTmpfs(device, "size=40m")) return "no namespace";
    const fs::path path = device / "archive";
    const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    ArchiveWriter writer(fd.get(), 1, progress_);
    writer.KeepRoom(1 << 20);
    std::string dots;
    dots.resize(17'000'000, '.');
    EntrySource source;
    source.size = 20'000'000;
    source.read = [&, filled = false, step = InSteps(text, 131'072)](char* buffer,
                                                                     std::size_t capacity) mutable {
      const ssize_t count = step(buffer, capacity);
      if (count > 0 || filled) return count;
      filled = true;
      FillDevice(device);
      step = InSteps(dots, 131'072);
      return step(buffer, capacity);
    };
    writer.AddText("before", "text", 0);
    const WrittenEntry cut = writer.Add("cut", source);
    if (cut.no_room != ENOSPC || cut.left_out) return "not cut";
    const WrittenEntry refused = writer.AddText("refused", std::string(100'000, 'x'), 0);
    if (refused.no_room != ENOSPC || !refused.left_out) return "not refused";
    writer.AddText("last", RandomLetters(1 << 20), 0, nullptr, true);
    writer.Close();
    const ArchiveContent content = ReadArchive(path);
    if (content.Names() != std::vector<std::string>{"before", "cut", "last"}) return "not its entries";
    const std::string there = content.Of("cut");
    if (there.compare(0, text.size(), text) != 0) return "not what came before";
    const std::size_t zeros = there.size() - there.find_last_not_of('\0') - 1;
    return zeros == cut.missing_bytes ? "fine" : "not its zeros";
  });
  if (caller.Answer() == "no namespace") GTEST_SKIP() << "no private mounts here";
  EXPECT_EQ(caller.Answer(), "fine");
}

TEST_F(ArchiveWriterTest, RoomThatWasReservedIsGivenBackAtTheEnd) {
  struct stat status = {};
  writer_.AddText("a", RandomLetters(1'000'000), 0);
  ASSERT_EQ(fstat(archive_fd_.get(), &status), 0);
  EXPECT_GT(status.st_blocks * 512, 1'000'000) << "nothing was reserved";
  Close();
  ASSERT_EQ(fstat(archive_fd_.get(), &status), 0);
  EXPECT_LT(status.st_blocks * 512, status.st_size + 65'536);
}

TEST_F(ArchiveWriterTest, ProgressTellsBytesAndFiles) {
  writer_.AddText("a", std::string(1000, 'a'), 0);
  writer_.AddText("b", "bc", 0);
  EXPECT_EQ(ReadText(folder_ / "progress"), "{\"bytes\":1002,\"files\":2}\n");
}

TEST_F(ArchiveWriterTest, FullDiskIsAnErrorThatNamesItsCause) {
  const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  try {
    ArchiveWriter writer(full.get(), 1, progress_);
    writer.AddText("a", "text", 0);
    writer.Close();
    FAIL() << "no error";
  } catch (const ArchiveFailed& error) {
    EXPECT_THAT(error.what(), testing::HasSubstr("archive: No space left on device"));
  }
}

}  // namespace
}  // namespace TARVO::SupportForm
