#include "sqlite_store.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "small_disk.h"
#include "store_entries.h"
#include "temporary_folder.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;
using test_support::CallerProcess;
using test_support::ExitedWith;
using test_support::ReadFile;
using test_support::WriteFile;
using testing::AllOf;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr std::size_t kEach = std::numeric_limits<std::size_t>::max();

/// What the work's StoreError says; empty when there was none.
template <typename Work>
std::string StoreErrorOf(const Work& work) {
  try {
    work();
  } catch (const StoreError& error) {
    return error.what();
  }
  return "";
}

unsigned int PermissionsOf(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777U;
}

class SqliteStoreTest : public testing::Test {
 protected:
  /// What opening the file fails with.
  [[nodiscard]] std::string OpeningError() const {
    return StoreErrorOf([&] { const SqliteStore store(file_); });
  }

  /// Makes a store with so many tickets in its file, none of it in FILE-wal.
  void MakeStoreOf(std::size_t tickets) {
    SqliteStore store(file_);
    store.Write(ChangesOf(make_.ManyCreated(tickets)));
  }

  const test_support::TemporaryFolder temporary_;
  const fs::path file_ = temporary_.path() / "store";
  EntryMaker make_;
};

TEST_F(SqliteStoreTest, WhatWasWrittenIsThereAfterReopening) {
  {
    SqliteStore store(file_);
    store.Write({make_.Created(), make_.Created("SN2"), make_.Delivered(1, HashOf(1)),
                 make_.Uploaded(1, ArchiveOf(4))});
  }
  SqliteStore store(file_);
  EXPECT_EQ(store.LastEvent(), 4U);
  EXPECT_EQ(store.LastTicket(), 2U);
  Ticket expected = make_.ticket(1);
  expected.archives = {ArchiveOf(4)};
  EXPECT_EQ(MembersOf(store.FindByToken(HashOf(1)).value()), MembersOf(expected));
  EXPECT_EQ(MembersOf(store.Find(2).value()), MembersOf(make_.ticket(2)));
  store.Write({make_.Next(1, EventKind::kReported, "Success")});
  EXPECT_THAT(NumbersOf(store.EventsOf(1, 0, kEach)), ElementsAre(1, 3, 4, 5));
}

TEST_F(SqliteStoreTest, WhatWasWrittenSurvivesAProcessThatEndsAtOnce) {
  const auto ending = test_support::RunInChild([&]() -> int {
    SqliteStore store(file_);
    store.Write(ChangesOf(make_.ManyCreated(3)));
    store.Write({make_.Next(2, EventKind::kCancelled)});
    _exit(7);
  });
  ASSERT_THAT(ending, ExitedWith(7));
  const SqliteStore store(file_);
  EXPECT_EQ(store.LastEvent(), 4U);
  EXPECT_EQ(store.Find(2)->state, TicketState::kCancelled);
  EXPECT_EQ(store.List({}, kEach).size(), 3U);
}

TEST_F(SqliteStoreTest, FilesAreClosedToOthers) {
  const mode_t former = umask(0);
  SqliteStore store(file_);
  store.Write({make_.Created()});
  static_cast<void>(store.Find(1));
  umask(former);
  for (const char* end : {"", "-wal", "-shm"}) EXPECT_EQ(PermissionsOf(file_.string() + end), 0600U) << end;
}

TEST_F(SqliteStoreTest, FileThatOthersMayReadIsClosedToThem) {
  MakeStoreOf(1);
  fs::permissions(file_, fs::perms(0644));
  SqliteStore store(file_);
  store.Write({make_.Created()});
  for (const char* end : {"", "-wal"}) EXPECT_EQ(PermissionsOf(file_.string() + end), 0600U) << end;
}

TEST_F(SqliteStoreTest, EmptyFileBecomesAStore) {
  WriteFile(file_, "");  // as a power cut may leave it
  MakeStoreOf(1);
  SQLite::Database database(file_.string());
  EXPECT_EQ(database.execAndGet("PRAGMA user_version").getInt(), 3);
  EXPECT_NE(database.execAndGet("PRAGMA application_id").getInt(), 0);
}

TEST_F(SqliteStoreTest, DatabaseOfFormZeroIsBroughtToThePresentOne) {
  SQLite::Database(file_.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE)
      .exec("PRAGMA journal_mode = WAL");
  ASSERT_GT(fs::file_size(file_), 0U);
  MakeStoreOf(1);
  EXPECT_EQ(SQLite::Database(file_.string()).execAndGet("PRAGMA user_version").getInt(), 3);
  EXPECT_TRUE(SqliteStore(file_).Find(1));
}

TEST_F(SqliteStoreTest, StoreOfTheFirstFormIsBroughtToThePresentOne) {
  // As that version left it.
  SQLite::Database(file_.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE).exec(R"(
    CREATE TABLE tickets(number INTEGER PRIMARY KEY, id TEXT NOT NULL UNIQUE, device BLOB NOT NULL, apps TEXT NOT NULL,
      created INTEGER NOT NULL, deadline INTEGER NOT NULL, state INTEGER NOT NULL, since INTEGER NOT NULL,
      overdue INTEGER NOT NULL, rejections INTEGER NOT NULL, rejected_since INTEGER, last_event INTEGER NOT NULL,
      last_text BLOB NOT NULL, report BLOB) STRICT;
    CREATE INDEX tickets_by_device ON tickets(device);
    CREATE INDEX tickets_by_state ON tickets(state);
    CREATE INDEX tickets_by_device_and_state ON tickets(device, state);
    CREATE TABLE events(number INTEGER PRIMARY KEY, ticket INTEGER NOT NULL REFERENCES tickets, kind INTEGER NOT NULL,
      time INTEGER NOT NULL, text BLOB NOT NULL) STRICT;
    CREATE INDEX events_by_ticket ON events(ticket);
    CREATE TABLE tokens(hash BLOB PRIMARY KEY, ticket INTEGER NOT NULL REFERENCES tickets) STRICT, WITHOUT ROWID;
    CREATE TABLE archives(ticket INTEGER NOT NULL REFERENCES tickets, version INTEGER NOT NULL,
      size_bytes INTEGER NOT NULL, sha256 TEXT NOT NULL, serial_number BLOB NOT NULL, apps TEXT NOT NULL,
      received INTEGER NOT NULL, PRIMARY KEY(ticket, version)) STRICT, WITHOUT ROWID;
    INSERT INTO tickets VALUES(1, '00000000000000ab', x'534e31', '["a"]', 1, 2, 5, 3, 0, 0, NULL, 2, x'', x'6f6b');
    INSERT INTO events VALUES(1, 1, 1, 1, x''), (2, 1, 9, 3, x'6f6b');
    INSERT INTO archives VALUES(1, 1, 7, 'abcd', x'534e31', '["a"]', 2);
    PRAGMA application_id = 0x746b7473;
    PRAGMA user_version = 1;
  )");
  SqliteStore store(file_);
  const auto ticket = store.Find(1);
  ASSERT_TRUE(ticket);
  EXPECT_EQ(ticket->device, "SN1");
  EXPECT_EQ(ticket->report, "ok");
  EXPECT_EQ(ticket->note, "");
  ASSERT_EQ(ticket->archives.size(), 1U);
  EXPECT_FALSE(ticket->archives[0].deleted);
  EXPECT_FALSE(store.FindDevice("SN1"));
  EXPECT_FALSE(store.ToldByWebhook());
  EXPECT_EQ(SQLite::Database(file_.string()).execAndGet("PRAGMA user_version").getInt(), 3);
}

/// Takes away what the third form has.
constexpr char kBackToTheSecondForm[] = R"(
  DROP TRIGGER archive_is_kept; DROP TRIGGER archive_is_deleted;
  DROP INDEX kept_archives; DROP INDEX kept_archives_by_device;
  DROP TABLE retention; DROP TABLE kept_of_devices; DROP TABLE webhook;
  ALTER TABLE archives DROP COLUMN device;
  PRAGMA user_version = 2;
)";

TEST_F(SqliteStoreTest, StoreOfTheSecondFormKnowsWhatItKeepsOfEachDevice) {
  MakeStoreOf(2);
  {
    SQLite::Database database(file_.string(), SQLite::OPEN_READWRITE);
    database.exec(kBackToTheSecondForm);
    database.exec(R"(
      INSERT INTO archives(ticket, version, size_bytes, sha256, serial_number, apps, received, deleted)
        VALUES(1, 1, 7, 'abcd', x'', '[]', 5, NULL), (2, 1, 8, 'abcd', x'', '[]', 6, NULL),
              (2, 2, 100, 'abcd', x'', '[]', 7, 8);
      UPDATE tickets SET state = 5;
    )");
  }
  const WallTime before = WallTime::clock::now();
  SqliteStore store(file_);
  EXPECT_EQ(store.KeptTotals().count, 2U);
  EXPECT_EQ(store.KeptTotals().bytes, 15U);
  ASSERT_EQ(store.DevicesWithMoreArchives(1, std::nullopt, kEach).size(), 1U);
  EXPECT_EQ(store.DevicesWithMoreArchives(1, std::nullopt, kEach)[0].serial_number, "SN1");
  EXPECT_EQ(store.OldestArchives("SN1", WallTime(std::chrono::milliseconds(100)), kEach).size(), 2U);
  // Whole seconds.
  EXPECT_GE(store.RetentionHeldUntil().value(), before + std::chrono::hours(24) - std::chrono::seconds(1));
  EXPECT_LE(store.RetentionHeldUntil().value(), WallTime::clock::now() + std::chrono::hours(24));
}

TEST_F(SqliteStoreTest, StoreOfTheSecondFormWithoutArchivesHoldsNothing) {
  MakeStoreOf(1);
  {
    SQLite::Database database(file_.string(), SQLite::OPEN_READWRITE);
    database.exec(kBackToTheSecondForm);
  }
  EXPECT_FALSE(SqliteStore(file_).RetentionHeldUntil());
}

TEST_F(SqliteStoreTest, StoreOfANewerVersionIsRefusedAndLeftAlone) {
  MakeStoreOf(1);
  SQLite::Database(file_.string(), SQLite::OPEN_READWRITE).exec("PRAGMA user_version = 4");
  const std::string before = ReadFile(file_);
  EXPECT_THAT(OpeningError(), AllOf(StartsWith(file_.string()), HasSubstr("newer version"),
                                    HasSubstr("form 4"), HasSubstr("Install that version again")));
  EXPECT_EQ(ReadFile(file_), before);
}

TEST_F(SqliteStoreTest, DatabaseOfAnotherProgramIsRefusedAndLeftAlone) {
  for (const char* content : {"CREATE TABLE notes(text)", "PRAGMA application_id = 5"}) {
    fs::remove(file_);
    SQLite::Database(file_.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE).exec(content);
    const std::string before = ReadFile(file_);
    EXPECT_THAT(OpeningError(),
                AllOf(StartsWith(file_.string()), HasSubstr("another program"), HasSubstr("Move it away")));
    EXPECT_EQ(ReadFile(file_), before);
  }
}

TEST_F(SqliteStoreTest, FileThatIsNoDatabaseIsRefusedAndLeftAlone) {
  const std::string text(5000, 'x');
  WriteFile(file_, text);
  EXPECT_THAT(OpeningError(), AllOf(StartsWith(file_.string() + " is no database"), HasSubstr("a backup")));
  EXPECT_EQ(ReadFile(file_), text);
}

TEST_F(SqliteStoreTest, FolderInItsPlaceIsRefused) {
  fs::create_directory(file_);
  EXPECT_THAT(OpeningError(), StartsWith(file_.string() + " is no file"));
}

TEST_F(SqliteStoreTest, MissingFolderIsTold) {
  const fs::path file = temporary_.path() / "missing" / "store";
  EXPECT_THAT(StoreErrorOf([&] { const SqliteStore store(file); }),
              AllOf(StartsWith("can't make " + file.string() + ": No such file or directory"),
                    HasSubstr("Make its folder")));
}

TEST_F(SqliteStoreTest, DamageIsToldWhenTheFileIsOpened) {
  MakeStoreOf(1000);
  std::string content = ReadFile(file_);
  ASSERT_GT(content.size(), 100'000U);
  std::fill(content.begin() + 4096, content.end(), '\xa5');  // all pages but the first
  WriteFile(file_, content);
  EXPECT_THAT(OpeningError(), AllOf(StartsWith(file_.string() + " is damaged"), HasSubstr("store-wal"),
                                    HasSubstr("put a backup in its place")));
}

TEST_F(SqliteStoreTest, FileThatLostItsEndIsToldToBeDamaged) {
  MakeStoreOf(1000);
  fs::resize_file(file_, fs::file_size(file_) / 2);
  EXPECT_THAT(OpeningError(), StartsWith(file_.string() + " is damaged"));
}

TEST_F(SqliteStoreTest, DamageIsToldByEachOperationThatMeetsIt) {
  MakeStoreOf(1);
  for (const char* apps : {R"(["a)", "", R"("a")", R"([["a"]])", "[5"}) {
    SQLite::Database database(file_.string(), SQLite::OPEN_READWRITE);
    SQLite::Statement change(database, "UPDATE tickets SET apps = ?");
    change.bind(1, apps);
    change.exec();
    const SqliteStore store(file_);
    const std::string damaged = file_.string() + " is damaged";
    EXPECT_THAT(StoreErrorOf([&] { static_cast<void>(store.Find(1)); }), StartsWith(damaged)) << apps;
    EXPECT_THAT(StoreErrorOf([&] { static_cast<void>(store.List({}, 1)); }), StartsWith(damaged));
    EXPECT_THAT(StoreErrorOf([&] { static_cast<void>(store.OpenTickets()); }), StartsWith(damaged));
    EXPECT_EQ(store.EventsOf(1, 0, 1).size(), 1U);
  }
}

TEST_F(SqliteStoreTest, EntryThatIsRefusedIsTold) {
  SqliteStore store(file_);
  const Entry entry = make_.Created();
  store.Write({entry});
  EXPECT_THAT(StoreErrorOf([&] { store.Write({entry}); }),
              AllOf(StartsWith(file_.string() + " contradicts"), HasSubstr("report it"),
                    HasSubstr("tickets.number")));
}

/// Writes until it fails, in batches of one ticket with a large device name.
std::string FirstFailureOf(SqliteStore& store, EntryMaker& make) {
  for (int i = 0; i < 10'000; ++i) {
    EntryMaker next = make;
    const std::string error = StoreErrorOf([&] { store.Write({next.Created(std::string(10'000, 'd'))}); });
    if (!error.empty()) return error;
    make = next;
  }
  return "";
}

/// @return Whether the store holds what was written before the failure, and nothing else.
bool HoldsExactly(const SqliteStore& store, TicketNumber last) {
  return store.LastTicket() == last && store.LastEvent() == last && store.List({}, kEach).size() == last;
}

TEST_F(SqliteStoreTest, FullDiskIsToldAndRoomOnItIsUsed) {
  const fs::path disk = temporary_.path() / "disk";
  const CallerProcess caller([&]() -> std::string {
    if (!test_support::MountOwnTmpfs(disk, "size=2m")) return "no namespace";
    SqliteStore store(disk / "store");
    store.Write({make_.Created()});
    test_support::FillDevice(disk);
    const std::string error = FirstFailureOf(store, make_);
    const TicketNumber last = store.LastTicket();
    if (!HoldsExactly(store, last)) return "not as before: " + error;
    fs::remove(disk / "filler");
    EntryMaker next;
    static_cast<void>(next.ManyCreated(last));
    store.Write({next.Created()});
    return HoldsExactly(store, last + 1) ? error : "not written: " + error;
  });
  if (caller.Answer() == "no namespace") GTEST_SKIP() << "no private mounts here";
  EXPECT_THAT(caller.Answer(),
              StartsWith((disk / "store").string() + " can't be written: the disk is full. Make room on it"));
}

TEST_F(SqliteStoreTest, ReadOnlyDiskIsTold) {
  const fs::path disk = temporary_.path() / "disk";
  const CallerProcess caller([&]() -> std::string {
    if (!test_support::MountOwnTmpfs(disk, "size=2m")) return "no namespace";
    { SqliteStore(disk / "store").Write({make_.Created()}); }
    if (!test_support::MakeReadOnly(disk)) return "no namespace";
    return StoreErrorOf([&] { const SqliteStore store(disk / "store"); });
  });
  if (caller.Answer() == "no namespace") GTEST_SKIP() << "no private mounts here";
  EXPECT_THAT(caller.Answer(),
              HasSubstr("Read-only file system. Make its folder on a disk that can be written"));
}

TEST_F(SqliteStoreTest, FileSizeLimitIsTold) {
  const CallerProcess caller([&]() -> std::string {
    SqliteStore store(file_);
    test_support::LimitFileSize(200'000);
    const std::string error = FirstFailureOf(store, make_);
    return HoldsExactly(store, store.LastTicket()) && store.LastTicket() > 0 ? error
                                                                             : "not as before: " + error;
  });
  EXPECT_THAT(caller.Answer(), AllOf(StartsWith(file_.string() + " can't be read or written"),
                                     HasSubstr("limit on the size of files")));
}

TEST_F(SqliteStoreTest, ReaderDoesNotWaitForAWriter) {
  SqliteStore store(file_);
  store.Write({make_.Created()});
  SQLite::Database other(file_.string(), SQLite::OPEN_READWRITE);
  other.exec("BEGIN IMMEDIATE");
  other.exec("UPDATE tickets SET rejections = 5");
  EXPECT_EQ(store.Find(1)->rejections, 0U);
  other.exec("COMMIT");
  EXPECT_EQ(store.Find(1)->rejections, 5U);
}

TEST_F(SqliteStoreTest, ManyThreadsReadAtOnce) {
  MakeStoreOf(100);
  const SqliteStore store(file_);
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&] {
      for (TicketNumber number = 1; number <= 100; ++number) {
        right += store.Find(number)->number == number ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, 800);
}

/// What SQLite will do for a statement, a line per step.
std::string PlanOf(const SQLite::Database& database, const std::string& statement) {
  SQLite::Statement plan(database, "EXPLAIN QUERY PLAN " + statement);
  std::string text;
  while (plan.executeStep()) text += plan.getColumn(3).getString() + "\n";
  return text;
}

std::size_t CountOf(const std::string& part, const std::string& text) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

/// How many values the statement is given to choose rows by.
std::size_t ConditionsOf(const std::string& statement) {
  const std::size_t where = statement.find("WHERE");
  if (where == std::string::npos) return 0;
  return CountOf("?", statement.substr(where)) - CountOf("LIMIT ?", statement);
}

TEST_F(SqliteStoreTest, EveryStatementGoesStraightToItsRows) {
  MakeStoreOf(1);
  const SQLite::Database database(file_.string());
  ASSERT_THAT(PlanOf(database, "SELECT 1 FROM events WHERE text = '' ORDER BY time"),
              ContainsRegex("SCAN.*\n.*B-TREE"));
  std::size_t conditions = 0;
  for (const std::string& statement : SqliteStore::Statements()) {
    const std::string plan = PlanOf(database, statement);
    EXPECT_THAT(plan, AllOf(Not(HasSubstr("SCAN")), Not(HasSubstr("B-TREE")))) << statement;
    EXPECT_GE(CountOf("?", plan), ConditionsOf(statement)) << statement << "\n" << plan;  // each by an index
    conditions += ConditionsOf(statement);
  }
  EXPECT_GE(conditions, 15U);
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
