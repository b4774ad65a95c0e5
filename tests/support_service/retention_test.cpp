#include "retention.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

TEST(ClockWatchTest, SetsAreNoticedOnceAndDriftIsNone) {
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
  EXPECT_FALSE(watch.WasSet(pass(hours(1), hours(1))));
  EXPECT_TRUE(watch.WasSet(pass(seconds(0), -seconds(61))));
  EXPECT_FALSE(watch.WasSet(pass(hours(1), hours(1))));
}

// ---- with a store, the book and files ----

/// A data folder with archives, and clocks that the test sets.
class RetentionTest : public testing::Test {
 protected:
  RetentionTest() { settings_.archives = 2; }

  /// The process begins, and so does what it knows of the clock.
  void Start() {
    retention_.emplace(
        dispatcher_, store_, archives_, metrics_, [this](const std::string& line) { lines_.push_back(line); },
        [this] { return now_; });
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
  [[nodiscard]] std::vector<TicketNumber> Files() const {
    std::vector<TicketNumber> numbers;
    for (TicketNumber number = 1; number <= store_.LastTicket(); ++number) {
      if (fs::exists(FileOf(number))) numbers.push_back(number);
    }
    return numbers;
  }

  test_support::TemporaryFolder folder_;
  const ArchiveStore archives_{folder_.path() / "data"};
  MemoryStore store_;
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
  // The dispatcher takes its tickets up anew first.
  while (Files().size() > 2) {
    try {
      LookOften();
    } catch (const StoreError&) {
      continue;
    }
  }
  EXPECT_THAT(Files(), ElementsAre(2, 3));
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
  EXPECT_EQ(store_.KeptTotals().count, 2U) << "it counts as deleted; the next start tries again";
  EXPECT_NO_THROW(LookOften());
}

TEST_F(RetentionTest, ThreadLooksAtItsStartAndWhenTheSettingsChange) {
  for (int i = 0; i < 3; ++i) Keep();
  Pass(2 * kDay);
  Start();
  const auto has = [this](std::size_t count) {
    return test_support::Eventually([&] { return store_.KeptTotals().count == count; });
  };
  RetentionThread thread(
      settings_,
      std::make_unique<Retention>(
          dispatcher_, store_, archives_, metrics_, [](const std::string&) {}, [this] { return now_; }),
      [](const std::string&) {});
  EXPECT_TRUE(has(2));
  settings_.archives = 1;
  thread.SetSettings(settings_);
  EXPECT_TRUE(has(1));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
