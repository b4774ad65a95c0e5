#include "retention.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <utility>

#include "eventually.h"
#include "memory_store.h"
#include "store_entries.h"
#include "temporary_folder.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr hours kDay{24};
const WallTime kNow{hours(480'000)};

RetentionSettings Unlimited() { return {0, 0, 0, 0}; }

/// Archives of 10 bytes each that came so long ago, of the tickets 1, 2 and so on.
std::vector<KeptArchive> Aged(const std::vector<hours>& ages) {
  std::vector<KeptArchive> archives;
  archives.reserve(ages.size());
  for (const hours age : ages) {
    archives.push_back({archives.size() + 1, "id", 1, 10, kNow - age});
  }
  return archives;
}

std::vector<TicketNumber> TicketsOf(const std::vector<Surplus>& surplus) {
  std::vector<TicketNumber> tickets;
  tickets.reserve(surplus.size());
  for (const Surplus& each : surplus) tickets.push_back(each.archive.ticket);
  return tickets;
}

// ---- the choice ----

TEST(RetentionChoiceTest, WithoutLimitsAllIsKept) {
  EXPECT_THAT(ChooseSurplus(Unlimited(), {3, 30}, Aged({9000 * kDay, 5 * kDay, 2 * kDay}), kNow), IsEmpty());
  EXPECT_THAT(ChooseSurplusOfDevice(Unlimited(), 3, Aged({3 * kDay, 2 * kDay})), IsEmpty());
}

TEST(RetentionChoiceTest, MoreThanTheNumberGoOldestFirst) {
  RetentionSettings settings = Unlimited();
  settings.archives = 3;
  const auto oldest = Aged({5 * kDay, 4 * kDay, 3 * kDay});
  EXPECT_THAT(TicketsOf(ChooseSurplus(settings, {3, 30}, oldest, kNow)), IsEmpty());
  EXPECT_THAT(TicketsOf(ChooseSurplus(settings, {4, 40}, oldest, kNow)), ElementsAre(1));
  const auto surplus = ChooseSurplus(settings, {5, 50}, oldest, kNow);
  EXPECT_THAT(TicketsOf(surplus), ElementsAre(1, 2));
  EXPECT_EQ(surplus.at(0).limit, Limit::kArchives);
  EXPECT_EQ(surplus.at(0).cause, "there are more than 3 archives");
}

TEST(RetentionChoiceTest, MoreThanTheBytesGoUntilTheRestFits) {
  RetentionSettings settings = Unlimited();
  settings.bytes = 30;
  const auto oldest = Aged({5 * kDay, 4 * kDay, 3 * kDay});
  EXPECT_THAT(TicketsOf(ChooseSurplus(settings, {3, 30}, oldest, kNow)), IsEmpty());
  EXPECT_THAT(TicketsOf(ChooseSurplus(settings, {4, 31}, oldest, kNow)), ElementsAre(1));
  const auto surplus = ChooseSurplus(settings, {5, 50}, oldest, kNow);
  EXPECT_THAT(TicketsOf(surplus), ElementsAre(1, 2));
  EXPECT_EQ(surplus.at(0).limit, Limit::kArchiveBytes);
  EXPECT_EQ(surplus.at(0).cause, "there are more than 30 bytes in archives");
}

TEST(RetentionChoiceTest, OlderThanTheDaysGo) {
  RetentionSettings settings = Unlimited();
  settings.days = 4;
  const auto surplus =
      ChooseSurplus(settings, {3, 30}, Aged({5 * kDay, 4 * kDay + hours(1), 4 * kDay}), kNow);
  EXPECT_THAT(TicketsOf(surplus), ElementsAre(1, 2));
  EXPECT_EQ(surplus.at(0).limit, Limit::kArchiveDays);
  EXPECT_EQ(surplus.at(0).cause, "it is older than 4 days");
}

TEST(RetentionChoiceTest, LimitsTogetherTakeNoMoreThanTheStrictestOne) {
  const RetentionSettings settings{4, 30, 5, 0};
  // Two are too old; then four are left, which are too many bytes.
  const auto surplus = ChooseSurplus(settings, {6, 60}, Aged({7 * kDay, 6 * kDay, 5 * kDay, 4 * kDay}), kNow);
  EXPECT_THAT(TicketsOf(surplus), ElementsAre(1, 2, 3));
  EXPECT_EQ(surplus.at(2).limit, Limit::kArchiveBytes);
}

TEST(RetentionChoiceTest, WhereTheYoungAloneAreTooManyNoMoreThanTheOldGo) {
  RetentionSettings settings = Unlimited();
  settings.archives = 1;
  EXPECT_THAT(TicketsOf(ChooseSurplus(settings, {100, 1000}, Aged({2 * kDay}), kNow)), ElementsAre(1));
}

TEST(RetentionChoiceTest, OneThatIsTakenOffAlreadyMakesNoOtherGo) {
  // The first two are too old. One of them is deleted by somebody else, and not in the totals any more.
  const auto surplus = ChooseSurplus({2, 20, 4, 0}, {1, 10}, Aged({6 * kDay, 5 * kDay, 3 * kDay}), kNow);
  EXPECT_THAT(TicketsOf(surplus), ElementsAre(1, 2));
}

TEST(RetentionChoiceTest, MoreOfADeviceThanItsNumberGo) {
  RetentionSettings settings = Unlimited();
  settings.archives_per_device = 2;
  const auto oldest = Aged({5 * kDay, 4 * kDay});
  EXPECT_THAT(TicketsOf(ChooseSurplusOfDevice(settings, 2, oldest)), IsEmpty());
  const auto surplus = ChooseSurplusOfDevice(settings, 3, oldest);
  EXPECT_THAT(TicketsOf(surplus), ElementsAre(1));
  EXPECT_EQ(surplus.at(0).limit, Limit::kArchivesPerDevice);
  EXPECT_THAT(TicketsOf(ChooseSurplusOfDevice(settings, 100, oldest)), ElementsAre(1, 2));
}

// ---- the clock ----

TEST(ClockWatchTest, SetsAreNoticedUntilTheyAreAcceptedAndDriftIsNone) {
  Moment now{std::chrono::steady_clock::time_point(hours(1)), kNow};
  ClockWatch watch(now);
  const auto pass = [&now](auto steady, auto wall) {
    now.steady += steady;
    now.wall += wall;
    return now;
  };
  EXPECT_FALSE(watch.WasSet(pass(hours(10), hours(10))));
  EXPECT_FALSE(watch.WasSet(pass(seconds(0), seconds(60))));
  EXPECT_TRUE(watch.WasSet(pass(seconds(0), seconds(1)))) << "many small steps are one large one";
  EXPECT_TRUE(watch.WasSet(pass(hours(1), hours(1)))) << "until something was done about it";
  watch.Accept(now);
  EXPECT_FALSE(watch.WasSet(pass(hours(1), hours(1))));
  EXPECT_TRUE(watch.WasSet(pass(seconds(0), -seconds(61))));
  watch.Accept(now);
  EXPECT_FALSE(watch.WasSet(pass(hours(1), hours(1))));
}

// ---- with a store, the book and files ----

/// A store whose answers the test steers.
class SteeredStore final : public MemoryStore {
 public:
  [[nodiscard]] std::optional<Ticket> Find(TicketNumber number) const override {
    if (number == lost_) throw StoreError("the disk has a fault");
    return MemoryStore::Find(number);
  }
  /// From now on this ticket can't be read; 0 for none.
  void Lose(TicketNumber number) { lost_ = number; }

  [[nodiscard]] ArchiveTotals KeptTotals() const override {
    const ArchiveTotals totals = MemoryStore::KeptTotals();
    if (const auto what = std::exchange(behind_totals_, {})) what();
    return totals;
  }
  /// What happens right behind the next look at the totals.
  void BehindTotals(std::function<void()> what) { behind_totals_ = std::move(what); }

 private:
  std::atomic<TicketNumber> lost_{0};
  mutable std::function<void()> behind_totals_;
};

/// A data folder with archives, and clocks that the test sets.
class RetentionTest : public testing::Test {
 protected:
  RetentionTest() { settings_.archives = 2; }

  /// The process begins, and so does what it knows of the clock.
  void Start() {
    retention_.emplace(
        dispatcher_, store_, archives_, room_, metrics_,
        [this](const std::string& line) { lines_.push_back(line); }, [this] { return now_; });
  }
  /// A ticket with an archive that comes now.
  TicketNumber Keep(const std::string& device = "SN1", bool is_open = false) {
    TicketNumber number = 0;
    dispatcher_.Call([&](TicketBook& book) {
      book.registry().Enrol(device, std::nullopt);
      number = book.Create({device, {}}).number;
      Archive archive = ArchiveOf(1);
      archive.received = now_.wall;
      EXPECT_EQ(book.RecordUpload(number, archive), UploadFate::kKept);
      if (!is_open) {
        EXPECT_TRUE(book.RecordReport(number, "Success"));
      }
    });
    test_support::WriteFile(FileOf(number), "archive");
    return number;
  }
  [[nodiscard]] std::string IdOf(TicketNumber number) const { return store_.Find(number).value().id; }
  [[nodiscard]] fs::path FileOf(TicketNumber number) const { return archives_.PathOf(IdOf(number), 1); }
  void Pass(std::chrono::milliseconds time) {
    now_.steady += time;
    now_.wall += time;
  }
  void LookOften() {
    while (retention_->DeleteSome(settings_)) {
    }
  }
  /// The same, as soon as the dispatcher has taken its tickets up anew.
  [[nodiscard]] bool LookOftenWhenItWorksAgain() {
    return test_support::Eventually([this] {
      try {
        LookOften();
        return true;
      } catch (const StoreError&) {
        return false;
      }
    });
  }
  [[nodiscard]] std::vector<TicketNumber> Files() const {
    std::vector<TicketNumber> numbers;
    for (TicketNumber number = 1; number <= store_.LastTicket(); ++number) {
      if (fs::exists(FileOf(number))) numbers.push_back(number);
    }
    return numbers;
  }

  test_support::TemporaryFolder folder_;
  const ArchiveStore archives_{folder_.path() / "data"};
  DiskRoom room_{folder_.path(), 0};
  SteeredStore store_;
  Metrics metrics_;
  std::vector<std::string> lines_;
  Dispatcher dispatcher_{{}, store_, [](const std::string&) {}, metrics_};
  Moment now_{std::chrono::steady_clock::time_point(hours(1000)), kNow};
  RetentionSettings settings_ = Unlimited();
  std::optional<Retention> retention_;
};

TEST_F(RetentionTest, WhatGoesLeavesItsSizeItsHashAndTheCause) {
  for (int i = 0; i < 3; ++i) Keep();
  Start();
  Pass(2 * kDay);
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(2, 3));
  const Archive gone = store_.Find(1)->archives.at(0);
  EXPECT_TRUE(gone.deleted);
  EXPECT_EQ(gone.deletion, "the service: there are more than 2 archives");
  EXPECT_EQ(gone.size_bytes, ArchiveOf(1).size_bytes);
  EXPECT_EQ(gone.sha256, ArchiveOf(1).sha256);
  const auto events = store_.EventsOf(1, 0, 100);
  EXPECT_EQ(events.back().kind, EventKind::kArchiveDeleted);
  EXPECT_EQ(events.back().text, "version 1 by the service: there are more than 2 archives");
  const auto audit = store_.Audit(0, 10);
  ASSERT_EQ(audit.size(), 1U);
  EXPECT_EQ(audit[0].actor.who, "the service");
  EXPECT_EQ(audit[0].action, "delete archive");
  EXPECT_EQ(audit[0].object, IdOf(1));
  EXPECT_EQ(audit[0].detail, "version 1: there are more than 2 archives");
  EXPECT_EQ(metrics_.met(Limit::kArchives), 1U);
}

TEST_F(RetentionTest, WhatIsYoungerThanADayStaysWhateverTheLimitIs) {
  settings_ = {1, 1, 1, 1};
  for (int i = 0; i < 3; ++i) Keep();
  Start();
  Pass(kDay);
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(1, 2, 3));
  Pass(std::chrono::milliseconds(1));
  LookOften();
  EXPECT_THAT(Files(), IsEmpty()) << "a single one has more bytes than that";
}

TEST_F(RetentionTest, ManyGoBatchByBatch) {
  for (int i = 0; i < 250; ++i) Keep("SN" + std::to_string(i % 3));
  Start();
  Pass(2 * kDay);
  EXPECT_TRUE(retention_->DeleteSome(settings_));
  EXPECT_GT(Files().size(), 2U);
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(249, 250));
}

TEST_F(RetentionTest, OfEachDeviceItsOwnNumberStays) {
  settings_ = Unlimited();
  settings_.archives_per_device = 1;
  for (const char* device : {"SN1", "SN2", "SN1", "SN2", "SN3"}) Keep(device);
  Start();
  Pass(2 * kDay);
  Keep("SN1");
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(4, 5, 6)) << "the newest of SN2, of SN3, and of SN1";
}

TEST_F(RetentionTest, DeviceWhoseArchivesAreAllYoungDoesNotHideAnother) {
  settings_ = Unlimited();
  settings_.archives_per_device = 1;
  Keep("SN2");
  Keep("SN2");
  Start();
  Pass(2 * kDay);
  for (int i = 0; i < 5; ++i) Keep("SN1");
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(2, 3, 4, 5, 6, 7));
}

TEST_F(RetentionTest, ArchiveOfAnOpenTicketStays) {
  settings_.archives = 1;
  Keep("SN1", true);
  Keep("SN2");
  Start();
  Pass(2 * kDay);
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(1));
}

TEST_F(RetentionTest, ClockThatIsSetForwardMakesNothingOld) {
  for (int i = 0; i < 3; ++i) Keep();
  Start();
  now_.wall += 400 * kDay;
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(1, 2, 3));
  EXPECT_THAT(lines_, ElementsAre(HasSubstr("the clock was set")));
  Pass(kDay - minutes(1));
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(1, 2, 3)) << "one that came right before is younger than a day";
  Pass(minutes(2));
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(2, 3));
  EXPECT_EQ(lines_.size(), 1U);
}

TEST_F(RetentionTest, ClockThatWasSetForwardIsRememberedByTheNextProcess) {
  for (int i = 0; i < 3; ++i) Keep();
  Start();
  now_.wall += 400 * kDay;
  LookOften();
  Start();
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(1, 2, 3));
  Pass(kDay + minutes(1));
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(2, 3));
}

TEST_F(RetentionTest, ClockThatIsSetForwardByMistakeAndBackHoldsForADay) {
  for (int i = 0; i < 3; ++i) Keep();
  Start();
  now_.wall += 10'000 * kDay;
  LookOften();
  now_.wall -= 10'000 * kDay;
  LookOften();
  Pass(kDay + minutes(1));
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(2, 3));
}

TEST_F(RetentionTest, ClockThatWasSetBackWhileNoProcessRanHoldsForADay) {
  for (int i = 0; i < 3; ++i) Keep();
  Pass(3 * kDay);
  dispatcher_.Call([this](TicketBook& book) { book.registry().HoldRetention(now_.wall + 10'000 * kDay); });
  Start();
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(1, 2, 3));
  Pass(kDay + minutes(1));
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(2, 3));
}

TEST_F(RetentionTest, NothingIsDeletedThatCouldNotBeRemembered) {
  for (int i = 0; i < 3; ++i) Keep();
  Start();
  Pass(2 * kDay);
  store_.FailWrites(true);
  EXPECT_THROW(LookOften(), StoreError);
  EXPECT_THAT(Files(), ElementsAre(1, 2, 3));
  store_.FailWrites(false);
  EXPECT_TRUE(LookOftenWhenItWorksAgain());
  EXPECT_THAT(Files(), ElementsAre(2, 3));
}

TEST_F(RetentionTest, HoldThatCouldNotBeRememberedIsTriedAgain) {
  for (int i = 0; i < 3; ++i) Keep();
  Start();
  LookOften();
  now_.wall += 400 * kDay;
  store_.FailWrites(true);
  EXPECT_THROW(LookOften(), StoreError);
  Pass(minutes(1));
  store_.FailWrites(false);
  EXPECT_TRUE(LookOftenWhenItWorksAgain());
  EXPECT_THAT(Files(), ElementsAre(1, 2, 3));
  EXPECT_THAT(lines_, ElementsAre(HasSubstr("the clock was set")));
  EXPECT_EQ(store_.RetentionHeldUntil(), now_.wall + kDay);
}

TEST_F(RetentionTest, HoldOfTheStartThatCouldNotBeRememberedIsTriedAgain) {
  for (int i = 0; i < 3; ++i) Keep();
  Start();
  LookOften();
  now_.wall += 400 * kDay;
  Start();
  store_.FailWrites(true);
  EXPECT_THROW(LookOften(), StoreError);
  store_.FailWrites(false);
  EXPECT_TRUE(LookOftenWhenItWorksAgain());
  EXPECT_THAT(Files(), ElementsAre(1, 2, 3));
}

TEST_F(RetentionTest, TicketThatCannotBeReadKeepsNoOtherFromItsEnd) {
  for (int i = 0; i < 4; ++i) Keep();
  Start();
  Pass(2 * kDay);
  store_.Lose(2);
  EXPECT_THROW(LookOften(), StoreError);
  store_.Lose(0);
  EXPECT_THAT(Files(), ElementsAre(2, 3, 4));
  EXPECT_EQ(store_.KeptTotals().count, 3U);
  EXPECT_EQ(metrics_.met(Limit::kArchives), 1U);
}

TEST_F(RetentionTest, WhatIsDeletedMeanwhileCounts) {
  for (int i = 0; i < 3; ++i) Keep();
  Start();
  Pass(2 * kDay);
  store_.BehindTotals(
      [this] { dispatcher_.Call([](TicketBook& book) { book.DeleteArchive(3, 1, "somebody"); }); });
  LookOften();
  EXPECT_FALSE(store_.Find(1)->archives.at(0).deleted) << "there are only two left";
}

TEST_F(RetentionTest, BookTellsWhatTheStoreDoesNotKnowYet) {
  const TicketNumber ticket = Keep("SN1");
  dispatcher_.Call([ticket](TicketBook& book) {
    EXPECT_FALSE(book.IsInPlay(ticket));
    EXPECT_EQ(book.DeletedSince(std::nullopt).count, 0U);
    book.DeleteArchive(ticket, 1, "somebody");
    EXPECT_FALSE(book.IsInPlay(ticket));
    EXPECT_EQ(book.DeletedSince(std::nullopt).count, 1U);
    EXPECT_EQ(book.DeletedSince(std::nullopt).bytes, ArchiveOf(1).size_bytes);
    EXPECT_EQ(book.DeletedSince("SN1").count, 1U);
    EXPECT_EQ(book.DeletedSince("SN2").count, 0U);
    EXPECT_TRUE(book.IsInPlay(book.Create({"SN1", {}}).number));
  });
}

TEST_F(RetentionTest, FileThatCannotBeDeletedKeepsNoOtherFromIt) {
  for (int i = 0; i < 4; ++i) Keep();
  Start();
  Pass(2 * kDay);
  // In its place is a folder that is not empty.
  fs::remove(FileOf(1));
  fs::create_directories(FileOf(1) / "in the way");
  EXPECT_THROW(LookOften(), std::system_error);
  EXPECT_FALSE(fs::exists(FileOf(2)));
  EXPECT_EQ(store_.KeptTotals().count, 2U) << "it counts as deleted";
  settings_.archives = 1;
  EXPECT_THROW(LookOften(), std::system_error);
  EXPECT_EQ(store_.KeptTotals().count, 2U) << "no more count as deleted while their files would stay";
  fs::remove_all(FileOf(1) / "in the way");
  EXPECT_NO_THROW(LookOften());
  EXPECT_THAT(Files(), ElementsAre(4));
}

TEST_F(RetentionTest, ManyDevicesWhoseArchivesAreAllYoungDoNotHideAnother) {
  settings_ = Unlimited();
  settings_.archives_per_device = 1;
  Keep("SN");
  Keep("SN");
  Start();
  Pass(2 * kDay);
  dispatcher_.Call([this](TicketBook& book) {
    for (int i = 0; i < 3 * 1001; ++i) {
      const std::string device = "SN" + std::to_string(i / 3);
      book.registry().Enrol(device, std::nullopt);
      const TicketNumber number = book.Create({device, {}}).number;
      Archive archive = ArchiveOf(1);
      archive.received = now_.wall;
      EXPECT_EQ(book.RecordUpload(number, archive), UploadFate::kKept);
      EXPECT_TRUE(book.RecordReport(number, "Success"));
    }
  });
  EXPECT_TRUE(retention_->DeleteSome(settings_));
  EXPECT_FALSE(retention_->DeleteSome(settings_));
  EXPECT_THAT(Files(), ElementsAre(2));
}

/// By how much the clock is another one at the second start.
class WrongStartTest : public RetentionTest, public testing::WithParamInterface<std::chrono::minutes> {};

INSTANTIATE_TEST_SUITE_P(Each, WrongStartTest,
                         testing::Values(400 * kDay, kDay + minutes(1), -hours(1), -2 * kDay),
                         [](const auto& each) {
                           const auto count = each.param.count();
                           return (count < 0 ? "Back" : "Ahead") + std::to_string(std::abs(count));
                         });

TEST_P(WrongStartTest, HoldsForADay) {
  settings_ = Unlimited();
  for (int i = 0; i < 3; ++i) Keep();
  Start();
  Pass(10 * kDay);
  LookOften();
  now_.wall += GetParam();
  settings_.archives = 2;
  lines_.clear();
  Start();
  LookOften();
  Start();
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(1, 2, 3));
  EXPECT_THAT(lines_, ElementsAre(HasSubstr("did not run for more than a day, or the clock was set"),
                                  HasSubstr("limits delete no archives before")));
  Pass(kDay - minutes(1));
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(1, 2, 3));
  Pass(minutes(1));
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(2, 3));
}

TEST_F(RetentionTest, StopThatIsShortHoldsNothing) {
  Keep();
  Start();
  LookOften();
  for (int i = 0; i < 2; ++i) Keep();
  Pass(kDay + hours(1));
  LookOften();
  settings_.archives = 1;
  Pass(kDay);
  Start();
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(3));
  EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(RetentionTest, LookIsRememberedOnceAnHour) {
  Start();
  LookOften();
  EXPECT_EQ(store_.RetentionLookedAt(), now_.wall);
  Pass(minutes(59));
  LookOften();
  EXPECT_EQ(store_.RetentionLookedAt(), now_.wall - minutes(59));
  Pass(minutes(1));
  LookOften();
  EXPECT_EQ(store_.RetentionLookedAt(), now_.wall);
}

TEST_F(RetentionTest, HoldOfAnUpgradeIsToldAtTheStart) {
  for (int i = 0; i < 3; ++i) Keep();
  Pass(2 * kDay);
  dispatcher_.Call([this](TicketBook& book) { book.registry().HoldRetention(now_.wall + kDay); });
  Start();
  LookOften();
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(1, 2, 3));
  EXPECT_THAT(lines_, ElementsAre(HasSubstr("limits delete no archives before 20")));
  Pass(kDay);
  LookOften();
  EXPECT_THAT(Files(), ElementsAre(2, 3));
}

TEST_F(RetentionTest, DiskWhoseSizeIsUnknownDeletesNothing) {
  RetentionSettings settings = Unlimited();
  settings.bytes.reset();
  EXPECT_EQ(ResolvedRetention(settings, room_).bytes, room_.Look().whole_bytes / 5 * 4);
  const RetentionSettings unknown = ResolvedRetention(settings, DiskRoom("/nowhere", 0));
  EXPECT_FALSE(unknown.bytes);
  constexpr std::uint64_t kHuge = std::uint64_t{1} << 62;
  EXPECT_THAT(ChooseSurplus(unknown, {1, kHuge}, Aged({5 * kDay}), kNow), IsEmpty());
}

TEST_F(RetentionTest, ThreadLooksAtItsStartAndWhenTheSettingsChange) {
  for (int i = 0; i < 3; ++i) Keep();
  Pass(2 * kDay);
  Start();
  const auto has = [this](std::size_t count) {
    return test_support::Eventually([&] { return store_.KeptTotals().count == count; });
  };
  RetentionThread thread(settings_,
                         std::make_unique<Retention>(
                             dispatcher_, store_, archives_, room_, metrics_, [](const std::string&) {},
                             [this] { return now_; }),
                         [](const std::string&) {});
  EXPECT_TRUE(has(2));
  settings_.archives = 1;
  thread.SetSettings(settings_);
  EXPECT_TRUE(has(1));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
