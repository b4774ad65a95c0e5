/// supportctl backup where something is wrong. That it works is tested with the service, by ProgramsTest.
#include "supportctl_fixture.h"

namespace TarvoOrvane::Supportctl {
namespace {

using ::testing::HasSubstr;

class SupportctlBackupTest : public SupportctlFixture {
 protected:
  [[nodiscard]] std::size_t FilesThere() const {
    const std::filesystem::directory_iterator files(folder_);
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
  }
  Outcome RunBackup() { return Run({"backup", (folder_ / "new.tar").string()}); }

  const std::filesystem::path folder_ = temp_.path() / "backups";
};

TEST_F(SupportctlBackupTest, WhatIsNoBackupLeavesTheFormerOne) {
  WriteFile(folder_ / "new.tar", "former");
  server_.On("GET", "/backup", {SendsBytes("no tar at all")});
  const Outcome outcome = RunBackup();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("is no backup of a support service"));
  EXPECT_EQ(ReadFile(folder_ / "new.tar"), "former");
  EXPECT_EQ(FilesThere(), 1U);
}

TEST_F(SupportctlBackupTest, BrokenConnectionLeavesNothing) {
  std::filesystem::create_directory(folder_);
  server_.On("GET", "/backup",
             {Sends("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nbegin\r\n")});
  EXPECT_EQ(RunBackup().status, 3);
  EXPECT_EQ(FilesThere(), 0U);
}

TEST_F(SupportctlBackupTest, RefusalIsToldAndLeavesNothing) {
  std::filesystem::create_directory(folder_);
  server_.On("GET", "/backup", {Refuses(409, "conflict", "a backup is being made: wait for its end")});
  const Outcome outcome = RunBackup();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("a backup is being made"));
  EXPECT_EQ(FilesThere(), 0U);
}

TEST_F(SupportctlBackupTest, PlaceThatCannotBeWrittenIsToldBeforeAnythingIsAsked) {
  const Outcome outcome = RunBackup();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("can't write"));
  EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(SupportctlBackupTest, ArchivesAreLeftOutWhereThatIsAskedFor) {
  std::filesystem::create_directory(folder_);
  server_.On("GET", "/backup?archives=false", {SendsBytes("")});
  EXPECT_EQ(Run({"backup", folder_.string(), "--no-archives"}).status, 1);
  EXPECT_EQ(server_.RequestLines().back(), "GET /backup?archives=false");
}

}  // namespace
}  // namespace TarvoOrvane::Supportctl
