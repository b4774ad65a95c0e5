#include "display.h"

#include <sstream>

#include "supportctl_fixture.h"

namespace TarvoOrvane::Supportctl {
namespace {

using ::testing::HasSubstr;

class SupportctlDisplayTest : public SupportctlFixture {};  // for its time zone and locale

TEST_F(SupportctlDisplayTest, OnlyWhatATerminalCanShowIsShown) {
  EXPECT_EQ(Safe("plain \\x07 text"), "plain \\x07 text") << "escaped by the service already";
  EXPECT_EQ(Safe("a\033[31mb\nc\x7f"), "a\\x1b[31mb\\x0ac\\x7f");
  EXPECT_EQ(Safe("Ger\u00e4t \u4e2d"), "Ger\u00e4t \u4e2d");
  EXPECT_EQ(Safe("a\u200bb"), "a\\xe2\\x80\\x8bb") << "nobody would see it";
  EXPECT_EQ(Safe("\u0085"), "\\xc2\\x85") << "a control character of two bytes";
  EXPECT_EQ(Safe("\xff\xc3"), "\\xff\\xc3") << "no character";
  EXPECT_EQ(Safe(std::string("a\0b", 3)), "a\\x00b");
}

TEST_F(SupportctlDisplayTest, TimesAreLocal) {
  EXPECT_EQ(ShortTime("2026-11-23T23:30:07.123Z"), "2026-11-24 00:30");
  EXPECT_EQ(TimeToTheSecond("2026-11-23T13:05:07.123Z"), "2026-11-23 14:05:07");
  EXPECT_EQ(ExactTime("2026-11-23T13:05:07.123Z"), "2026-11-23 14:05:07.123 +0100");
  EXPECT_EQ(ExactTime("2026-11-23T13:05:07Z"), "2026-11-23 14:05:07 +0100");
  for (const char* none :
       {"", "soon", "2026-11-23T13:05:07", "2026-11-23T13:05:07.12x3Z", "2026-11-23T13:05:07+01:00"}) {
    EXPECT_EQ(ShortTime(none), none);
  }
}

TEST_F(SupportctlDisplayTest, SizesAreCutToWholeUnits) {
  EXPECT_EQ(SizeText(0), "0 B");
  EXPECT_EQ(SizeText(1023), "1023 B");
  EXPECT_EQ(SizeText(1024), "1 KiB");
  EXPECT_EQ(SizeText((std::uint64_t{214} << 20) + 5), "214 MiB");
  EXPECT_EQ(SizeText(UINT64_MAX), "16777215 TiB");
}

TEST_F(SupportctlDisplayTest, WordsOfAShellAreQuotedWhereNeeded) {
  EXPECT_EQ(ShellWord("SN-1:2"), "SN-1:2");
  EXPECT_EQ(ShellWord(""), "''");
  EXPECT_EQ(ShellWord("it's $1"), "'it'\\''s $1'");
}

TEST_F(SupportctlDisplayTest, ColumnsStandBelowOneAnotherWhateverTheCharacters) {
  Table table({"A", "NAME", "C"});
  table.Add({{"1"}, {"Ger\u00e4t"}, {"x"}});
  table.Add({{"long one"}, {"\u4e2d\u4e2d\u4e2d"}, {"y"}});
  std::ostringstream out;
  table.Print(out, false);
  EXPECT_EQ(out.str(),
            "A         NAME    C\n"
            "1         Ger\u00e4t   x\n"
            "long one  \u4e2d\u4e2d\u4e2d  y\n");
}

TEST_F(SupportctlDisplayTest, ColoursDoNotMoveColumns) {
  Table table({"S", "T"});
  table.Add({{"bad", Cell::Colour::kBad}, {"x"}});
  std::ostringstream plain;
  table.Print(plain, false);
  EXPECT_EQ(plain.str(), "S    T\nbad  x\n");
  std::ostringstream coloured;
  table.Print(coloured, true);
  EXPECT_EQ(coloured.str(), "\033[1mS    T\033[0m\n\033[31mbad\033[0m  x\n");
}

TEST_F(SupportctlDisplayTest, EachStateSaysWhatToDoNext) {
  const auto step = [](const std::string& state) { return NextStep(TicketJson(state)); };
  EXPECT_THAT(step("queued"), HasSubstr("supportctl cancel 3f9a000000000001"));
  EXPECT_THAT(step("queued"), HasSubstr("supportctl device show SN1"));
  EXPECT_THAT(step("delivered"), HasSubstr("supportctl follow 3f9a000000000001"));
  EXPECT_THAT(step("accepted"), HasSubstr("works on it"));
  EXPECT_THAT(step("uploaded"), HasSubstr("report is still to come"));
  EXPECT_THAT(step("refused"), HasSubstr("supportctl send SN1 --apps web,database"));
  EXPECT_THAT(step("no_result"), HasSubstr("debug_dat_check --status"));
  EXPECT_THAT(step("cancelled"), HasSubstr("Nothing."));
  EXPECT_THAT(step("expired"), HasSubstr("--lifetime"));
  EXPECT_EQ(step("of a later service"), "");
  EXPECT_EQ(NextStep(SuccessfulTicket()), "All is done.");
}

TEST_F(SupportctlDisplayTest, EachOutcomeSaysWhatToDoNext) {
  Json::Value ticket = SuccessfulTicket();
  ticket["outcome"] = "nothing_collected";
  EXPECT_THAT(NextStep(ticket), HasSubstr("journalctl"));
  ticket["outcome"] = "nothing_uploaded";
  EXPECT_THAT(NextStep(ticket), HasSubstr("debug_dat_check"));
  ticket["outcome"] = "unknown";
  EXPECT_THAT(NextStep(ticket), HasSubstr("stands above"));
  ticket = TicketJson("accepted");
  ticket["overdue"] = true;
  EXPECT_THAT(NextStep(ticket), HasSubstr("unusually long"));
  ticket["archives"].append(Json::Value(Json::objectValue));
  EXPECT_THAT(NextStep(ticket), HasSubstr("supportctl fetch 3f9a000000000001"));
  ticket["archives"][0]["deleted"] = Json::Value(Json::objectValue);
  EXPECT_THAT(NextStep(ticket), ::testing::Not(HasSubstr("fetch")));
}

}  // namespace
}  // namespace TarvoOrvane::Supportctl
