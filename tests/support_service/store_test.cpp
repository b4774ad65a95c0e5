/// What holds for any store: the one in a file and the one in memory.
#include "store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <memory>
#include <numeric>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "memory_store.h"
#include "sqlite_store.h"
#include "store_entries.h"
#include "temporary_folder.h"

namespace TarvoOrvane::SupportService {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

class StoreTest : public testing::TestWithParam<const char*> {
 protected:
  StoreTest() {
    if (std::string(GetParam()) == "Sqlite") {
      store_ = std::make_unique<SqliteStore>(temporary_.path() / "store");
    } else {
      store_ = std::make_unique<MemoryStore>();
    }
  }

  [[nodiscard]] std::vector<TicketNumber> Listed(const TicketFilter& filter,
                                                 std::size_t limit = kNoLimit) const {
    return NumbersOf(store_->List(filter, limit));
  }

  /// All that the filter lets through, page by page.
  [[nodiscard]] std::vector<TicketNumber> ListedInPages(TicketFilter filter, std::size_t page) const {
    std::vector<TicketNumber> numbers;
    for (;;) {
      const std::vector<TicketNumber> next = Listed(filter, page);
      EXPECT_LE(next.size(), page);
      if (next.empty()) return numbers;
      numbers.insert(numbers.end(), next.begin(), next.end());
      filter.before = next.back();
    }
  }

  const test_support::TemporaryFolder temporary_;
  std::unique_ptr<Store> store_;
  EntryMaker make_;
};

INSTANTIATE_TEST_SUITE_P(Each, StoreTest, testing::Values("Memory", "Sqlite"),
                         [](const auto& each) { return std::string(each.param); });

TEST_P(StoreTest, NewStoreHoldsNothing) {
  EXPECT_EQ(store_->LastEvent(), 0U);
  EXPECT_EQ(store_->LastTicket(), 0U);
  EXPECT_THAT(store_->OpenTickets(), IsEmpty());
  EXPECT_FALSE(store_->Find(1));
  EXPECT_THAT(store_->FindById("", 1), IsEmpty());
  EXPECT_FALSE(store_->FindByToken(HashOf(1)));
  EXPECT_THAT(store_->List({}, 1), IsEmpty());
  EXPECT_THAT(store_->EventsOf(1, 0, 1), IsEmpty());
}

TEST_P(StoreTest, EventsOfAllTicketsAreListedInTheirOrder) {
  store_->Write(ChangesOf(make_.ManyCreated(3)));
  store_->Write({make_.Next(2, EventKind::kCancelled)});
  EXPECT_THAT(NumbersOf(store_->EventsAfter(0, kNoLimit)), ElementsAre(1, 2, 3, 4));
  EXPECT_THAT(NumbersOf(store_->EventsAfter(1, 2)), ElementsAre(2, 3));
  EXPECT_THAT(store_->EventsAfter(4, kNoLimit), IsEmpty());
}

TEST_P(StoreTest, DeletedArchiveIsKnownAsDeleted) {
  store_->Write({make_.Created(), make_.Uploaded(1, ArchiveOf(1)), make_.Uploaded(1, ArchiveOf(2))});
  Entry deletion = make_.Next(1, EventKind::kArchiveDeleted, "version 1 by anna");
  deletion.archive = ArchiveOf(1);
  deletion.archive->deleted = WallTime(std::chrono::milliseconds(5));
  deletion.archive->deletion = "anna";
  store_->Write({deletion});
  const auto archives = store_->Find(1)->archives;
  ASSERT_EQ(archives.size(), 2U);
  EXPECT_EQ(archives[0].deleted, WallTime(std::chrono::milliseconds(5)));
  EXPECT_EQ(archives[0].deletion, "anna");
  EXPECT_FALSE(archives[1].deleted);
  std::set<std::pair<std::uint64_t, bool>> names;
  for (const ArchiveName& name : store_->Archives()) names.emplace(name.version, name.deleted);
  EXPECT_THAT(names, ElementsAre(Pair(1, true), Pair(2, false)));
}

TEST_P(StoreTest, EmptyBatchChangesNothing) {
  store_->Write({make_.Created()});
  store_->Write({});
  EXPECT_EQ(store_->LastEvent(), 1U);
  EXPECT_EQ(store_->LastTicket(), 1U);
}

TEST_P(StoreTest, TicketIsFoundAsItWasWritten) {
  store_->Write({make_.Created("SN1", {"b", "a", ""}), make_.Created("SN2", {})});
  store_->Write({make_.Delivered(1, HashOf(7)), make_.Next(1, EventKind::kRejected)});
  const Ticket rejected = make_.ticket(1);
  ASSERT_TRUE(rejected.rejected_since);
  EXPECT_EQ(MembersOf(store_->Find(1).value()), MembersOf(rejected));
  EXPECT_EQ(MembersOf(store_->Find(2).value()), MembersOf(make_.ticket(2)));

  store_->Write({make_.Next(1, EventKind::kAccepted), make_.Next(1, EventKind::kOverdue)});
  ASSERT_TRUE(make_.ticket(1).overdue);
  EXPECT_EQ(MembersOf(store_->Find(1).value()), MembersOf(make_.ticket(1)));

  store_->Write({make_.Uploaded(1, ArchiveOf(3)), make_.Next(1, EventKind::kReported, "Success")});
  Ticket reported = make_.ticket(1);
  ASSERT_EQ(reported.report, "Success");
  reported.archives = {ArchiveOf(3)};
  EXPECT_EQ(MembersOf(store_->Find(1).value()), MembersOf(reported));
  EXPECT_EQ(MembersOf(store_->FindById(reported.id, 1).at(0)), MembersOf(reported));
  EXPECT_EQ(MembersOf(store_->FindByToken(HashOf(7)).value()), MembersOf(reported));
  EXPECT_EQ(MembersOf(store_->List({"SN1", {}, 0}, 1).at(0)), MembersOf(reported));
  EXPECT_FALSE(store_->Find(0));
  EXPECT_FALSE(store_->Find(3));
}

TEST_P(StoreTest, OpenTicketsHaveTheirArchives) {
  store_->Write({make_.Created(), make_.Uploaded(1, ArchiveOf(3))});
  Ticket uploaded = make_.ticket(1);
  uploaded.archives = {ArchiveOf(3)};
  EXPECT_EQ(MembersOf(store_->OpenTickets().at(0)), MembersOf(uploaded));
}

TEST_P(StoreTest, TextsMayHoldAnyBytes) {
  std::string bytes(256, '\0');
  std::iota(bytes.begin(), bytes.end(), '\0');
  Archive archive = ArchiveOf(1);
  archive.serial_number = bytes;
  archive.apps = {bytes, "", bytes + bytes};
  store_->Write({make_.Created(bytes, {bytes, "", "\"\\\xff"}), make_.Created("")});
  store_->Write({make_.Uploaded(1, archive), make_.Next(1, EventKind::kReported, bytes)});
  Ticket expected = make_.ticket(1);
  expected.archives = {archive};
  EXPECT_EQ(MembersOf(store_->Find(1).value()), MembersOf(expected));
  EXPECT_EQ(store_->EventsOf(1, 0, kNoLimit).back().text, bytes);
  EXPECT_THAT(Listed({bytes, {}, 0}), ElementsAre(1));
  EXPECT_THAT(Listed({"", {}, 0}), ElementsAre(2));
  EXPECT_THAT(Listed({bytes.substr(0, 255), {}, 0}), IsEmpty());
}

TEST_P(StoreTest, EmptyReportIsAReport) {
  store_->Write({make_.Created(), make_.Next(1, EventKind::kReported, "")});
  EXPECT_EQ(store_->Find(1)->report, "");
}

TEST_P(StoreTest, BatchWithAnEntryThatCannotBeWrittenLeavesNothing) {
  store_->Write({make_.Created(), make_.Delivered(1, HashOf(1)), make_.Uploaded(1, ArchiveOf(1))});
  const auto before = MembersOf(store_->Find(1).value());
  EntryMaker repeated;
  EntryMaker stranger = make_;
  static_cast<void>(stranger.Created());
  const std::vector<Entry> unwritable = {repeated.Created(), stranger.Next(2, EventKind::kDelivered),
                                         EntryMaker(make_).Delivered(1, HashOf(1)),
                                         EntryMaker(make_).Uploaded(1, ArchiveOf(1))};
  for (Entry bad : unwritable) {
    EntryMaker make = make_;
    std::vector<Entry> batch = {make.Next(1, EventKind::kStreamEnded, "lost"), make.Delivered(1, HashOf(2)),
                                make.Uploaded(1, ArchiveOf(2))};
    bad.event.number = batch.back().event.number + 1;
    batch.push_back(bad);
    EXPECT_THROW(store_->Write(ChangesOf(batch)), StoreError) << ToText(bad.event.kind);
    EXPECT_EQ(MembersOf(store_->Find(1).value()), before);
    EXPECT_THAT(Listed({}), ElementsAre(1));
    EXPECT_THAT(NumbersOf(store_->EventsOf(1, 0, kNoLimit)), ElementsAre(1, 2, 3));
    EXPECT_FALSE(store_->FindByToken(HashOf(2)));
    EXPECT_EQ(store_->LastEvent(), 3U);
    EXPECT_EQ(store_->LastTicket(), 1U);
  }
  store_->Write({make_.Delivered(1, HashOf(2)), make_.Created()});
  EXPECT_EQ(store_->LastEvent(), 5U);
  EXPECT_EQ(store_->LastTicket(), 2U);
}

TEST_P(StoreTest, LastEventOfABatchMakesTheTicket) {
  store_->Write(
      {make_.Created(), make_.Created(), make_.Delivered(1, HashOf(1)), make_.Next(1, EventKind::kAccepted)});
  EXPECT_EQ(store_->Find(1)->state, TicketState::kAccepted);
  EXPECT_EQ(store_->Find(2)->state, TicketState::kQueued);
  EXPECT_THAT(NumbersOf(store_->EventsOf(1, 0, kNoLimit)), ElementsAre(1, 3, 4));
}

TEST_P(StoreTest, OpenTicketsAreThoseNotAtTheirEndOldestFirst) {
  std::vector<Entry> entries;
  std::vector<TicketNumber> open;
  for (int round = 0; round < 2; ++round) {
    for (const TicketState state : kTicketStates) {
      entries.push_back(make_.Created());
      entries.back().ticket.state = state;
      if (IsOpen(state)) open.push_back(entries.back().ticket.number);
    }
  }
  store_->Write(ChangesOf(entries));
  ASSERT_EQ(open.size(), 8U);
  EXPECT_EQ(NumbersOf(store_->OpenTickets()), open);
}

TEST_P(StoreTest, TicketIsFoundByTheBeginningOfItsId) {
  std::vector<Entry> entries = make_.ManyCreated(4);
  const char* const ids[] = {"a000000000000000", "a0ffffffffffffff", "a100000000000000", "ffffffffffffffff"};
  for (std::size_t i = 0; i < entries.size(); ++i) entries[i].ticket.id = ids[i];
  store_->Write(ChangesOf(entries));
  const auto found = [&](const std::string& beginning) {
    return NumbersOf(store_->FindById(beginning, kNoLimit));
  };
  EXPECT_THAT(found(""), UnorderedElementsAre(1, 2, 3, 4));
  EXPECT_THAT(found("a"), UnorderedElementsAre(1, 2, 3));
  EXPECT_THAT(found("a0"), UnorderedElementsAre(1, 2));
  EXPECT_THAT(found("a0f"), ElementsAre(2));
  EXPECT_THAT(found("ffffffffffffffff"), ElementsAre(4));
  for (const char* nothing : {"A", "a2", "a0g", "9", "g", "%", "_", "a0000000000000000", "\xff", "a*"}) {
    EXPECT_THAT(found(nothing), IsEmpty()) << nothing;
  }
  EXPECT_EQ(store_->FindById("a", 2).size(), 2U);
  EXPECT_EQ(store_->FindById("a", 3).size(), 3U);
  EXPECT_EQ(store_->FindById("a", 0).size(), 0U);
}

TEST_P(StoreTest, EveryTokenOfATicketFindsIt) {
  store_->Write(
      {make_.Created(), make_.Created(), make_.Delivered(1, HashOf(1)), make_.Delivered(2, HashOf(2))});
  store_->Write({make_.Next(1, EventKind::kStreamEnded), make_.Delivered(1, HashOf(3))});
  EXPECT_EQ(store_->FindByToken(HashOf(1))->number, 1U);
  EXPECT_EQ(store_->FindByToken(HashOf(2))->number, 2U);
  EXPECT_EQ(store_->FindByToken(HashOf(3))->number, 1U);
  EXPECT_FALSE(store_->FindByToken(HashOf(0)));
}

TEST_P(StoreTest, ArchivesComeInTheOrderOfTheirVersions) {
  store_->Write(
      {make_.Created(), make_.Created(), make_.Uploaded(1, ArchiveOf(20)), make_.Uploaded(2, ArchiveOf(20))});
  store_->Write({make_.Uploaded(1, ArchiveOf(3)), make_.Uploaded(1, ArchiveOf(100))});
  std::vector<std::uint64_t> versions;
  const std::vector<Archive> archives = store_->Find(1).value().archives;
  versions.reserve(archives.size());
  for (const Archive& archive : archives) versions.push_back(archive.version);
  EXPECT_THAT(versions, ElementsAre(3, 20, 100));
  EXPECT_EQ(store_->Find(2)->archives.size(), 1U);
}

TEST_P(StoreTest, EveryArchiveIsListedByItsTicketsId) {
  EXPECT_THAT(store_->Archives(), IsEmpty());
  store_->Write({make_.Created(), make_.Created(), make_.Uploaded(1, ArchiveOf(20)),
                 make_.Uploaded(1, ArchiveOf(3)), make_.Uploaded(2, ArchiveOf(20))});
  std::set<std::pair<std::string, std::uint64_t>> listed;
  for (const ArchiveName& archive : store_->Archives()) listed.emplace(archive.ticket_id, archive.version);
  const std::string first = store_->Find(1)->id;
  EXPECT_THAT(listed, UnorderedElementsAre(Pair(first, 3), Pair(first, 20), Pair(store_->Find(2)->id, 20)));
}

TEST_P(StoreTest, ArchivesOfTheTicketWrittenAreNotLookedAt) {
  store_->Write({make_.Created(), make_.Uploaded(1, ArchiveOf(1))});
  Entry reported = make_.Next(1, EventKind::kReported, "Success");
  reported.ticket.archives = {ArchiveOf(8), ArchiveOf(9)};
  store_->Write({reported});
  ASSERT_EQ(store_->Find(1)->archives.size(), 1U);
  EXPECT_EQ(MembersOf(store_->Find(1)->archives[0]), MembersOf(ArchiveOf(1)));
}

TEST_P(StoreTest, PagesOfAListHaveNeitherGapsNorRepeats) {
  std::vector<Entry> entries;
  std::vector<Ticket> tickets;
  for (int i = 0; i < 60; ++i) {
    entries.push_back(make_.Created(i % 2 == 0 ? "SN1" : "SN2"));
    entries.back().ticket.state = i % 3 == 0 ? TicketState::kReported : TicketState::kQueued;
    tickets.insert(tickets.begin(), entries.back().ticket);
  }
  store_->Write(ChangesOf(entries));
  for (const std::optional<std::string>& device : {std::optional<std::string>(), {"SN1"}, {"SN2"}, {"SN3"}}) {
    for (const std::optional<TicketState>& state : {std::optional<TicketState>(),
                                                    {TicketState::kReported},
                                                    {TicketState::kQueued},
                                                    {TicketState::kExpired}}) {
      std::vector<TicketNumber> expected;
      for (const Ticket& ticket : tickets) {
        if (ticket.device == device.value_or(ticket.device) && ticket.state == state.value_or(ticket.state)) {
          expected.push_back(ticket.number);
        }
      }
      for (const std::size_t page :
           {std::size_t{1}, std::size_t{7}, std::size_t{10}, std::size_t{60}, kNoLimit}) {
        EXPECT_EQ(ListedInPages({device, state, 0}, page), expected);
      }
    }
  }
}

TEST_P(StoreTest, ListEndsAtItsLimits) {
  store_->Write(ChangesOf(make_.ManyCreated(3)));
  EXPECT_THAT(Listed({}, 0), IsEmpty());
  EXPECT_THAT(Listed({}, 2), ElementsAre(3, 2));
  EXPECT_THAT(Listed({}, 3), ElementsAre(3, 2, 1));
  EXPECT_THAT(Listed({{}, {}, 1}), IsEmpty());
  EXPECT_THAT(Listed({{}, {}, 3}), ElementsAre(2, 1));
  EXPECT_THAT(Listed({{}, {}, 4}), ElementsAre(3, 2, 1));
}

TEST_P(StoreTest, NumbersBeyondAllOthersAreTaken) {
  store_->Write(ChangesOf(make_.ManyCreated(2)));
  constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
  for (const std::uint64_t number : {kLargest, kLargest / 2, kLargest / 2 + 1}) {
    EXPECT_THAT(Listed({{}, {}, number}), ElementsAre(2, 1));
    EXPECT_FALSE(store_->Find(number));
    EXPECT_THAT(store_->EventsOf(1, number, kNoLimit), IsEmpty());
    EXPECT_THAT(store_->EventsOf(number, 0, kNoLimit), IsEmpty());
  }
}

TEST_P(StoreTest, StateThatChangesTakesTheTicketToAnotherList) {
  store_->Write(ChangesOf(make_.ManyCreated(2)));
  store_->Write({make_.Next(1, EventKind::kCancelled, "operator")});
  EXPECT_THAT(Listed({{}, TicketState::kQueued, 0}), ElementsAre(2));
  EXPECT_THAT(Listed({"SN1", TicketState::kCancelled, 0}), ElementsAre(1));
  EXPECT_THAT(NumbersOf(store_->OpenTickets()), ElementsAre(2));
}

TEST_P(StoreTest, EventsOfATicketComeInTheirOrderPageByPage) {
  store_->Write(ChangesOf(make_.ManyCreated(2)));
  for (int i = 0; i < 5; ++i) {
    store_->Write({make_.Next(1, EventKind::kDelivered, "one"), make_.Next(2, EventKind::kDelivered, "two")});
    store_->Write({make_.Next(1, EventKind::kRejected, std::to_string(i))});
  }
  std::vector<EventNumber> all = NumbersOf(store_->EventsOf(1, 0, kNoLimit));
  EXPECT_THAT(all, ElementsAre(1, 3, 5, 6, 8, 9, 11, 12, 14, 15, 17));
  for (std::size_t page = 1; page <= all.size() + 1; ++page) {
    std::vector<EventNumber> paged;
    for (std::vector<Event> events = store_->EventsOf(1, 0, page); !events.empty();
         events = store_->EventsOf(1, paged.back(), page)) {
      EXPECT_LE(events.size(), page);
      for (const Event& event : events) paged.push_back(event.number);
    }
    EXPECT_EQ(paged, all);
  }
  EXPECT_THAT(NumbersOf(store_->EventsOf(1, 4, 2)), ElementsAre(5, 6));
  EXPECT_THAT(store_->EventsOf(1, 17, 1), IsEmpty());
  EXPECT_THAT(store_->EventsOf(1, 0, 0), IsEmpty());
  EXPECT_THAT(store_->EventsOf(3, 0, 1), IsEmpty());
  const Entry last = make_.Next(2, EventKind::kStreamEnded, "lost");
  store_->Write({last});
  EXPECT_EQ(MembersOf(store_->EventsOf(2, last.event.number - 1, 1).at(0)), MembersOf(last.event));
}

TEST_P(StoreTest, ReaderSeesWholeBatchesWhileAnotherThreadWrites) {
  constexpr std::uint64_t kBatches = 200;
  store_->Write(ChangesOf(make_.ManyCreated(2)));
  std::atomic<bool> written{false};
  std::thread writer([&] {
    // Each batch changes several tables, and takes both tickets from one list of open ones to another.
    for (std::uint64_t batch = 1; batch <= kBatches; ++batch) {
      std::vector<Entry> entries = {make_.Uploaded(1, ArchiveOf(batch)), make_.Uploaded(2, ArchiveOf(batch))};
      entries[0].ticket.state = batch % 2 == 0 ? TicketState::kQueued : TicketState::kAccepted;
      entries[1].ticket.state = batch % 2 == 0 ? TicketState::kAccepted : TicketState::kQueued;
      for (Entry& entry : entries) entry.ticket.rejections = batch;
      store_->Write(ChangesOf(entries));
    }
    written = true;
  });
  std::uint64_t seen = 0;
  for (bool is_last = false; !is_last && !HasFailure();) {
    is_last = written;
    const std::vector<Ticket> tickets = store_->OpenTickets();
    EXPECT_THAT(NumbersOf(tickets), ElementsAre(1, 2));
    EXPECT_GE(tickets.at(0).rejections, seen);
    seen = tickets.at(0).rejections;
    for (const Ticket& ticket : tickets) {
      EXPECT_EQ(ticket.rejections, seen);
      EXPECT_EQ(ticket.archives.size(), seen);
    }
  }
  writer.join();
  EXPECT_EQ(seen, HasFailure() ? seen : kBatches);
}

TEST_P(StoreTest, WebhooksPositionIsTheLastOneUntilItIsForgotten) {
  EXPECT_FALSE(store_->ToldByWebhook());
  store_->Write({WebhookPosition{0}});
  EXPECT_EQ(store_->ToldByWebhook(), 0U);
  store_->Write({WebhookPosition{7}});
  store_->Write({WebhookPosition{5}});
  EXPECT_EQ(store_->ToldByWebhook(), 5U);
  store_->Write({WebhookPosition{}});
  EXPECT_FALSE(store_->ToldByWebhook());
}

TEST(MemoryStoreTest, FailsAsLongAsItIsTold) {
  EntryMaker make;
  MemoryStore store;
  const Entry entry = make.Created();
  store.FailWrites(true);
  EXPECT_THROW(store.Write({entry}), StoreError);
  EXPECT_THROW(store.Write({}), StoreError);
  EXPECT_EQ(store.LastEvent(), 0U);
  EXPECT_FALSE(store.Find(1));
  store.FailWrites(false);
  store.Write({entry});
  EXPECT_TRUE(store.Find(1));
}

// ---- what is kept ----

class KeptArchivesTest : public StoreTest {
 protected:
  static WallTime Hour(int hour) { return WallTime(std::chrono::hours(480'000 + hour)); }

  /// A ticket of the device with an archive that came then.
  void Keep(const std::string& device, int hour, std::uint64_t bytes, bool is_open = false) {
    const Entry created = make_.Created(device);
    Archive archive = ArchiveOf(1);
    archive.received = Hour(hour);
    archive.size_bytes = bytes;
    store_->Write({created, make_.Uploaded(created.ticket.number, archive)});
    if (!is_open) store_->Write({make_.Next(created.ticket.number, EventKind::kReported, "Success")});
  }
  void Delete(TicketNumber number) {
    Entry entry = make_.Next(number, EventKind::kArchiveDeleted);
    entry.archive = store_->Find(number)->archives.at(0);
    entry.archive->deleted = Hour(100);
    entry.archive->deletion = "somebody";
    store_->Write({entry});
  }
  [[nodiscard]] std::vector<TicketNumber> Oldest(const std::optional<std::string>& device, int before,
                                                 std::size_t limit = kNoLimit) const {
    std::vector<TicketNumber> numbers;
    for (const KeptArchive& archive : store_->OldestArchives(device, Hour(before), limit)) {
      EXPECT_EQ(archive.ticket_id, EntryMaker::IdOf(archive.ticket));
      EXPECT_EQ(archive.version, 1U);
      numbers.push_back(archive.ticket);
    }
    return numbers;
  }
  [[nodiscard]] std::vector<std::pair<std::string, std::uint64_t>> Devices(
      std::uint64_t than, std::size_t limit = kNoLimit,
      const std::optional<DeviceArchives>& behind = {}) const {
    std::vector<std::pair<std::string, std::uint64_t>> devices;
    for (const auto& device : store_->DevicesWithMoreArchives(than, behind, limit)) {
      devices.emplace_back(device.serial_number, device.count);
    }
    return devices;
  }
};

INSTANTIATE_TEST_SUITE_P(Each, KeptArchivesTest, testing::Values("Memory", "Sqlite"),
                         [](const auto& each) { return std::string(each.param); });

TEST_P(KeptArchivesTest, TotalsFollowWhatIsAddedAndDeleted) {
  EXPECT_EQ(store_->KeptTotals().count, 0U);
  Keep("SN1", 1, 10);
  Keep("SN2", 2, 200);
  EXPECT_EQ(store_->KeptTotals().count, 2U);
  EXPECT_EQ(store_->KeptTotals().bytes, 210U);
  Delete(1);
  EXPECT_EQ(store_->KeptTotals().count, 1U);
  EXPECT_EQ(store_->KeptTotals().bytes, 200U);
}

TEST_P(KeptArchivesTest, OldestAreThoseThatCameFirstOfTicketsThatAreAtTheirEnd) {
  Keep("SN1", 5, 1);
  Keep("SN2", 3, 1);
  Keep("SN1", 4, 1);
  Keep("SN1", 1, 1, true);
  Keep("SN1", 2, 1);
  Delete(5);
  EXPECT_THAT(Oldest({}, 6), ElementsAre(2, 3, 1));
  EXPECT_THAT(Oldest({}, 5), ElementsAre(2, 3)) << "only those that came before";
  EXPECT_THAT(Oldest({}, 6, 1), ElementsAre(2));
  EXPECT_THAT(Oldest("SN1", 6), ElementsAre(3, 1));
  EXPECT_THAT(Oldest("SN3", 6), IsEmpty());
}

TEST_P(KeptArchivesTest, DevicesWithMostArchivesComeFirst) {
  Keep("SN1", 1, 1);
  for (int hour = 2; hour < 5; ++hour) Keep("SN2", hour, 1);
  for (int hour = 5; hour < 7; ++hour) Keep("SN3", hour, 1);
  EXPECT_THAT(Devices(0), ElementsAre(Pair("SN2", 3), Pair("SN3", 2), Pair("SN1", 1)));
  EXPECT_THAT(Devices(1), ElementsAre(Pair("SN2", 3), Pair("SN3", 2)));
  EXPECT_THAT(Devices(0, 1), ElementsAre(Pair("SN2", 3)));
  Delete(2);
  Delete(3);
  EXPECT_THAT(Devices(1), ElementsAre(Pair("SN3", 2)));
}

TEST_P(KeptArchivesTest, DevicesWithMostArchivesComePageByPage) {
  for (int hour = 1; hour < 4; ++hour) Keep("SN1", hour, 1);
  for (int hour = 4; hour < 6; ++hour) Keep("SN2", hour, 1);
  for (int hour = 6; hour < 8; ++hour) Keep("SN3", hour, 1);
  Keep("SN4", 9, 1);
  std::vector<std::pair<std::string, std::uint64_t>> all;
  std::optional<DeviceArchives> behind;
  for (auto page = Devices(0, 1); !page.empty(); page = Devices(0, 1, behind)) {
    ASSERT_LT(all.size(), 4U);
    all.push_back(page.at(0));
    behind = DeviceArchives{page.at(0).first, page.at(0).second};
  }
  EXPECT_EQ(all, Devices(0));
  EXPECT_EQ(all.size(), 4U) << "also where two have as many";
  EXPECT_THAT(Devices(1, kNoLimit, DeviceArchives{"SN2", 2}), IsEmpty());
  EXPECT_EQ(store_->KeptOfDevice("SN1"), 3U);
  EXPECT_EQ(store_->KeptOfDevice("SN5"), 0U);
  Delete(1);
  EXPECT_EQ(store_->KeptOfDevice("SN1"), 2U);
}

TEST_P(KeptArchivesTest, LookOfRetentionIsTheNewestOne) {
  EXPECT_FALSE(store_->RetentionLookedAt());
  store_->Write({RetentionLooked{Hour(9)}});
  store_->Write({RetentionHeld{Hour(8)}, RetentionLooked{Hour(7)}});
  EXPECT_EQ(store_->RetentionLookedAt(), Hour(7));
}

TEST_P(KeptArchivesTest, HoldOfRetentionIsTheNewestOne) {
  EXPECT_FALSE(store_->RetentionHeldUntil());
  store_->Write({RetentionHeld{Hour(9)}});
  store_->Write({RetentionHeld{Hour(7)}});
  EXPECT_EQ(store_->RetentionHeldUntil(), Hour(7));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
