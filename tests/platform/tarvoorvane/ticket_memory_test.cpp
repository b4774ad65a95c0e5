#include "ticket_memory.h"

#include <gtest/gtest.h>
#include <malloc.h>

namespace TarvoOrvane::Internal {
namespace {

void AddNumbered(TicketMemory& memory, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) memory.Add("other-" + std::to_string(i));
}

// Each test says in full what was added, and what is known then.

TEST(TicketMemoryTest, ItContainsWhatWasAddedAndNothingElse) {
  TicketMemory memory;
  EXPECT_FALSE(memory.Contains("a"));
  memory.Add("a");
  EXPECT_TRUE(memory.Contains("a"));
  EXPECT_FALSE(memory.Contains("A"));
  EXPECT_FALSE(memory.Contains(""));
}

TEST(TicketMemoryTest, TheLast256AreKept) {
  TicketMemory memory;
  memory.Add("first");
  AddNumbered(memory, 255);
  EXPECT_TRUE(memory.Contains("first"));
  memory.Add("the 257th");
  EXPECT_FALSE(memory.Contains("first"));
  EXPECT_TRUE(memory.Contains("other-0"));
  EXPECT_TRUE(memory.Contains("the 257th"));
}

TEST(TicketMemoryTest, OneThatIsAddedAgainIsTheYoungest) {
  TicketMemory memory;
  memory.Add("first");
  AddNumbered(memory, 255);
  memory.Add("first");
  memory.Add("the 257th");
  EXPECT_TRUE(memory.Contains("first"));
  EXPECT_FALSE(memory.Contains("other-0"));
}

TEST(TicketMemoryTest, OneThatIsAddedAgainTakesNoSecondPlace) {
  TicketMemory memory;
  memory.Add("first");
  memory.Add("second");
  memory.Add("second");
  AddNumbered(memory, 254);
  EXPECT_TRUE(memory.Contains("first"));
}

TEST(TicketMemoryTest, TheEmptyIdIsNotRemembered) {
  TicketMemory memory;
  memory.Add("");
  EXPECT_FALSE(memory.Contains(""));
}

TEST(TicketMemoryTest, LongIdsTakeNoMoreRoomThanShortOnes) {
  TicketMemory memory;
  const std::size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
  const std::string long_part(60UL * 1024, 'x');
  for (int i = 0; i < 256; ++i) memory.Add(long_part + std::to_string(i));
  EXPECT_LT(mallinfo2().uordblks + mallinfo2().hblkhd, before + (1UL << 20));
  EXPECT_TRUE(memory.Contains(long_part + "0"));
  EXPECT_FALSE(memory.Contains(long_part));
}

}  // namespace
}  // namespace TarvoOrvane::Internal
