#include "archive_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <stdexcept>

#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;

unsigned int ModeOf(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777U;
}

class ArchiveStoreTest : public ::testing::Test {
 protected:
  TemporaryFolder temp_;
  fs::path data_ = temp_.path() / "some" / "data";
};

TEST_F(ArchiveStoreTest, FinishedArchiveGetsItsNameWithSizeAndHash) {
  const ArchiveStore store(data_);
  const auto archive = store.Begin();
  archive->Write("hello ");
  archive->Write("world");
  archive->Finish();
  EXPECT_EQ(archive->size_bytes(), 11U);
  EXPECT_EQ(archive->sha256(), Sha256("hello world"));
  store.Publish(*archive, "t1");
  EXPECT_EQ(ReadFile(data_ / "received/t1/debug.dat"), "hello world");
  EXPECT_TRUE(fs::is_empty(data_ / "incoming"));
}

TEST_F(ArchiveStoreTest, FilesAndFoldersAreClosedToOthers) {
  const mode_t former = umask(0);
  const ArchiveStore store(data_);
  const auto archive = store.Begin();
  store.Publish(*archive, "t1");
  TicketView ticket;
  ticket.id = "t1";
  store.WriteRecord(ticket);
  umask(former);
  for (const char* folder : {"", "incoming", "received", "received/t1"}) {
    EXPECT_EQ(ModeOf(data_ / folder), 0700U) << folder;
  }
  for (const char* file : {"lock", "received/t1/debug.dat", "received/t1/ticket.json"}) {
    EXPECT_EQ(ModeOf(data_ / file), 0600U) << file;
  }
}

TEST_F(ArchiveStoreTest, DroppedArchiveLeavesNothing) {
  const ArchiveStore store(data_);
  store.Begin()->Write("partial");
  EXPECT_TRUE(fs::is_empty(data_ / "incoming"));
  EXPECT_TRUE(fs::is_empty(data_ / "received"));
}

TEST_F(ArchiveStoreTest, LeftoversOfAKilledServiceAreRemovedAndArchivesKept) {
  {
    const ArchiveStore store(data_);
    const auto archive = store.Begin();
    store.Publish(*archive, "t1");
  }
  WriteFile(data_ / "incoming/half", "x");
  const ArchiveStore store(data_);
  EXPECT_TRUE(fs::is_empty(data_ / "incoming"));
  EXPECT_TRUE(fs::exists(data_ / "received/t1/debug.dat"));
}

TEST_F(ArchiveStoreTest, FolderInUseIsRefusedUntilItsServiceEnds) {
  {
    const ArchiveStore store(data_);
    EXPECT_THROW(ArchiveStore second(data_), std::runtime_error);
  }
  EXPECT_NO_THROW(ArchiveStore second(data_));
}

TEST_F(ArchiveStoreTest, EmptyOpenFolderIsClosedToOthersAndAUsedOneIsLeftAlone) {
  fs::create_directories(data_);
  fs::permissions(data_, fs::perms(0755));
  { const ArchiveStore store(data_); }
  EXPECT_EQ(ModeOf(data_), 0700U);

  const fs::path shared = temp_.path() / "shared";
  fs::create_directory(shared);
  WriteFile(shared / "something", "");
  fs::permissions(shared, fs::perms(0755));
  EXPECT_THROW(ArchiveStore store(shared), std::runtime_error);
  EXPECT_EQ(ModeOf(shared), 0755U);
}

TEST_F(ArchiveStoreTest, RecordTellsWhatIsKnown) {
  const ArchiveStore store(data_);
  TicketView ticket;
  ticket.id = "t1";
  ticket.device = "SN1";
  ticket.apps = {"a", "b"};
  store.WriteRecord(ticket);
  Json::Value record = ParseJson(ReadFile(data_ / "received/t1/ticket.json"));
  EXPECT_EQ(record["ticket_id"], "t1");
  EXPECT_EQ(record["device"], "SN1");
  EXPECT_EQ(record["apps"], ParseJson(R"(["a","b"])"));
  EXPECT_FALSE(record.isMember("sha256"));
  EXPECT_FALSE(record.isMember("status"));

  ticket.upload = Upload{5000000000U, "abc", "SN2", {"b", "a"}, {}};
  ticket.report = Report{"Success", "SN3", {}};
  store.WriteRecord(ticket);
  record = ParseJson(ReadFile(data_ / "received/t1/ticket.json"));
  EXPECT_EQ(record["size"].asUInt64(), 5000000000U);
  EXPECT_EQ(record["sha256"], "abc");
  EXPECT_EQ(record["serial_number"], "SN2");
  EXPECT_EQ(record["uploaded_apps"], ParseJson(R"(["b","a"])"));
  EXPECT_EQ(record["status"], "Success");
  EXPECT_EQ(record["report_serial_number"], "SN3");
  EXPECT_EQ(record["uploaded"], "1970-01-01T00:00:00.000Z");
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
