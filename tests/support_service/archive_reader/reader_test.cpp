/// What the reader tells of archives as they should be, and of names as nobody should give them.
#include <gmock/gmock.h>

#include "reader_program.h"

namespace TarvoOrvane::ArchiveReader {
namespace {

using test_support::MadeArchive;
using test_support::PaxHeader;
using test_support::PaxRecord;
using test_support::TarEntry;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::vector<TarEntry>& Kinds() {
  static const std::vector<TarEntry> entries = {{"apps/", "", '5'},
                                                {"apps/mail.log", "line 1\nline 2\n"},
                                                {"apps/link", "", '2', "/etc/passwd"},
                                                {"apps/hard", "", '1', "apps/mail.log"},
                                                {"dev/null", "", '3'},
                                                {"manifest.json", R"({"entries": []})"}};
  return entries;
}

TEST(ReaderTest, ListTellsEachEntry) {
  const ReaderResult result = RunReader({"list", "0", "100"}, MadeArchive(Kinds()));
  EXPECT_EQ(result.end(), ReaderEnd::kComplete);
  EXPECT_THAT(
      result.lines(),
      ElementsAre(
          R"({"number":1,"name":"apps/","kind":"folder","size":0,"modified":1700000000})",
          R"({"number":2,"name":"apps/mail.log","kind":"file","size":14,"modified":1700000000})",
          R"({"number":3,"name":"apps/link","kind":"link","size":0,"modified":1700000000,"target":"/etc/passwd"})",
          R"({"number":4,"name":"apps/hard","kind":"link","size":0,"modified":1700000000,"target":"apps/mail.log"})",
          R"({"number":5,"name":"dev/null","kind":"other","size":0,"modified":1700000000})",
          R"({"number":6,"name":"manifest.json","kind":"file","size":15,"modified":1700000000})"));
}

TEST(ReaderTest, ListBeginsAndEndsWhereItIsAskedTo) {
  const std::string archive = MadeArchive(std::vector<TarEntry>{{"a"}, {"b"}, {"c"}, {"d"}});
  const auto names = [&](const char* after, const char* limit) {
    const ReaderResult result = RunReader({"list", after, limit}, archive);
    EXPECT_EQ(result.end(), ReaderEnd::kComplete);
    return result.names();
  };
  EXPECT_THAT(names("0", "2"), ElementsAre("a", "b"));
  EXPECT_THAT(names("2", "2"), ElementsAre("c", "d"));
  EXPECT_THAT(names("3", "2"), ElementsAre("d"));
  EXPECT_THAT(names("4", "2"), IsEmpty());
  EXPECT_THAT(names("18446744073709551615", "2"), IsEmpty());
  EXPECT_THAT(names("0", "0"), IsEmpty());
}

TEST(ReaderTest, NamesAreShownSoThatTheyDoNoHarm) {
  struct Row {
    std::string name;
    std::string shown;
  };
  const std::vector<Row> rows = {
      {"../../etc/passwd", "../../etc/passwd"},
      {"/etc/passwd", "/etc/passwd"},
      {"<script>alert(1)</script>", "<script>alert(1)</script>"},
      {"a\"b", "a\"b"},
      {"a\\x0ab", "a\\\\x0ab"},
      {"a\nb\rc\td\x1b[31m\x7f", "a\\x0ab\\x0dc\\x09d\\x1b[31m\\x7f"},
      {"gr\xc3\xbc\xc3\x9f", "gr\xc3\xbc\xc3\x9f"},
      {"\xff\xfe\xc3", "\\xff\\xfe\\xc3"},
      {"txt.\xe2\x80\xaegpj", "txt.\\xe2\\x80\\xaegpj"},  // NOLINT(misc-misleading-bidirectional)
      {"\xc2\x85", "\\xc2\\x85"},
      {"\xed\xa0\x80\xc0\xaf", "\\xed\\xa0\\x80\\xc0\\xaf"}};
  std::vector<TarEntry> entries;
  std::vector<std::string> shown;
  for (const Row& row : rows) {
    entries.push_back({row.name, "", '2', row.name});
    shown.push_back(row.shown);
  }
  const ReaderResult result = RunReader({"list", "0", "100"}, MadeArchive(entries));
  EXPECT_EQ(result.end(), ReaderEnd::kComplete);
  EXPECT_EQ(result.names(), shown);
  for (const std::string& line : result.lines()) {
    EXPECT_EQ(line.find_first_of("\x1b\r\t\x7f\xff"), std::string::npos) << line;
  }
}

TEST(ReaderTest, NamesOfPaxArchivesAreReadWithoutConverters) {
  // Each of them has the library look for a converter of charsets, which is a file that the sandbox keeps from it.
  const std::string entry = test_support::TarOf({"short"});
  const auto pax = [&](const std::string& records) { return PaxHeader(records) + entry; };
  const std::string tar = pax(PaxRecord("path", "a\xc3\xbc")) + pax(PaxRecord("path", "a\xff")) +
                          pax(PaxRecord("hdrcharset", "BINARY") + PaxRecord("path", "b\xff")) +
                          pax(PaxRecord("hdrcharset", "ISO-IR 10646 2000 UTF-8") + PaxRecord("path", "c")) +
                          pax(PaxRecord("hdrcharset", "ISO-8859-1") + PaxRecord("path", "d")) +
                          test_support::TarEnd();
  const ReaderResult result = RunReader({"list", "0", "100"}, test_support::Zstd(tar));
  EXPECT_EQ(result.end(), ReaderEnd::kComplete);
  EXPECT_THAT(result.names(), ElementsAre("a\xc3\xbc", "a\\xff", "b\\xff", "c", "d"));
}

// ---- content ----

struct WindowCase {
  const char* number;
  const char* offset;
  const char* length;
  ReaderEnd end;
  std::string content;
};

TEST(ReaderTest, ReadGivesTheBytesThatAreAskedFor) {
  const WindowCase cases[] = {{"2", "0", "100", ReaderEnd::kComplete, "line 1\nline 2\n"},
                              {"2", "0", "18446744073709551615", ReaderEnd::kComplete, "line 1\nline 2\n"},
                              {"2", "5", "3", ReaderEnd::kComplete, "1\nl"},
                              {"2", "13", "1", ReaderEnd::kComplete, "\n"},
                              {"2", "14", "5", ReaderEnd::kComplete, ""},
                              {"2", "15", "5", ReaderEnd::kBehindEnd, ""},
                              {"2", "3", "0", ReaderEnd::kComplete, ""},
                              {"1", "0", "5", ReaderEnd::kNoContent, ""},
                              {"3", "0", "5", ReaderEnd::kNoContent, ""},
                              {"4", "0", "5", ReaderEnd::kNoContent, ""},
                              {"5", "0", "5", ReaderEnd::kNoContent, ""},
                              {"0", "0", "5", ReaderEnd::kNoEntry, ""},
                              {"7", "0", "5", ReaderEnd::kNoEntry, ""}};
  for (const WindowCase& row : cases) {
    const std::string what = std::string(row.number) + " " + row.offset + " " + row.length;
    const ReaderResult result = RunReader({"read", row.number, row.offset, row.length}, MadeArchive(Kinds()));
    EXPECT_EQ(result.end(), row.end) << what;
    if (row.end == ReaderEnd::kComplete) {
      EXPECT_THAT(result.output, HasSubstr(R"("name":"apps/mail.log")"));
    }
    if (row.end != ReaderEnd::kComplete) {
      EXPECT_EQ(result.output, "") << what;
    }
    if (row.end == ReaderEnd::kComplete) {
      EXPECT_EQ(result.content(), row.content) << what;
    }
  }
}

TEST(ReaderTest, LargeContentIsReadAtAnyPlace) {
  std::string content;
  while (content.size() < 3'000'000) content += std::to_string(content.size()) + "\n";
  const std::string archive = MadeArchive(std::vector<TarEntry>{{"before", content}, {"log", content}});
  for (const std::size_t offset :
       {std::size_t{0}, std::size_t{131'072}, std::size_t{1'999'999}, content.size() - 1}) {
    const ReaderResult result = RunReader({"read", "2", std::to_string(offset), "700000"}, archive);
    EXPECT_EQ(result.end(), ReaderEnd::kComplete);
    EXPECT_TRUE(result.content() == content.substr(offset, 700'000)) << offset;
  }
}

TEST(ReaderTest, TextIsUtf8AndEndsWithAWholeCharacter) {
  struct Row {
    std::string content;
    const char* offset;
    const char* length;
    std::string text;
    std::string bounds;
  };
  const std::string bad = "\xef\xbf\xbd";
  const Row rows[] = {{"abc", "0", "10", "abc", R"("begin":0,"end":3})"},
                      {"a\xff\xc3(b", "0", "10", "a" + bad + bad + "(b", R"("begin":0,"end":5})"},
                      {"a\xe2\x82\xac\n", "0", "3", "a", R"("begin":0,"end":1})"},
                      {"a\xe2\x82\xac\n", "0", "4", "a\xe2\x82\xac", R"("begin":0,"end":4})"},
                      {"a\xe2\x82\xac\n", "2", "9", bad + bad + "\n", R"("begin":2,"end":5})"},
                      {"\xe2\x82\xac", "0", "1", bad, R"("begin":0,"end":1})"},
                      {"a\xe2\x82", "0", "9", "a" + bad + bad, R"("begin":0,"end":3})"},
                      {"abc", "3", "9", "", R"("begin":3,"end":3})"},
                      {std::string("a\0b", 3), "0", "9", std::string("a\0b", 3), R"("begin":0,"end":3})"}};
  for (const Row& row : rows) {
    const ReaderResult result = RunReader({"text", "1", row.offset, row.length},
                                          MadeArchive(std::vector<TarEntry>{{"a", row.content}}));
    EXPECT_EQ(result.end(), ReaderEnd::kComplete);
    EXPECT_EQ(result.content(), row.text) << row.content << " from " << row.offset;
    const std::string line = result.output.substr(0, result.output.find('\n'));
    EXPECT_THAT(line, ::testing::EndsWith(row.bounds));
  }
}

TEST(ReaderTest, LongTextIsTheSameInPartsAndHasNoPartTwice) {
  std::string content;
  while (content.size() < 300'000) {
    content += "\xe2\x82\xac " + std::to_string(content.size()) + "\xf0\x9f\x98\x80\n";
  }
  const std::string archive = MadeArchive(std::vector<TarEntry>{{"log", content}});
  EXPECT_TRUE(RunReader({"text", "1", "0", "1000000"}, archive).content() == content);
  std::string all;
  while (all.size() < content.size()) {
    const std::string part = RunReader({"text", "1", std::to_string(all.size()), "50001"}, archive).content();
    ASSERT_FALSE(part.empty());
    all += part;
  }
  EXPECT_TRUE(all == content);
}

TEST(ReaderTest, TextIsNoLongerThanItsLimit) {
  const std::string archive = MadeArchive(std::vector<TarEntry>{{"log", std::string((16U << 20U) + 5, 'x')}});
  EXPECT_EQ(RunReader({"text", "1", "0", "999999999"}, archive).content().size(), 16U << 20U);
}

// ---- the manifest ----

TEST(ReaderTest, ManifestIsTheLastEntryOfItsName) {
  const std::string archive = MadeArchive(std::vector<TarEntry>{{"manifest.json", "no json"},
                                                                {"apps/manifest.json", "{}"},
                                                                {"manifest.json", "{\"a\": [1, null]}\n"},
                                                                {"x"}});
  const ReaderResult result = RunReader({"manifest"}, archive);
  EXPECT_EQ(result.end(), ReaderEnd::kComplete);
  EXPECT_EQ(result.content(), "{\"a\": [1, null]}\n");
}

TEST(ReaderTest, ManifestThatIsNoneIsRefused) {
  const auto end_with = [](const TarEntry& entry) {
    const ReaderResult result = RunReader({"manifest"}, MadeArchive(std::vector<TarEntry>{entry}));
    EXPECT_EQ(result.output, "");
    return result.end();
  };
  EXPECT_EQ(end_with({"other.json", "{}"}), ReaderEnd::kNoManifest);
  EXPECT_EQ(end_with({"manifest.json", "", '2', "/etc/passwd"}), ReaderEnd::kNoManifest);
  EXPECT_EQ(end_with({"manifest.json", "", '5'}), ReaderEnd::kNoManifest);
  for (const char* text : {"", "[]", "1", "{", "{}{}", "{\"a\":\xff}", "<html>"}) {
    EXPECT_EQ(end_with({"manifest.json", text}), ReaderEnd::kManifestIsNoObject) << text;
  }
}

TEST(ReaderTest, ManifestHasALimit) {
  const std::size_t most = 16U << 20U;
  const auto with = [&](std::size_t size) {
    return RunReader(
        {"manifest"},
        MadeArchive(std::vector<TarEntry>{{"manifest.json", "{" + std::string(size - 2, ' ') + "}"}}));
  };
  EXPECT_EQ(with(most).content().size(), most);
  EXPECT_EQ(with(most + 1).end(), ReaderEnd::kManifestTooLarge);
}

// ---- arguments ----

TEST(ReaderTest, OtherArgumentsAreRefused) {
  const std::vector<std::vector<std::string>> wrong = {{},
                                                       {"list"},
                                                       {"list", "0"},
                                                       {"list", "0", "1", "2"},
                                                       {"list", "x", "1"},
                                                       {"list", "-1", "1"},
                                                       {"list", "", "1"},
                                                       {"read", "1", "0"},
                                                       {"text", "1", "0", "18446744073709551616"},
                                                       {"manifest", "1"},
                                                       {"help"},
                                                       {"run", "1", "2", "3"}};
  for (const auto& arguments : wrong) {
    const ReaderResult result = RunReader(arguments, MadeArchive(Kinds()));
    EXPECT_EQ(result.end(), ReaderEnd::kMisused) << ::testing::PrintToString(arguments);
    EXPECT_EQ(result.output, "");
  }
}

}  // namespace
}  // namespace TarvoOrvane::ArchiveReader
