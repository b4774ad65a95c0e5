#include "listing.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "collection.h"
#include "support_log_fixture.h"
#include "task_folder.h"

namespace TARVO::SupportForm {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ListingTest : public SupportLogTest {
 protected:
  [[nodiscard]] Listing List(const std::string& app_list) const {
    return ListArchive(paths_, limits_, ParseJson(app_list));
  }
  /// The entry whose name ends so; fails the test when there is none.
  [[nodiscard]] static ListedEntry Find(const Listing& listing, const std::string& end) {
    for (const ListedEntry& entry : listing.entries) {
      if (entry.name.size() >= end.size() && entry.name.substr(entry.name.size() - end.size()) == end) {
        return entry;
      }
    }
    ADD_FAILURE() << "no entry " << end;
    return {};
  }
};

TEST_F(ListingTest, NamesWhatTheArchiveHasThenInItsOrder) {
  WriteText(data_ / "a.log", "a line\n");
  WriteText(data_ / "d" / "\xff", "x");
  Describe("demo", R"({"paths": [")" + (data_ / "*").string() + R"(", "/proc/version"],
      "commands": [{"argv": ["echo", "hello"]}], "units": ["web.service"]})");
  const Listing listing = List(R"(["demo"])");
  std::vector<std::string> names;
  names.reserve(listing.entries.size() + 1);
  for (const ListedEntry& entry : listing.entries) names.push_back(entry.name);
  names.emplace_back("manifest.json");

  const fs::path task = folder_ / "task";
  fs::create_directories(task);
  const UniqueFd folder(open(task.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  MakeArchive(paths_, limits_, folder.get(), {std::string(32, 'a'), ParseJson(R"(["demo"])"), true});
  EXPECT_EQ(names, ReadArchive(task / kArchiveFile).Names());
}

TEST_F(ListingTest, TellsSizesPathsAndArgumentsAndRunsNothing) {
  WriteText(data_ / "long.log", "0123456789");
  limits_.file_bytes = 7;
  Program("trace", "touch " + (folder_ / "was-run").string());
  Describe("demo", R"({"paths": [")" + (data_ / "*").string() + R"(", "/proc/version"],
      "commands": [{"argv": ["trace", "-x", "a b"]}], "units": [{"unit": "web.service", "lines": 3}]})");
  const Listing listing = List(R"(["demo"])");
  EXPECT_EQ(Find(listing, "/long.log").size, 7U);
  EXPECT_EQ(Find(listing, "/long.log").origin, (data_ / "long.log").string());
  EXPECT_EQ(Find(listing, "/proc/version").size, std::nullopt);
  EXPECT_EQ(Find(listing, "/01-trace.txt").origin, "trace -x a b");
  EXPECT_EQ(Find(listing, "/01-web.service.txt").origin,
            "journalctl --quiet --no-pager --output=short-iso --lines=3 --unit=web.service");
  EXPECT_THAT(listing.left_out, IsEmpty());
  EXPECT_FALSE(fs::exists(folder_ / "was-run"));
}

TEST_F(ListingTest, TellsWhatIsLeftOutAndWhy) {
  fs::create_symlink("/etc/passwd", data_ / "link");
  WriteText(data_ / "long", std::string(200'000, 'x'));
  limits_.archive_bytes = 1'000;
  Describe("demo", R"({"paths": [")" + (data_ / "*").string() + R"("]})");
  Describe("broken", "[]");
  EXPECT_THAT(List(R"(["../x", "demo", "demo", "broken"])").left_out,
              ElementsAre("apps: not an application name: \"../x\"",
                          "apps/demo: " + (data_ / "link").string() + ": a symbolic link, not followed",
                          "apps/demo: " + (data_ / "long").string() + ": the archive would pass 1000 bytes",
                          "apps/demo: asked for more than once; taken once",
                          "apps/broken: " + paths_.descriptions + "/broken.json: not a JSON object"));
}

TEST_F(ListingTest, NamesTheKernelLogThatIsTakenWhereTheJournalGivesNothing) {
  EXPECT_EQ(Find(List("[]"), "system/journal").origin,
            "journalctl --quiet --no-pager --output=short-iso --lines=5000; "
            "where that gives nothing, system/kernel-log: dmesg");
}

TEST_F(ListingTest, EndsWithAsManyEntriesAsAnArchiveMayHave) {
  limits_.archive_entries = 3;
  const Listing listing = List("[]");
  EXPECT_EQ(listing.entries.size(), 3U);
  ASSERT_FALSE(listing.left_out.empty());
  EXPECT_THAT(listing.left_out.front(), testing::EndsWith("the archive has 3 entries"));
}

TEST_F(ListingTest, TellsWhereTheSearchEnds) {
  for (int i = 0; i < 9; ++i) WriteText(data_ / std::to_string(i), "x");
  Describe("demo", R"({"paths": [")" + (data_ / "*").string() + R"("]})");
  limits_.app_names = 4;
  EXPECT_THAT(List(R"(["demo"])").left_out, ElementsAre("apps/demo: the search ends after 4 names"));
}

}  // namespace
}  // namespace TARVO::SupportForm
