#include "entry_name.h"

#include <gtest/gtest.h>

namespace TARVO::SupportForm {
namespace {

TEST(PrintablePathTest, LeavesPlainTextAndEscapesTheRest) {
  EXPECT_EQ(PrintablePath("/a b/\xe2\x82\xac"), "/a b/\xe2\x82\xac");
  EXPECT_EQ(PrintablePath("\xe2\x82"), "%E2%82");                // cut short
  EXPECT_EQ(PrintablePath("\xc0\xaf"), "%C0%AF");                // overlong
  EXPECT_EQ(PrintablePath("\xed\xa0\x80"), "%ED%A0%80");         // surrogate
  EXPECT_EQ(PrintablePath("\xf4\x90\x80\x80"), "%F4%90%80%80");  // beyond Unicode
  EXPECT_EQ(PrintablePath("\xf0\x9f\x98\x80"), "\xf0\x9f\x98\x80");
  EXPECT_EQ(PrintablePath("a\\\x7f\n\""), "a%5C%7F%0A%22");
  EXPECT_EQ(PrintablePath("\xc2\x9b\xc2\xa0"), "%C2%9B\xc2\xa0");  // a control character, and a blank
}

TEST(PrintablePathTest, NoTwoPathsBecomeTheSame) {
  EXPECT_EQ(PrintablePath("/50%"), "/50%");
  EXPECT_EQ(PrintablePath("/50%\x01"), "/50%%01");
  EXPECT_EQ(PrintablePath("/50%%01"), "/50%%2501");
  EXPECT_EQ(PrintablePath("%FF"), "%25FF");
  EXPECT_EQ(PrintablePath("\xff"), "%FF");
  EXPECT_EQ(PrintablePath("%F"), "%F");
}

TEST(EntryNameTest, TellsTheApplicationTheKindAndTheOrder) {
  EXPECT_EQ(FileEntryName("web", "/var/log/x"), "apps/web/files/var/log/x");
  EXPECT_EQ(CommandEntryName("web", 1, "/bin/ls"), "apps/web/commands/01-ls.txt");
  EXPECT_EQ(CommandEntryName("web", 100, "a b\xff"), "apps/web/commands/100-a_b_.txt");
  EXPECT_EQ(UnitEntryName("web", 12, "web@*.service"), "apps/web/journal/12-web@_.service.txt");
  EXPECT_EQ(UnitEntryName("web", 1, std::string(255, 'u')),
            "apps/web/journal/01-" + std::string(64, 'u') + ".txt");
}

TEST(EntryNameTest, NameThatEscapingMadeTooLongForFileSystemsIsCutAndStaysApartFromOthers) {
  const std::string whole(255, 'w');
  EXPECT_EQ(FileEntryName("web", "/" + whole + "/x"), "apps/web/files/" + whole + "/x");
  const std::string one = FileEntryName("web", "/d/" + whole + "w/x");
  const std::string two = FileEntryName("web", "/d/" + whole + "v/x");
  EXPECT_EQ(one.substr(0, 17 + 238), "apps/web/files/d/" + std::string(238, 'w'));
  EXPECT_EQ(one.size(), std::string("apps/web/files/d//x").size() + 255);
  EXPECT_EQ(one.substr(one.size() - 2), "/x");
  EXPECT_NE(one, two);
}

TEST(EntryNameTest, CutDoesNotPartACharacter) {
  const std::string euros = "\xe2\x82\xac\xe2\x82\xac\xe2\x82\xac\xe2\x82\xac";
  for (std::size_t lead = 230; lead < 240; ++lead) {
    const std::string name =
        FileEntryName("web", "/" + std::string(lead, 'w') + euros + std::string(30, 'x'));
    EXPECT_EQ(PrintablePath(name), name) << lead;
  }
}

}  // namespace
}  // namespace TARVO::SupportForm
