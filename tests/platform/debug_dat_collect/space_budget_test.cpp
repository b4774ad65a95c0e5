#include "space_budget.h"

#include <gmock/gmock.h>

namespace TARVO::SupportForm {
namespace {

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;

/// A device of 1 GiB, 64 MiB of which must remain, and an archive that needs another MiB for its end.
class SpaceBudgetTest : public testing::Test {
 protected:
  SpaceBudgetTest() {
    limits_.free_bytes = 64 * kMiB;
    space_ = DeviceSpace{1024 * kMiB, 10 * kMiB, 11 * kMiB, 1'000'000 * kMiB};
  }

  /// What there is room for when so many bytes would be left: some is kept back for what can't be compressed.
  static std::uint64_t InRoomOf(std::uint64_t bytes) { return bytes - bytes / 64; }

  Limits limits_;
  std::optional<DeviceSpace> space_;
  unsigned looks_ = 0;
  SpaceBudget budget_{limits_, [this] {
                        ++looks_;
                        return space_;
                      }};
};

TEST_F(SpaceBudgetTest, WhatFitsIsAllowedWhole) {
  EXPECT_EQ(budget_.Allow(100 * kMiB, kMiB).bytes, 100 * kMiB);
  EXPECT_EQ(budget_.Allow(0, kMiB).bytes, 0U);
}

TEST_F(SpaceBudgetTest, OfWhatDoesNotFitAsMuchAsThereIsRoomFor) {
  // Neither what must remain nor the archive's end is given away.
  EXPECT_EQ(budget_.Allow(2'000 * kMiB, kMiB).bytes, InRoomOf(1024 * kMiB - 64 * kMiB - kMiB));
}

TEST_F(SpaceBudgetTest, LessThanTheLeastIsLeftOutForWantOfSpace) {
  space_->free = 65 * kMiB + 1'000;
  EXPECT_EQ(budget_.Allow(kMiB, InRoomOf(1'000)).bytes, InRoomOf(1'000));
  EXPECT_EQ(budget_.Allow(InRoomOf(1'000), kMiB).bytes, InRoomOf(1'000)) << "all of it is enough";
  const Allowance refused = budget_.Allow(kMiB, InRoomOf(1'000) + 1);
  EXPECT_EQ(refused.bytes, std::nullopt);
  EXPECT_EQ(refused.why, "left out for want of space: " + std::to_string(65 * kMiB + 1'000) +
                             " bytes are free on the device, and " + std::to_string(64 * kMiB) +
                             " must remain");
}

TEST_F(SpaceBudgetTest, WithoutAnyRoomEvenAnEmptyEntryIsLeftOut) {
  space_->free = 3;
  EXPECT_EQ(budget_.Allow(0, 0).bytes, std::nullopt);
}

TEST_F(SpaceBudgetTest, FileSizeLimitBindsWhereItIsTighterThanTheDevice) {
  space_->file_size_limit = 20 * kMiB;
  EXPECT_EQ(budget_.Allow(100 * kMiB, kMiB).bytes, InRoomOf(9 * kMiB));
  EXPECT_EQ(budget_.Allow(100 * kMiB, 10 * kMiB).why,
            "left out for want of space: the collection may write no file of more than " +
                std::to_string(20 * kMiB) + " bytes");
  space_->file_size_limit = 11 * kMiB - 1;
  EXPECT_EQ(budget_.Allow(1, 1).bytes, 1U) << "as of the last look";
  EXPECT_EQ(budget_.Allow(100 * kMiB, 1).bytes, std::nullopt);
}

TEST_F(SpaceBudgetTest, DeviceThatTellsNothingHasRoomForAnything) {
  space_.reset();
  EXPECT_EQ(budget_.Allow(limits_.archive_bytes, kMiB).bytes, limits_.archive_bytes);
  EXPECT_GE(budget_.RoomFor(1), limits_.archive_bytes);
}

TEST_F(SpaceBudgetTest, ArchivesBytesAreSharedByItsEntries) {
  limits_.archive_bytes = 1'000;
  EXPECT_EQ(budget_.Allow(5'000, 10).bytes, 1'000U);
  budget_.Add(991);
  EXPECT_EQ(budget_.Allow(9, 10).bytes, 9U);
  EXPECT_EQ(budget_.Allow(10, 10).why, "left out: with its 10 bytes the archive would pass 1000");
  EXPECT_EQ(budget_.Allow(20, 9).bytes, 9U);
}

TEST_F(SpaceBudgetTest, ArchivesEntriesAreCounted) {
  limits_.archive_entries = 2;
  budget_.Add(0);
  EXPECT_EQ(budget_.Allow(1, 1).bytes, 1U);
  budget_.Add(1);
  EXPECT_EQ(budget_.Allow(1, 1).why, "left out: the archive has 2 entries");
}

TEST_F(SpaceBudgetTest, DeviceIsLookedAtAgainOnlyAfterSoManyBytesOrForWhatDoesNotFit) {
  const std::uint64_t room = budget_.RoomFor(1);
  EXPECT_EQ(looks_, 1U);
  budget_.Add(1'000);
  EXPECT_LE(budget_.RoomFor(1), room - 1'000) << "what was added is not there any more";
  EXPECT_EQ(looks_, 1U);
  static_cast<void>(budget_.RoomFor(room));
  EXPECT_EQ(looks_, 2U) << "it does not fit as far as is known";
  budget_.Add(kLookBytes);
  static_cast<void>(budget_.RoomFor(1));
  EXPECT_EQ(looks_, 3U);
  static_cast<void>(budget_.RoomFor(1));
  EXPECT_EQ(looks_, 3U) << "nothing was added since";
}

TEST_F(SpaceBudgetTest, ManySmallEntriesLeadToALook) {
  static_cast<void>(budget_.RoomFor(1));
  for (int i = 0; i < 1'000; ++i) budget_.Add(0);
  static_cast<void>(budget_.RoomFor(1));
  EXPECT_EQ(looks_, 2U);
}

}  // namespace
}  // namespace TARVO::SupportForm
