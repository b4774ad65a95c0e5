#include "ticket_memory.h"

#include <gtest/gtest.h>

namespace TarvoOrvane::Internal {
namespace {

void AddNumbered(TicketMemory& memory, size_t count) {
  for (size_t i = 0; i < count; ++i) memory.Add("other-" + std::to_string(i));
}

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

}  // namespace
}  // namespace TarvoOrvane::Internal
