#include "serial_number.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "syslog_recorder.h"
#include "temporary_folder.h"

namespace TarvoOrvane::Internal {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

constexpr char kMachineId[] = "0123456789abcdef0123456789abcdef";

class SerialNumberTest : public testing::Test {
 protected:
  SerialNumberTest() { Testing::TakeSyslogLines(); }

  void Configure(const std::string& text) { folder_.Write("configured", text); }
  void SetDmi(const std::string& text) { folder_.Write("dmi", text); }
  void SetMachineId(const std::string& text) { folder_.Write("machine_id", text); }
  std::string Serial() const {
    const auto serial =
        ReadSerialNumber({folder_.File("configured"), folder_.File("dmi"), folder_.File("machine_id")});
    return serial ? *serial : "(none)";
  }

  test_support::TemporaryFolder folder_;
};

TEST_F(SerialNumberTest, TheConfiguredOneComesFirst) {
  Configure("  SN 42/a \r\nsecond line\n");
  SetDmi("DMI1");
  SetMachineId(kMachineId);
  EXPECT_EQ(Serial(), "SN 42/a");
  EXPECT_EQ(Testing::TakeSyslogText(), "");
}

TEST_F(SerialNumberTest, TheBoardsComesSecond) {
  SetDmi("DMI1\n");
  SetMachineId(kMachineId);
  EXPECT_EQ(Serial(), "DMI1");
}

TEST_F(SerialNumberTest, ThenAHashThatDoesNotTellTheMachineId) {
  SetMachineId(std::string(kMachineId) + "\n");
  // HMAC-SHA256 by another implementation, over the same id; devices must keep their numbers.
  EXPECT_EQ(Serial(), "91b649f3e0cea0f8701a3999c48dd003");
  SetMachineId("1123456789abcdef0123456789abcdef\n");
  EXPECT_THAT(Serial(), MatchesRegex("[0-9a-f]{32}"));
  EXPECT_NE(Serial(), "91b649f3e0cea0f8701a3999c48dd003");
}

TEST_F(SerialNumberTest, NothingWithoutAUsableSource) { EXPECT_EQ(Serial(), "(none)"); }

TEST_F(SerialNumberTest, AConfiguredOneThatCanNotBeReadIsToldAndTheNextSourceAsked) {
  std::filesystem::create_directory(folder_.File("configured"));
  SetDmi("DMI1");
  EXPECT_EQ(Serial(), "DMI1");
  EXPECT_THAT(Testing::TakeSyslogText(),
              HasSubstr("configured can't be read: Is a directory; other sources"));
}

TEST_F(SerialNumberTest, AnUnusableConfiguredOneIsToldAndTheNextSourceAsked) {
  SetDmi("DMI1");
  for (const std::string& text :
       {std::string(), std::string("\n"), std::string(129, 's'), std::string("a\x01z"),
        std::string("ger\xc3\xa4t"), std::string("a\0b", 3)}) {
    Configure(text);
    EXPECT_EQ(Serial(), "DMI1") << text;
    EXPECT_THAT(Testing::TakeSyslogText(), HasSubstr("is no serial number of 1 to 128 printable")) << text;
  }
  Configure(std::string(128, 's'));
  EXPECT_EQ(Serial(), std::string(128, 's'));
}

TEST_F(SerialNumberTest, APlaceholderOfTheBoardsMakerDoesNotCount) {
  for (const char* text :
       {"To Be Filled By O.E.M.", "to be filled by o.e.m.", "DEFAULT STRING", "None", "N/A",
        "System Serial Number", "Not Specified", "0123456789", "0", "00000000", "XXXXXXX", " ", ""}) {
    SetDmi(text);
    EXPECT_EQ(Serial(), "(none)") << text;
  }
  SetDmi("None1");
  EXPECT_EQ(Serial(), "None1");
}

TEST_F(SerialNumberTest, TextThatIsNoMachineIdIsNotHashed) {
  for (const char* text : {"uninitialized", "", "0123", "00000000000000000000000000000000",
                           "0123456789ABCDEF0123456789ABCDEF", "0123456789abcdef0123456789abcdef0"}) {
    SetMachineId(text);
    EXPECT_EQ(Serial(), "(none)") << text;
  }
}

}  // namespace
}  // namespace TarvoOrvane::Internal
