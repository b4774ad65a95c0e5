#include "ticket_parser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bad_text.h"

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

class BadTicketTest : public testing::TestWithParam<BadText> {};

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
    testing::Values(BadText{"", kNotJson}, BadText{"nonsense", kNotJson}, BadText{"{", kNotJson},
                    BadText{R"({"token": "t", "apps": []} x)", kNotJson},
                    BadText{R"({"token": "t", "apps": []}{})", kNotJson},
                    BadText{R"({"token": "t", "apps": ["a",]})", kNotJson},
                    BadText{R"({'token': 't', 'apps': []})", kNotJson},
                    BadText{R"({"token": "t", "apps": []} // comment)", kNotJson},
                    BadText{R"({"token": "t", "token": "u", "apps": []})", kNotJson},
                    BadText{R"({"token": "t", "apps": [NaN]})", kNotJson},
                    BadText{R"({"token": "t", "apps": )" + std::string(60'000, '['), kNotJson},
                    BadText{"7", kNotJson}, BadText{"null", kNotJson}, BadText{"\"token\"", kNotJson},
                    BadText{R"(["token", "apps"])", "the ticket is not a JSON object"},
                    BadText{R"({})", kNoToken}, BadText{R"({"apps": []})", kNoToken},
                    BadText{R"({"token": 7, "apps": []})", kNoToken},
                    BadText{R"({"token": null, "apps": []})", kNoToken},
                    BadText{R"({"token": ["t"], "apps": []})", kNoToken},
                    BadText{R"({"token": "t"})", kNoApps}, BadText{R"({"token": "t", "apps": "a"})", kNoApps},
                    BadText{R"({"token": "t", "apps": {}})", kNoApps},
                    BadText{R"({"token": "t", "apps": null})", kNoApps},
                    BadText{R"({"token": "t", "apps": ["a", 1]})", kBadApp},
                    BadText{R"({"token": "t", "apps": [null]})", kBadApp},
                    BadText{R"({"token": "t", "apps": [["a"]]})", kBadApp}));

TEST(TicketParserTest, TheFaultQuotesNothingOfTheTicket) {
  FastSupport::Ticket ticket;
  const std::string fault = ParseTicket(R"({"token": "secret", "secret": 1, "secret": 2})", ticket);
  EXPECT_THAT(fault, Not(IsEmpty()));
  EXPECT_THAT(fault, Not(HasSubstr("secret")));
}

}  // namespace
}  // namespace TarvoOrvane::Internal
