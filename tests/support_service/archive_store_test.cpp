#include "archive_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <stdexcept>

#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;

class ArchiveStoreTest : public ::testing::Test {
 protected:
  /// Keeps an archive of the ticket "t1".
  /// @return its version.
  static std::uint64_t Keep(const ArchiveStore& store, const std::string& content, std::uint64_t after = 0) {
    const auto archive = store.Begin();
    archive->Write(content);
    archive->Finish();
    return store.Publish(*archive, "t1", after);
  }

  /// Has the store know archives of those versions, of a ticket "t1".
  static void Remember(SqliteStore& store, const std::vector<std::uint64_t>& versions) {
    Ticket ticket;
    ticket.number = 1;
    ticket.id = "t1";
    ticket.device = "SN1";
    Event event{1, 1, EventKind::kCreated, "", {}};
    Apply(event, ticket);
    store.Write({Entry{event, ticket, std::nullopt, std::nullopt}});
    for (const std::uint64_t version : versions) {
      event = {event.number + 1, 1, EventKind::kUploaded, "", {}};
      Apply(event, ticket);
      store.Write(
          {Entry{event, ticket, std::nullopt, Archive{version, 1, Sha256("x"), "SN1", {}, {}, {}, {}}}});
    }
  }

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
  EXPECT_EQ(store.Publish(*archive, "t1", 0), 1U);
  EXPECT_EQ(store.PathOf("t1", 1), data_ / "archives/t1-1.dat");
  EXPECT_EQ(ReadFile(data_ / "archives/t1-1.dat"), "hello world");
  EXPECT_TRUE(fs::is_empty(data_ / "incoming"));
}

TEST_F(ArchiveStoreTest, VersionIsAboveTheFormerOneAndTakesNoOtherFilesPlace) {
  const ArchiveStore store(data_);
  EXPECT_EQ(Keep(store, "one"), 1U);
  EXPECT_EQ(Keep(store, "two", 1), 2U);
  // As an upload that began before those two were there.
  EXPECT_EQ(Keep(store, "three", 0), 3U);
  EXPECT_EQ(Keep(store, "eight", 7), 8U);
  EXPECT_EQ(ReadFile(store.PathOf("t1", 1)), "one");
  EXPECT_EQ(ReadFile(store.PathOf("t1", 2)), "two");
  EXPECT_EQ(ReadFile(store.PathOf("t1", 3)), "three");
  EXPECT_EQ(ReadFile(store.PathOf("t1", 8)), "eight");
}

TEST_F(ArchiveStoreTest, ArchiveThatCannotGetItsNameIsRemoved) {
  const ArchiveStore store(data_);
  fs::remove(data_ / "archives");
  EXPECT_THROW(Keep(store, "x"), std::system_error);
  EXPECT_TRUE(fs::is_empty(data_ / "incoming"));
}

TEST_F(ArchiveStoreTest, RemovedArchiveIsGoneAndAMissingOneIsNoFailure) {
  const ArchiveStore store(data_);
  Keep(store, "one");
  Keep(store, "two");
  store.Remove("t1", 1);
  EXPECT_FALSE(fs::exists(store.PathOf("t1", 1)));
  EXPECT_EQ(ReadFile(store.PathOf("t1", 2)), "two");
  EXPECT_NO_THROW(store.Remove("t1", 1));
}

TEST_F(ArchiveStoreTest, FilesAndFoldersAreClosedToOthers) {
  const mode_t former = umask(0);
  const ArchiveStore store(data_);
  Keep(store, "x");
  umask(former);
  for (const char* folder : {"", "incoming", "archives"}) {
    EXPECT_EQ(ModeOf(data_ / folder), 0700U) << folder;
  }
  for (const char* file : {"lock", "archives/t1-1.dat"}) {
    EXPECT_EQ(ModeOf(data_ / file), 0600U) << file;
  }
}

TEST_F(ArchiveStoreTest, DroppedArchiveLeavesNothing) {
  const ArchiveStore store(data_);
  store.Begin()->Write("partial");
  EXPECT_TRUE(fs::is_empty(data_ / "incoming"));
  EXPECT_TRUE(fs::is_empty(data_ / "archives"));
}

TEST_F(ArchiveStoreTest, LeftoversOfAKilledServiceAreRemovedAndArchivesKept) {
  {
    const ArchiveStore store(data_);
    Keep(store, "x");
  }
  WriteFile(data_ / "incoming/half", "x");
  const ArchiveStore store(data_);
  EXPECT_TRUE(fs::is_empty(data_ / "incoming"));
  EXPECT_TRUE(fs::exists(data_ / "archives/t1-1.dat"));
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

TEST_F(ArchiveStoreTest, ArchivesThatTheStoreKnowsAreLeftInPeace) {
  const ArchiveStore folder(data_);
  SqliteStore store(data_ / "tickets.db");
  EventRecorder events;
  Keep(folder, "one");
  Keep(folder, "two");
  Remember(store, {1, 2});
  folder.Reconcile(store, events.sink());
  EXPECT_EQ(events.text(), "");
  EXPECT_EQ(ReadFile(folder.PathOf("t1", 1)), "one");
  EXPECT_EQ(ReadFile(folder.PathOf("t1", 2)), "two");
}

TEST_F(ArchiveStoreTest, ArchivesThatTheStoreDoesNotKnowArePutAside) {
  const ArchiveStore folder(data_);
  SqliteStore store(data_ / "tickets.db");
  EventRecorder events;
  Keep(folder, "one");
  Keep(folder, "two");
  Remember(store, {1});
  WriteFile(data_ / "archives" / "some\nthing", "");
  folder.Reconcile(store, events.sink());
  EXPECT_THAT(events.lines(), ::testing::UnorderedElementsAre(
                                  ::testing::HasSubstr("archive t1-2.dat put aside into "),
                                  ::testing::HasSubstr("archive some\\x0athing put aside into ")));
  EXPECT_EQ(ReadFile(folder.PathOf("t1", 1)), "one");
  EXPECT_FALSE(fs::exists(folder.PathOf("t1", 2)));
  EXPECT_FALSE(fs::exists(data_ / "archives" / "some\nthing"));
  EXPECT_EQ(ReadFile(data_ / "unknown" / "t1-2.dat"), "two");
  EXPECT_TRUE(fs::exists(data_ / "unknown" / "some\nthing"));
}

TEST_F(ArchiveStoreTest, OfTwoFilesOfOneContentOneIsKeptUnderTheFormerName) {
  const ArchiveStore folder(data_);
  Keep(folder, "same");
  Keep(folder, "same");
  folder.KeepOne("t1", 1, 2);
  EXPECT_EQ(ReadFile(folder.PathOf("t1", 1)), "same");
  EXPECT_FALSE(fs::exists(folder.PathOf("t1", 2)));
}

TEST_F(ArchiveStoreTest, MissingFileIsReplacedByOneOfTheSameContent) {
  const ArchiveStore folder(data_);
  Keep(folder, "same");
  Keep(folder, "same");
  fs::remove(folder.PathOf("t1", 1));
  folder.KeepOne("t1", 1, 2);
  EXPECT_EQ(ReadFile(folder.PathOf("t1", 1)), "same");
  EXPECT_FALSE(fs::exists(folder.PathOf("t1", 2)));
}

TEST_F(ArchiveStoreTest, MissingArchiveIsTold) {
  const ArchiveStore folder(data_);
  SqliteStore store(data_ / "tickets.db");
  EventRecorder events;
  Keep(folder, "one");
  Remember(store, {1, 2});
  folder.Reconcile(store, events.sink());
  EXPECT_THAT(events.lines(), ::testing::ElementsAre("ticket t1: its archive is missing: " +
                                                     folder.PathOf("t1", 2).string()));
  EXPECT_EQ(ReadFile(folder.PathOf("t1", 1)), "one");
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
