/// Following tickets over server-sent events.
#include "supportctl_fixture.h"
#include "ticket_follower.h"

namespace TarvoOrvane::Supportctl {
namespace {

using test_support::kPatience;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr char kStreamOfTicket[] = "/events?ticket=3f9a000000000001&after=0";

class SupportctlFollowTest : public SupportctlFixture {
 protected:
  SupportctlFollowTest() { server_.On("GET", "/tickets/3f9a", {Answers(TicketJson())}); }

  /// The heads "Last-Event-ID" of the streams, one after the other.
  [[nodiscard]] std::vector<std::string> Resumptions() const {
    std::vector<std::string> ids;
    for (const ApiRequest& request : server_.Requests()) {
      if (request.target.rfind("/events", 0) == 0) ids.push_back(request.Header("last-event-id"));
    }
    return ids;
  }
};

TEST_F(SupportctlFollowTest, TicketIsFollowedToItsEnd) {
  server_.On("GET", kStreamOfTicket,
             {StreamsOn(": hello\n\n" + SentEvent(4, "created", TicketJson(), "apps") +
                        SentEvent(9, "reported", SuccessfulTicket(), "Success\\x0a"))});
  const Outcome outcome = Run({"follow", "3f9a"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "2026-11-23 14:05:07  3f9a000000000001  SN1  created: apps\n"
            "2026-11-23 14:05:07  3f9a000000000001  SN1  reported: Success\\x0a\n");
}

TEST_F(SupportctlFollowTest, JsonIsALineForEachEvent) {
  server_.On(
      "GET", kStreamOfTicket,
      {Streams(SentEvent(4, "created", TicketJson()) + SentEvent(9, "cancelled", TicketJson("cancelled")))});
  const Outcome outcome = Run({"follow", "3f9a", "--json"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  std::istringstream lines(outcome.out);
  std::vector<std::string> kinds;
  for (std::string line; std::getline(lines, line);) {
    kinds.push_back(Outcome{0, line, ""}.Json()["event"]["kind"].asString());
  }
  EXPECT_THAT(kinds, ElementsAre("created", "cancelled"));
}

TEST_F(SupportctlFollowTest, LostConnectionsAreResumedBehindTheLastEvent) {
  const std::string second = SentEvent(5, "accepted", TicketJson("accepted"));
  server_.On("GET", "/tickets/3f9a000000000001", {Answers(TicketJson("accepted"))});
  server_.On("GET", kStreamOfTicket,
             {Streams(SentEvent(4, "created", TicketJson()) + second.substr(0, second.size() / 2)), Sends(""),
              Refuses(503, "unavailable", "The service ends."), Streams(""),
              Streams(SentEvent(4, "created", TicketJson()) + second),
              Streams(SentEvent(6, "expired", TicketJson("expired")))});
  const Outcome outcome = Run({"follow", "3f9a"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(Resumptions(), ElementsAre("", "4", "4", "4", "4", "5"));
  EXPECT_EQ(outcome.out,
            "2026-11-23 14:05:07  3f9a000000000001  SN1  created\n"
            "2026-11-23 14:05:07  3f9a000000000001  SN1  accepted\n"
            "2026-11-23 14:05:07  3f9a000000000001  SN1  expired\n")
      << "each once, though one came twice and one in two halves";
  EXPECT_THAT(outcome.err, HasSubstr("trying again"));
}

TEST_F(SupportctlFollowTest, StreamThatEndsWithoutTheLastEventIsAskedAbout) {
  server_.On("GET", kStreamOfTicket, {Streams(SentEvent(4, "created", TicketJson()))});
  server_.On("GET", "/tickets/3f9a000000000001", {Answers(TicketJson("cancelled"))});
  const Outcome outcome = Run({"follow", "3f9a"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(Resumptions().size(), 1U);
}

TEST_F(SupportctlFollowTest, ServiceThatStaysAwayIsGivenUp) {
  patience_.events.patience = std::chrono::seconds(0);
  server_.On("GET", kStreamOfTicket, {Streams(SentEvent(4, "created", TicketJson())), Sends("")});
  server_.On("GET", "/tickets/3f9a000000000001", {Answers(TicketJson())});
  const Outcome outcome = Run({"follow", "3f9a"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.out, HasSubstr("created"));
}

TEST_F(SupportctlFollowTest, ServiceThatCannotBeReachedAtFirstIsGivenUpAtOnce) {
  server_.On("GET", "/events", {Sends("")});
  EXPECT_EQ(Run({"follow"}).status, 3);
  EXPECT_EQ(server_.Requests().size(), 1U);
}

TEST_F(SupportctlFollowTest, SilentConnectionIsLost) {
  server_.On("GET", kStreamOfTicket,
             {StreamsOn(SentEvent(4, "created", TicketJson())),
              Streams(SentEvent(5, "cancelled", TicketJson("cancelled")))});
  const ApiClient api(Service{data_, "", "", ""});
  Persistence persistence = ShortPauses().events;
  std::vector<std::string> told;
  TicketFollower follower(api, persistence, [&](const std::string& text) {
    told.push_back(text);
    persistence.silence = kPatience;
  });
  follower.Follow(kTicketId);
  EXPECT_TRUE(follower.Run(std::nullopt, [&](const Json::Value&) {
    if (told.empty()) persistence.silence = std::chrono::seconds(0);  // from the first event on
  }));
  EXPECT_THAT(told, ElementsAre(HasSubstr("fallen silent")));
  EXPECT_THAT(Resumptions(), ElementsAre("", "4"));
}

TEST_F(SupportctlFollowTest, AllTicketsAreFollowedUntilARefusal) {
  server_.On("GET", "/events",
             {Streams(SentEvent(7, "created", TicketJson())), Refuses(403, "forbidden", "No more.")});
  const Outcome outcome = Run({"follow"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_EQ(outcome.err.substr(outcome.err.rfind("supportctl")), "supportctl: No more.\n");
  EXPECT_THAT(outcome.out, HasSubstr("created"));
  EXPECT_THAT(Resumptions(), ElementsAre("", "7"));
}

TEST_F(SupportctlFollowTest, EventsThatAreNoneAreAFailure) {
  for (const char* text : {"event: ticket\ndata: nonsense\n\n", "event: ticket\ndata: {}\n\n"}) {
    server_.On("GET", "/events", {StreamsOn(text)});
    EXPECT_EQ(Run({"follow"}).status, 1) << text;
  }
}

TEST_F(SupportctlFollowTest, EventsOfOtherNamesAreLeftAlone) {
  server_.On("GET", "/events", {Streams("event: later\ndata: nonsense\n\n"), Refuses(403, "forbidden", "x")});
  const Outcome outcome = Run({"follow"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_EQ(outcome.out, "");
}

}  // namespace
}  // namespace TarvoOrvane::Supportctl
