#include "collection.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "support_log_fixture.h"
#include "task_folder.h"

namespace TARVO::SupportForm {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

const std::string kTask(32, 'a');

class CollectionTest : public SupportLogTest {
 protected:
  /// Makes an archive for the applications of a JSON array, and reads it.
  ArchiveContent Collect(const std::string& app_list) {
    fs::create_directories(Task());
    fs::remove(Task() / kArchiveFile);
    const UniqueFd folder(open(Task().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    MakeArchive(paths_, limits_, folder.get(), kTask, ParseJson(app_list));
    return ReadArchive(Task() / kArchiveFile);
  }
  [[nodiscard]] fs::path Task() const { return fs::path(paths_.state) / kTask; }
  [[nodiscard]] std::string InFiles(const std::string& app, const std::string& file) const {
    return "apps/" + app + "/files" + (data_ / file).string();
  }
  void DescribePaths(const std::string& app, const std::string& pattern) {
    Describe(app, R"({"paths": [")" + (data_ / pattern).string() + R"("]})");
  }
};

TEST_F(CollectionTest, HoldsTheSystemsEntriesThenTheApplicationsAndLastTheManifest) {
  WriteText(data_ / "demo.log", "a line\n");
  DescribePaths("demo", "*.log");
  const ArchiveContent archive = Collect(R"(["demo"])");
  EXPECT_THAT(archive.Names(), ElementsAre("system/os-release", "system/uname", "system/uptime", "system/df",
                                           "system/meminfo", "system/ps", "system/mounts", "system/network",
                                           "system/journal", InFiles("demo", "demo.log"), "manifest.json"));
  for (const auto& [name, content] : archive.entries) EXPECT_NE(content, "") << name;
  EXPECT_THAT(archive.Of("system/meminfo"), HasSubstr("MemTotal"));
  EXPECT_EQ(archive.Of("system/journal"), "a journal line\n");
  EXPECT_EQ(archive.Of(InFiles("demo", "demo.log")), "a line\n");
}

TEST_F(CollectionTest, ManifestMatchesTheArchiveEntryByEntry) {
  WriteText(data_ / "demo.log", "a line with \"token\": \"secret\"\n");
  WriteText(data_ / "empty.log", "");
  Describe("demo", R"({"description": "An example", "paths": [")" + (data_ / "*").string() +
                       R"("], "commands": [{"argv": ["echo", "hello"]}]})");
  const ArchiveContent archive = Collect(R"(["demo"])");
  const Json::Value manifest = archive.ManifestJson();
  ASSERT_EQ(manifest["entries"].size(), archive.entries.size() - 1);
  std::uint64_t bytes = 0;
  for (Json::ArrayIndex i = 0; i < manifest["entries"].size(); ++i) {
    const Json::Value& record = manifest["entries"][i];
    const auto& [name, content] = archive.entries[i];
    EXPECT_EQ(record["name"].asString(), name);
    EXPECT_EQ(record["size"].asUInt64(), content.size()) << name;
    EXPECT_EQ(record["sha256"].asString(), Sha256Of(content)) << name;
    EXPECT_NE(record.isMember("source"), record.isMember("argv")) << name;
    bytes += content.size();
  }
  EXPECT_EQ(manifest["totals"]["bytes"].asUInt64(), bytes);
  EXPECT_EQ(manifest["totals"]["entries"].asUInt64(), archive.entries.size() - 1);
  EXPECT_EQ(manifest["totals"]["errors"].asUInt64(), 0U);
  EXPECT_EQ(manifest["task_id"].asString(), kTask);
  EXPECT_EQ(manifest["asked"]["app_list"], ParseJson(R"(["demo"])"));
  EXPECT_EQ(manifest["applications"][0]["description"].asString(), "An example");
  EXPECT_THAT(manifest["started"].asString(), testing::MatchesRegex("20..-..-..T..:..:..Z"));
  EXPECT_THAT(manifest["ended"].asString(), testing::MatchesRegex("20..-..-..T..:..:..Z"));
  EXPECT_NE(manifest["host"]["name"].asString(), "");
}

TEST_F(CollectionTest, ArchiveOpensWithTar) {
  if (system("tar --version >/dev/null 2>&1 && zstd --version >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "no tar or zstd";
  const std::string long_name(180, 'n');
  WriteText(data_ / long_name, "x");
  WriteText(data_ / "gr\xc3\xbc\xc3\x9f", "x");
  DescribePaths("demo", "*");
  const ArchiveContent archive = Collect(R"(["demo"])");
  const std::string list = folder_ / "list";
  ASSERT_EQ(system(("tar --zstd -tf " + (Task() / kArchiveFile).string() + " --quoting-style=literal > " +
                    list + " 2>&1")
                       .c_str()),
            0);
  std::string expected;
  for (const std::string& name : archive.Names()) expected += name + "\n";
  EXPECT_EQ(ReadText(list), expected);
  EXPECT_THAT(expected, HasSubstr("gr\xc3\xbc\xc3\x9f"));
  EXPECT_THAT(expected, HasSubstr(long_name));
}

TEST_F(CollectionTest, ArchiveIsForItsOwnerOnlyAndNothingElseIsLeft) {
  umask(0);
  Collect("[]");
  umask(022);
  struct stat status = {};
  ASSERT_EQ(stat((Task() / kArchiveFile).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(Task())) names.push_back(entry.path().filename());
  EXPECT_THAT(names, testing::UnorderedElementsAre("debug.dat", "progress"));
}

TEST_F(CollectionTest, EmptyApplicationListGivesTheSystemsPart) {
  const ArchiveContent archive = Collect("[]");
  EXPECT_TRUE(archive.Has("system/uname"));
  EXPECT_THAT(archive.Errors(), IsEmpty());
}

TEST_F(CollectionTest, NamesThatAreInvalidUnknownOrRepeatedAreLinesInTheManifest) {
  WriteText(data_ / "a", "x");
  DescribePaths("demo", "a");
  const ArchiveContent archive =
      Collect(R"([12, null, ["demo"], {"token": {"x": "deep"}}, "", "../demo", "unknown", "demo", "demo"])");
  EXPECT_THAT(archive.Errors(),
              ElementsAre("apps: not an application name: 12", "apps: not an application name: null",
                          "apps: not an application name: [\"demo\"]",
                          AllOf(StartsWith("apps: not an application name: {"), Not(HasSubstr("deep"))),
                          "apps: not an application name: \"\"", "apps: not an application name: \"../demo\"",
                          HasSubstr("apps/unknown: unknown application"),
                          HasSubstr("apps/demo: asked for more than once")));
  EXPECT_TRUE(archive.Has(InFiles("demo", "a")));
  EXPECT_THAT(archive.Of("manifest.json"), Not(HasSubstr("deep")));
}

TEST_F(CollectionTest, FaultyDescriptionCostsThatApplicationOnly) {
  WriteText(data_ / "a", "x");
  Describe("broken", R"({"path": ["/etc/passwd"]})");
  DescribePaths("demo", "a");
  const ArchiveContent archive = Collect(R"(["broken", "demo"])");
  EXPECT_THAT(archive.Errors(),
              ElementsAre(AllOf(StartsWith("apps/broken: "), HasSubstr("unknown member \"path\""))));
  EXPECT_TRUE(archive.Has(InFiles("demo", "a")));
}

TEST_F(CollectionTest, TokensAreMaskedEverywhere) {
  const std::string ticket = R"({"token":"s3cret","apps":["demo"]})";
  const std::string quoted = R"({\"token\":\"s3cret\"})";
  Program("journalctl", "echo 'Receive a request(" + ticket + ") from'");
  WriteText(data_ / "a.log", "line " + ticket + "\n{\"msg\":\"" + quoted + "\"}\n");
  Describe("demo", R"({"description": "has )" + quoted + R"(", "paths": [")" + (data_ / "*.log").string() +
                       R"("], "commands": [{"argv": ["echo", ")" + quoted + R"("]}]})");
  const ArchiveContent archive = Collect(R"(["demo", "{\"token\":\"s3cret\"}", {"token":"s3cret"}])");
  for (const auto& [name, content] : archive.entries) {
    EXPECT_THAT(content, Not(HasSubstr("s3cret"))) << name;
  }
  EXPECT_EQ(archive.Of("system/journal"),
            "Receive a request({\"token\":\"******\",\"apps\":[\"demo\"]}) from\n");
  EXPECT_EQ(archive.Of("apps/demo/commands/01-echo.txt"), "{\"token\":\"******\"}\n");
  EXPECT_THAT(archive.Errors(), Contains(HasSubstr(R"("{\"token\":\"******\"}")")));
  EXPECT_EQ(archive.ManifestJson()["asked"]["app_list"][2]["token"].asString(), "******");
}

TEST_F(CollectionTest, OverlappingPatternsTakeAFileOnce) {
  WriteText(data_ / "d" / "a.log", "x");
  Describe("demo", R"({"paths": [")" + (data_ / "d").string() + R"(", ")" + (data_ / "d" / "*.log").string() +
                       R"("]})");
  const ArchiveContent archive = Collect(R"(["demo"])");
  EXPECT_EQ(archive.ManifestJson()["entries"].size(), 10U);
  EXPECT_THAT(archive.Errors(), IsEmpty());
}

TEST_F(CollectionTest, LinksAndSpecialFilesAndPatternsWithoutAMatchAreLinesInTheManifest) {
  fs::create_symlink("/etc/passwd", data_ / "link");
  ASSERT_EQ(mkfifo((data_ / "pipe").c_str(), 0600), 0);
  Describe("demo", R"({"paths": [")" + (data_ / "*").string() + R"(", "/no/such/file"]})");
  const ArchiveContent archive = Collect(R"(["demo"])");
  EXPECT_THAT(archive.Errors(),
              ElementsAre("apps/demo: " + (data_ / "link").string() + ": a symbolic link, not followed",
                          "apps/demo: " + (data_ / "pipe").string() + ": not a regular file",
                          "apps/demo: /no/such/file: matches nothing"));
  EXPECT_EQ(archive.ManifestJson()["entries"].size(), 9U);
}

TEST_F(CollectionTest, FilesOfTheKernelAreTakenThoughTheirSizeIsNotKnown) {
  Describe("demo", R"({"paths": ["/proc/version", "/proc/self/limits"]})");
  const ArchiveContent archive = Collect(R"(["demo"])");
  EXPECT_EQ(archive.Of("apps/demo/files/proc/version"), ReadText("/proc/version"));
  EXPECT_TRUE(archive.Record("apps/demo/files/proc/version")["notes"].isNull());
}

TEST_F(CollectionTest, LongFileIsCutToItsTailWithANote) {
  WriteText(data_ / "a.log", "old old old new");
  DescribePaths("demo", "a.log");
  limits_.file_bytes = 3;
  const ArchiveContent archive = Collect(R"(["demo"])");
  EXPECT_EQ(archive.Of(InFiles("demo", "a.log")), "new");
  EXPECT_THAT(archive.Record(InFiles("demo", "a.log"))["notes"][0].asString(),
              HasSubstr("last 3 of its 15 bytes"));
}

TEST_F(CollectionTest, WhatWouldPassTheArchivesBytesIsLeftOut) {
  WriteText(data_ / "1", std::string(2'000'000, 'a'));
  WriteText(data_ / "2", std::string(900'000, 'b'));
  WriteText(data_ / "3", std::string(2'000'000, 'c'));
  DescribePaths("demo", "*");
  limits_.archive_bytes = 3'500'000;
  const ArchiveContent archive = Collect(R"(["demo"])");
  EXPECT_TRUE(archive.Has(InFiles("demo", "1")));
  EXPECT_TRUE(archive.Has(InFiles("demo", "2")));
  EXPECT_FALSE(archive.Has(InFiles("demo", "3")));
  EXPECT_THAT(archive.Errors(), ElementsAre(HasSubstr("would pass 3500000")));
}

TEST_F(CollectionTest, WhatWouldPassTheArchivesEntriesIsLeftOutAndErrorsAreBounded) {
  for (int i = 0; i < 30; ++i) WriteText(data_ / std::to_string(i), "x");
  DescribePaths("demo", "*");
  limits_.archive_entries = 12;
  limits_.manifest_errors = 5;
  const ArchiveContent archive = Collect(R"(["demo"])");
  EXPECT_EQ(archive.entries.size(), 13U);
  EXPECT_EQ(archive.Errors().size(), 5U);
  EXPECT_EQ(archive.ManifestJson()["totals"]["errors"].asUInt64(), 27U);
}

TEST_F(CollectionTest, TaskWhoseTimeIsUpStillGivesAnArchive) {
  WriteText(data_ / "a", "x");
  Describe("demo", R"({"paths": [")" + (data_ / "a").string() + R"("], "commands": [{"argv": ["echo"]}]})");
  limits_.task_seconds = 0;
  const ArchiveContent archive = Collect(R"(["demo"])");
  EXPECT_TRUE(archive.Has("system/uname"));
  EXPECT_FALSE(archive.Has(InFiles("demo", "a")));
  EXPECT_FALSE(archive.Has("apps/demo/commands/01-echo.txt"));
  EXPECT_THAT(archive.Errors(), Contains(HasSubstr("seconds are over")));
}

TEST_F(CollectionTest, CommandsAreTakenWithTheirResults) {
  Describe("demo", R"({"commands": [{"argv": ["sh", "-c", "echo out; echo err >&2; exit 4"]},
                                    {"argv": ["/bin/echo", "second"]},
                                    {"argv": ["no_such_program_anywhere"]},
                                    {"argv": ["sh", "-c", "echo begun; sleep 300"], "time_limit_seconds": 1}]})");
  const ArchiveContent archive = Collect(R"(["demo"])");
  EXPECT_EQ(archive.Of("apps/demo/commands/01-sh.txt"), "out\nerr\n");
  EXPECT_EQ(archive.Record("apps/demo/commands/01-sh.txt")["exit_status"].asInt(), 4);
  EXPECT_EQ(archive.Record("apps/demo/commands/01-sh.txt")["argv"][0].asString(), "sh");
  EXPECT_EQ(archive.Of("apps/demo/commands/02-echo.txt"), "second\n");
  EXPECT_EQ(archive.Of("apps/demo/commands/04-sh.txt"), "begun\n");
  EXPECT_EQ(archive.Record("apps/demo/commands/04-sh.txt")["result"].asString(), "killed at its time limit");
  EXPECT_FALSE(archive.Record("apps/demo/commands/04-sh.txt").isMember("exit_status"));
  EXPECT_THAT(archive.Errors(), ElementsAre(HasSubstr("commands/03-no_such_program_anywhere.txt: ")));
}

TEST_F(CollectionTest, CommandOutputIsCutAtItsLimit) {
  Describe("demo", R"({"commands": [{"argv": ["yes", "line"]}]})");
  limits_.output_bytes = 5'000;
  const ArchiveContent archive = Collect(R"(["demo"])");
  EXPECT_EQ(archive.Of("apps/demo/commands/01-yes.txt").size(), 5'000U);
  EXPECT_THAT(archive.Record("apps/demo/commands/01-yes.txt")["result"].asString(), HasSubstr("cut"));
}

TEST_F(CollectionTest, KernelLogStandsInForASilentJournal) {
  Program("journalctl", "echo 'No journal files were found.' >&2; exit 1");
  Program("dmesg", "echo 'a kernel line'");
  const ArchiveContent archive = Collect("[]");
  EXPECT_FALSE(archive.Has("system/journal"));
  EXPECT_EQ(archive.Of("system/kernel-log"), "a kernel line\n");
  EXPECT_THAT(archive.Errors(), ElementsAre(HasSubstr("journalctl gave no output: exit status 1")));
}

TEST_F(CollectionTest, WithoutAnyLogTheManifestSaysSo) {
  paths_.programs = (folder_ / "nothing").string();
  const ArchiveContent archive = Collect("[]");
  EXPECT_THAT(archive.Errors(),
              ElementsAre(HasSubstr("system/journal: journalctl gave no output: not started"),
                          HasSubstr("system/kernel-log: dmesg gave no output: not started")));
}

TEST_F(CollectionTest, MissingFileOfTheSystemIsALineInTheManifest) {
  paths_.os_release = folder_ / "missing";
  EXPECT_THAT(Collect("[]").Errors(), ElementsAre(HasSubstr("system/os-release: ")));
}

TEST_F(CollectionTest, NamesInAnyEncodingGiveAValidArchiveAndManifest) {
  for (const char* name : {"\xff\xfe", "line\nend", "100%", "quote\"token\":\"x\"", "gr\xc3\xbcn"})
    WriteText(data_ / name, "x");
  DescribePaths("demo", "*");
  const ArchiveContent archive = Collect(R"(["demo"])");
  for (const char* name : {"%FF%FE", "line%0Aend", "100%", "quote%22token%22:%22x%22", "gr\xc3\xbcn"}) {
    EXPECT_TRUE(archive.Has(InFiles("demo", name))) << name;
    EXPECT_FALSE(archive.Record(InFiles("demo", name)).isNull()) << name;
  }
}

TEST_F(CollectionTest, ArchiveThatIsBeingWrittenIsNotTakenIntoItself) {
  Describe("demo", R"({"paths": [")" + paths_.state + R"("]})");
  for (const std::string& name : Collect(R"(["demo"])").Names())
    EXPECT_THAT(name, Not(HasSubstr("debug.dat")));
}

TEST_F(CollectionTest, FailureLeavesNoArchiveAndNoUnfinishedOne) {
  limits_.zstd_level = 1'000'000;
  EXPECT_THROW(Collect("[]"), ArchiveFailed);
  EXPECT_FALSE(fs::exists(Task() / kArchiveFile));
  EXPECT_FALSE(fs::exists(Task() / kUnfinishedFile));
}

TEST(PrintablePathTest, LeavesPlainTextAndEscapesTheRestWithoutAmbiguity) {
  EXPECT_EQ(PrintablePath("/a b/\xe2\x82\xac"), "/a b/\xe2\x82\xac");
  EXPECT_EQ(PrintablePath("/50%"), "/50%");
  EXPECT_EQ(PrintablePath("/50%\x01"), "/50%25%01");
  EXPECT_EQ(PrintablePath("\xe2\x82"), "%E2%82");                // cut short
  EXPECT_EQ(PrintablePath("\xc0\xaf"), "%C0%AF");                // overlong
  EXPECT_EQ(PrintablePath("\xed\xa0\x80"), "%ED%A0%80");         // surrogate
  EXPECT_EQ(PrintablePath("\xf4\x90\x80\x80"), "%F4%90%80%80");  // beyond Unicode
  EXPECT_EQ(PrintablePath("\xf0\x9f\x98\x80"), "\xf0\x9f\x98\x80");
  EXPECT_EQ(PrintablePath("a\\\x7f"), "a%5C%7F");
}

}  // namespace
}  // namespace TARVO::SupportForm
