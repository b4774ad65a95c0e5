#include "event_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "failure.h"

namespace TarvoOrvane::Supportctl {

static bool operator==(const ServerEvent& one, const ServerEvent& other) {
  return one.name == other.name && one.data == other.data;
}
static void PrintTo(const ServerEvent& event, std::ostream* out) { *out << event.name << "|" << event.data; }

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<ServerEvent> TakeAll(EventStream& stream, const std::vector<std::string>& pieces) {
  std::vector<ServerEvent> events;
  for (const std::string& piece : pieces) {
    for (const ServerEvent& event : stream.Take(piece)) events.push_back(event);
  }
  return events;
}

TEST(SupportctlEventStreamTest, EventsAreTheSameHoweverTheBytesAreCut) {
  for (const std::string end : {"\n", "\r\n", "\r"}) {
    std::string text =
        "\xEF\xBB\xBF: a comment_id: 7_event: ticket_data: {\"a\":_data:1}__data:x_id:8__: end_";
    for (std::size_t at = text.find('_'); at != std::string::npos; at = text.find('_', at + end.size())) {
      text.replace(at, 1, end);
    }
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
      EventStream stream;
      EXPECT_THAT(TakeAll(stream, {text.substr(0, cut), text.substr(cut)}),
                  ElementsAre(ServerEvent{"ticket", "{\"a\":\n1}"}, ServerEvent{"message", "x"}))
          << cut;
      EXPECT_EQ(stream.last_id(), "8");
    }
  }
}

TEST(SupportctlEventStreamTest, UnfinishedEventIsNoneAndDoesNotMoveTheId) {
  EventStream stream;
  EXPECT_THAT(TakeAll(stream, {"id: 1\ndata: a\n\nid: 2\ndata: b\n"}),
              ElementsAre(ServerEvent{"message", "a"}));
  EXPECT_EQ(stream.last_id(), "1");
  stream.Restart();
  EXPECT_THAT(TakeAll(stream, {"data: c\n\n"}), ElementsAre(ServerEvent{"message", "c"}));
  EXPECT_EQ(stream.last_id(), "1");
}

TEST(SupportctlEventStreamTest, IdAloneMovesTheIdWithoutAnEvent) {
  EventStream stream;
  EXPECT_THAT(TakeAll(stream, {"id: 5\n\n"}), IsEmpty());
  EXPECT_EQ(stream.last_id(), "5");
}

TEST(SupportctlEventStreamTest, FieldsAreTakenAsTheyStand) {
  EventStream stream;
  EXPECT_THAT(TakeAll(stream, {"data\ndata:  two\nretry: 5\nnonsense\ndata:a:b\n\n"}),
              ElementsAre(ServerEvent{"message", "\n two\na:b"}));
  EXPECT_THAT(TakeAll(stream, {std::string("id: 4\0\ndata:x\n\n", 15)}),
              ElementsAre(ServerEvent{"message", "x"}));
  EXPECT_EQ(stream.last_id(), "") << "one with a NUL is void";
}

TEST(SupportctlEventStreamTest, EventWithoutAnEndIsRefused) {
  EventStream stream;
  const std::string piece(1UL << 20, 'x');
  EXPECT_THROW(
      {
        for (int i = 0; i < 32; ++i) static_cast<void>(stream.Take(piece));
      },
      Failure);
}

}  // namespace
}  // namespace TarvoOrvane::Supportctl
