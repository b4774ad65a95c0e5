#include "ticket_parser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "library_log.h"

namespace TarvoOrvane::Internal {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

TEST(TicketParserTest, TokenAndAppsAreTakenInOrder) {
  FastSupport::Ticket ticket;
  EXPECT_EQ(ParseTicket(R"({"apps": ["b", "a", "b"], "token": "t-1", "more": {"x": [1.5]}})", ticket), "");
  EXPECT_EQ(ticket.token, "t-1");
  EXPECT_THAT(ticket.apps, ElementsAre("b", "a", "b"));
}

TEST(TicketParserTest, AnEmptyTokenAndNoAppsAreTheDaemonsToJudge) {
  FastSupport::Ticket ticket;
  EXPECT_EQ(ParseTicket(R"({"token": "", "apps": []})", ticket), "");
  EXPECT_EQ(ticket.token, "");
  EXPECT_THAT(ticket.apps, IsEmpty());
}

TEST(TicketParserTest, ATicketTooLongForThePipeIsTaken) {
  FastSupport::Ticket ticket;
  EXPECT_EQ(ParseTicket(R"({"token": ")" + std::string(20'000, 't') + R"(", "apps": []})", ticket), "");
  EXPECT_EQ(ticket.token.size(), 20'000u);
}

struct Bad {
  std::string text;
  std::string fault;
};

void PrintTo(const Bad& bad, std::ostream* out) { *out << MakePrintable(bad.text, 60); }

class BadTicketTest : public testing::TestWithParam<Bad> {};

TEST_P(BadTicketTest, IsRefusedAndLeavesTheRecordAlone) {
  FastSupport::Ticket ticket{"before", {"before"}};
  EXPECT_EQ(ParseTicket(GetParam().text, ticket), GetParam().fault);
  EXPECT_EQ(ticket.token, "before");
  EXPECT_THAT(ticket.apps, ElementsAre("before"));
}

constexpr char kNotJson[] = "the ticket is not valid JSON";
constexpr char kNoToken[] = "\"token\" is not a string";
constexpr char kNoApps[] = "\"apps\" is not an array";
constexpr char kBadApp[] = "\"apps\" has an element that is not a string";

INSTANTIATE_TEST_SUITE_P(
    Table, BadTicketTest,
    testing::Values(
        Bad{"", kNotJson}, Bad{"nonsense", kNotJson}, Bad{"{", kNotJson},
        Bad{R"({"token": "t", "apps": []} x)", kNotJson}, Bad{R"({"token": "t", "apps": []}{})", kNotJson},
        Bad{R"({"token": "t", "apps": ["a",]})", kNotJson}, Bad{R"({'token': 't', 'apps': []})", kNotJson},
        Bad{R"({"token": "t", "apps": []} // comment)", kNotJson},
        Bad{R"({"token": "t", "token": "u", "apps": []})", kNotJson},
        Bad{R"({"token": "t", "apps": [NaN]})", kNotJson},
        Bad{R"({"token": "t", "apps": )" + std::string(60'000, '['), kNotJson}, Bad{"7", kNotJson},
        Bad{"null", kNotJson}, Bad{"\"token\"", kNotJson},
        Bad{R"(["token", "apps"])", "the ticket is not a JSON object"}, Bad{R"({})", kNoToken},
        Bad{R"({"apps": []})", kNoToken}, Bad{R"({"token": 7, "apps": []})", kNoToken},
        Bad{R"({"token": null, "apps": []})", kNoToken}, Bad{R"({"token": ["t"], "apps": []})", kNoToken},
        Bad{R"({"token": "t"})", kNoApps}, Bad{R"({"token": "t", "apps": "a"})", kNoApps},
        Bad{R"({"token": "t", "apps": {}})", kNoApps}, Bad{R"({"token": "t", "apps": null})", kNoApps},
        Bad{R"({"token": "t", "apps": ["a", 1]})", kBadApp},
        Bad{R"({"token": "t", "apps": [null]})", kBadApp},
        Bad{R"({"token": "t", "apps": [["a"]]})", kBadApp}));

TEST(TicketParserTest, TheFaultQuotesNothingOfTheTicket) {
  FastSupport::Ticket ticket;
  const std::string fault = ParseTicket(R"({"token": "secret", "secret": 1, "secret": 2})", ticket);
  EXPECT_THAT(fault, Not(IsEmpty()));
  EXPECT_THAT(fault, Not(HasSubstr("secret")));
}

}  // namespace
}  // namespace TarvoOrvane::Internal
