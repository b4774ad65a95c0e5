/// Archives that are damaged, none, or made to cost as much as they can.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "commands.h"
#include "reader_program.h"

namespace TarvoOrvane::ArchiveReader {
namespace {

using test_support::MadeArchive;
using test_support::Padded;
using test_support::PaxHeader;
using test_support::PaxRecord;
using test_support::Tar;
using test_support::TarEnd;
using test_support::TarEntry;
using test_support::TarHeader;
using test_support::TarOf;
using test_support::Zstd;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;

/// The libraries and a window take some 10 MiB. A program that kept what it reads would have many times as much as this.
constexpr std::uint64_t kModestBytes = std::uint64_t{100} << 20;
/// Frames that hold so much make up what is too large for the test, whose own memory counts as the reader's until that
/// runs its program.
constexpr std::size_t kPieceBytes = std::size_t{1} << 20;
#ifdef READER_WIDE_SANDBOX
constexpr bool kMemoryCounts = false;
#else
constexpr bool kMemoryCounts = true;
#endif

void ExpectModest(const ReaderResult& result) {
  rusage own{};
  ASSERT_EQ(getrusage(RUSAGE_SELF, &own), 0);
  if (kMemoryCounts) {
    EXPECT_LT(result.peak_bytes, kModestBytes + static_cast<std::uint64_t>(own.ru_maxrss) * 1024);
  }
}

std::string LogOf(std::size_t size) {
  std::string text;
  while (text.size() < size) text += "line " + std::to_string(text.size() * 7919) + "\n";
  return text;
}

// ---- damage ----

TEST(HostileArchiveTest, CutArchiveShowsWhatComesBeforeTheCut) {
  const std::vector<TarEntry> entries = {{"a", LogOf(3000)}, {"b", LogOf(5000)}, {"c", LogOf(2000)}};
  const std::string whole = MadeArchive(entries);
  const std::vector<std::string> all = {"a", "b", "c"};
  for (std::size_t size = 0; size < whole.size(); size += 61) {
    const ReaderResult result = RunReader({"list", "0", "100"}, whole.substr(0, size));
    EXPECT_EQ(result.end(), size == 0 ? ReaderEnd::kNoArchive : ReaderEnd::kDamaged) << size;
    const std::vector<std::string> names = result.names();
    ASSERT_LE(names.size(), all.size());
    EXPECT_TRUE(std::equal(names.begin(), names.end(), all.begin())) << size;
  }
  const ReaderResult last = RunReader({"list", "0", "100"}, whole.substr(0, whole.size() - 1));
  EXPECT_EQ(last.end(), ReaderEnd::kDamaged);
  EXPECT_EQ(last.names(), all);
}

TEST(HostileArchiveTest, ContentIsReadUpToTheCut) {
  const std::string content = LogOf(2'000'000);
  const std::string whole = MadeArchive(std::vector<TarEntry>{{"log", content}});
  const std::string half = whole.substr(0, whole.size() / 2);
  const ReaderResult bytes = RunReader({"read", "1", "0", "99999999"}, half);
  EXPECT_EQ(bytes.end(), ReaderEnd::kDamaged);
  EXPECT_GT(bytes.content().size(), 100'000U);
  EXPECT_TRUE(content.compare(0, bytes.content().size(), bytes.content()) == 0);
  EXPECT_EQ(RunReader({"read", "1", "0", "1000"}, half).end(), ReaderEnd::kComplete)
      << "what comes before is whole";

  const ReaderResult text = RunReader({"text", "1", "0", "99999999"}, half);
  EXPECT_EQ(text.end(), ReaderEnd::kDamaged);
  EXPECT_TRUE(text.content() == bytes.content());
  EXPECT_THAT(text.output, HasSubstr("\"end\":" + std::to_string(bytes.content().size()) + "}\n"));
  const ReaderResult behind = RunReader({"text", "1", std::to_string(bytes.content().size()), "100"}, half);
  EXPECT_EQ(behind.end(), ReaderEnd::kDamaged);
  EXPECT_EQ(behind.output, "");
  EXPECT_EQ(RunReader({"manifest"}, half).end(), ReaderEnd::kDamaged);
  EXPECT_EQ(RunReader({"read", "2", "0", "1"}, half).end(), ReaderEnd::kDamaged);
}

TEST(HostileArchiveTest, ChangedByteIsNoticed) {
  const std::vector<TarEntry> entries = {{"a", LogOf(3000)}, {"b", LogOf(3000)}};
  const std::string whole = MadeArchive(entries);
  const std::string listing = RunReader({"list", "0", "100"}, whole).output;
  for (std::size_t at = 0; at < whole.size(); at += 37) {
    std::string changed = whole;
    changed[at] = static_cast<char>(changed[at] ^ 0x41);
    const ReaderResult result = RunReader({"list", "0", "100"}, changed);
    // The size of the window may be another one, and all comes out the same.
    EXPECT_TRUE(result.end() != ReaderEnd::kComplete || result.output == listing) << at;
    EXPECT_LT(result.status, 128) << at;
  }
}

TEST(HostileArchiveTest, WhatStandsBehindTheEndCountsAsDamage) {
  const std::string archive = MadeArchive(std::vector<TarEntry>{{"a"}});
  EXPECT_EQ(RunReader({"list", "0", "9"}, archive + "more").end(), ReaderEnd::kDamaged);
  EXPECT_EQ(RunReader({"list", "0", "9"}, archive + archive.substr(0, 20)).end(), ReaderEnd::kDamaged);
  EXPECT_EQ(RunReader({"list", "0", "9"}, archive + Zstd("")).end(), ReaderEnd::kComplete);
}

TEST(HostileArchiveTest, WhatIsNoArchiveIsToldFromADamagedOne) {
  const std::string tar = Tar(std::vector<TarEntry>{{"a", "content"}});
  const std::string texts[] = {"",
                               "text",
                               std::string(100'000, 'x'),
                               std::string(100'000, '\0'),
                               tar,
                               std::string("\x1f\x8b\x08\0\0\0\0\0", 8),
                               Zstd("text"),
                               Zstd(""),
                               Zstd(LogOf(10'000)),
                               Zstd(Zstd(tar))};
  for (const std::string& text : texts) {
    for (const std::vector<std::string>& command : {std::vector<std::string>{"list", "0", "9"},
                                                    {"manifest"},
                                                    {"read", "1", "0", "9"},
                                                    {"text", "1", "0", "9"}}) {
      const ReaderResult result = RunReader(command, text);
      EXPECT_EQ(result.end(), ReaderEnd::kNoArchive) << command[0] << " " << text.substr(0, 10);
      EXPECT_EQ(result.output, "");
    }
  }
}

TEST(HostileArchiveTest, ArchiveMayBeEmpty) {
  const ReaderResult result = RunReader({"list", "0", "9"}, Zstd(TarEnd()));
  EXPECT_EQ(result.end(), ReaderEnd::kComplete);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(RunReader({"manifest"}, Zstd(TarEnd())).end(), ReaderEnd::kNoManifest);
}

TEST(HostileArchiveTest, FileThatCanNotBeReadIsNotTakenForADamagedOne) {
  const int folder = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  EXPECT_EQ(RunReader({"list", "0", "9"}, folder).end(), ReaderEnd::kInputFailed);
  close(folder);
}

// ---- limits ----

/// Entries without content.
/// @param file  Gets a frame for a thousand of them.
void PutEntries(const ArchiveFile& file, std::uint64_t count) {
  std::string tar;
  for (std::uint64_t i = 1; i <= count; ++i) {
    tar += TarHeader({"logs/" + std::to_string(i)}, 0);
    if (i % 1000 != 0 && i != count) continue;
    file.Append(Zstd(tar));
    tar.clear();
  }
  file.Append(Zstd(TarEnd()));
}

TEST(HostileArchiveTest, MillionEntriesAreListedInLittleMemory) {
  const ArchiveFile file;
  PutEntries(file, 1'000'000);
  const ReaderResult all = RunReader({"list", "0", "9999999"}, file.fd(), 100);
  EXPECT_EQ(all.end(), ReaderEnd::kComplete);
  ExpectModest(all);
  const ReaderResult last = RunReader({"list", "999998", "9"}, file.fd());
  EXPECT_THAT(last.names(), ElementsAre("logs/999999", "logs/1000000"));
}

TEST(HostileArchiveTest, OneEntryMoreIsRefused) {
  const ArchiveFile file;
  PutEntries(file, 1'000'001);
  const ReaderResult result = RunReader({"list", "999998", "9"}, file.fd());
  EXPECT_EQ(result.end(), ReaderEnd::kTooManyEntries);
  EXPECT_THAT(result.names(), ElementsAre("logs/999999", "logs/1000000"));
}

TEST(HostileArchiveTest, NameHasALimit) {
  const std::string longest(4096, 'x');
  const std::string archive =
      MadeArchive(std::vector<TarEntry>{{longest}, {"a", "", '2', longest}, {"b"}, {longest + "x"}, {"c"}});
  const ReaderResult result = RunReader({"list", "0", "9"}, archive);
  EXPECT_EQ(result.end(), ReaderEnd::kNameTooLong);
  EXPECT_THAT(result.names(), ElementsAre(longest, "a", "b"));
  const ReaderResult target = RunReader(
      {"list", "0", "9"}, MadeArchive(std::vector<TarEntry>{{"a"}, {"b", "", '2', longest + "x"}, {"c"}}));
  EXPECT_EQ(target.end(), ReaderEnd::kNameTooLong);
  EXPECT_THAT(target.names(), ElementsAre("a"));
}

TEST(HostileArchiveTest, HugeNameTakesLittleMemory) {
  // The frames hold a name of a gigabyte, as GNU tar and as pax write it.
  const std::string piece = Zstd(std::string(kPieceBytes, 'n'));
  for (const char type : {'L', 'x', 'g', 'K'}) {
    const ArchiveFile file(Zstd(TarHeader({"name", "", type}, std::uint64_t{1} << 30)));
    for (std::size_t i = 0; i < (std::size_t{1} << 30) / kPieceBytes; ++i) file.Append(piece);
    file.Append(Zstd(TarOf({"after"}) + TarEnd()));
    const ReaderResult result = RunReader({"list", "0", "9"}, file.fd());
    EXPECT_LT(result.status, 128) << type;
    ExpectModest(result);
  }
}

/// An archive that unpacks to as many GiB of zeros.
void PutZeros(const ArchiveFile& file, std::uint64_t gigabytes) {
  const std::string piece = Zstd(std::string(kPieceBytes, '\0'));
  file.Append(Zstd(TarHeader({"zeros", "", '0'}, gigabytes << 30U)));
  for (std::uint64_t i = 0; i < (gigabytes << 30U) / kPieceBytes; ++i) file.Append(piece);
  file.Append(Zstd(TarOf({"after", "x"}) + TarEnd()));
}

TEST(HostileArchiveTest, BombIsUnpackedUpToTheLimitInLittleMemory) {
  const ArchiveFile file;
  PutZeros(file, 17);
  const ReaderResult result = RunReader({"list", "0", "9"}, file.fd());
  EXPECT_EQ(result.end(), ReaderEnd::kTooMuchContent);
  EXPECT_THAT(result.names(), ElementsAre("zeros"));
  ExpectModest(result);
}

TEST(HostileArchiveTest, LargeEntryIsReadInLittleMemory) {
  const ArchiveFile file;
  PutZeros(file, 1);
  const ReaderResult result = RunReader({"read", "1", "0", "99999999999"}, file.fd(), 100);
  EXPECT_EQ(result.end(), ReaderEnd::kComplete);
  ExpectModest(result);
}

TEST(HostileArchiveTest, UnpackedBytesAreCountedExactly) {
  const std::string tar = Tar(std::vector<TarEntry>{{"a", LogOf(300'000)}});
  const ArchiveFile file(Zstd(tar));
  const auto end_with = [&](std::uint64_t bytes) {
    ReadLimits limits;
    limits.unpacked_bytes = bytes;
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    lseek(file.fd(), 0, SEEK_SET);
    const ReaderEnd end = DoCommand({"list", "0", "9"}, file.fd(), nowhere, limits);
    close(nowhere);
    return end;
  };
  EXPECT_EQ(end_with(tar.size()), ReaderEnd::kComplete);
  EXPECT_EQ(end_with(tar.size() - 1), ReaderEnd::kTooMuchContent);
}

TEST(HostileArchiveTest, ProcessorsTimeHasALimit) {
  const ArchiveFile file(Zstd(Tar(std::vector<TarEntry>{{"a"}})));
  ReadLimits limits;
  limits.cpu_seconds = 0;
  EXPECT_EQ(DoCommand({"list", "0", "9"}, file.fd(), STDOUT_FILENO, limits), ReaderEnd::kTooMuchTime);
}

TEST(HostileArchiveTest, WindowHasALimit) {
  // A frame's header: no size, no checksum, and a window of 2 to the 27th bytes, or the 26th.
  const auto end_with = [](char window) {
    return RunReader({"list", "0", "9"},
                     std::string("\x28\xb5\x2f\xfd\x00", 5) + window + std::string("\x01\0\0", 3))
        .end();
  };
  EXPECT_EQ(end_with('\x88'), ReaderEnd::kTooMuchMemory);
  EXPECT_EQ(end_with('\x80'), ReaderEnd::kNoArchive);
}

// ---- other tricks ----

TEST(HostileArchiveTest, SizeThatIsNotThereIsNoContent) {
  for (const std::uint64_t size : {std::uint64_t{1000}, std::uint64_t{077777777777}}) {
    const std::string archive = Zstd(TarHeader({"a"}, size) + Padded("short"));
    EXPECT_EQ(RunReader({"list", "0", "9"}, archive).end(), ReaderEnd::kDamaged);
    const ReaderResult result = RunReader({"read", "1", "0", "99999"}, archive);
    EXPECT_EQ(result.end(), ReaderEnd::kDamaged);
    EXPECT_LE(result.content().size(), 512U);
  }
}

TEST(HostileArchiveTest, HolesOfAFileAreNotFilled) {
  const std::string map = Padded("1\n8999999999999488\n512\n");
  const std::string tar =
      PaxHeader(PaxRecord("GNU.sparse.major", "1") + PaxRecord("GNU.sparse.minor", "0") +
                PaxRecord("GNU.sparse.name", "a") + PaxRecord("GNU.sparse.realsize", "9000000000000000")) +
      TarHeader({"a"}, map.size() + 512) + map + std::string(512, 'x') + TarOf({"b"}) + TarEnd();
  const ReaderResult list = RunReader({"list", "0", "9"}, Zstd(tar));
  EXPECT_EQ(list.end(), ReaderEnd::kComplete);
  EXPECT_THAT(list.lines(), SizeIs(2));
  EXPECT_THAT(list.output, HasSubstr(R"("name":"a","kind":"other")"));
  EXPECT_EQ(RunReader({"read", "1", "0", "99999"}, Zstd(tar)).end(), ReaderEnd::kNoContent);
}

}  // namespace
}  // namespace TarvoOrvane::ArchiveReader
