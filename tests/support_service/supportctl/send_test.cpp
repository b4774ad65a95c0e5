/// Sending tickets, and waiting for them.
#include "supportctl_fixture.h"

namespace TarvoOrvane::Supportctl {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr char kOtherId[] = "b200000000000002";

std::string StreamOf(const std::string& id) { return "/events?ticket=" + id + "&after=0"; }

class SupportctlSendTest : public SupportctlFixture {
 protected:
  /// The next tickets are these, and their streams end with these.
  void Expect(const std::vector<std::pair<Json::Value, Json::Value>>& tickets) {
    std::vector<ApiHandler> answers;
    for (const auto& [sent, ended] : tickets) {
      answers.push_back(Answers(sent, 201));
      server_.On("GET", StreamOf(sent["id"].asString()),
                 {Streams(SentEvent(1, "created", sent) + SentEvent(2, "reported", ended, "Success"))});
    }
    server_.On("POST", "/tickets", answers);
  }
};

TEST_F(SupportctlSendTest, TicketIsAskedForAndItsIdPrinted) {
  Expect({{TicketJson(), SuccessfulTicket()}});
  const Outcome outcome =
      Run({"send", "SN1", "--apps", "web,database", "--note", "slow since \u4e2d", "--lifetime", "5"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "3f9a000000000001\n");
  EXPECT_EQ(outcome.err, "");
  ASSERT_THAT(server_.RequestLines(), ElementsAre("POST /tickets"));
  const Json::Value request = server_.Requests()[0].Json();
  EXPECT_EQ(request["device"], "SN1");
  EXPECT_EQ(request["apps"].size(), 2U);
  EXPECT_EQ(request["apps"][1], "database");
  EXPECT_EQ(request["note"], "slow since \u4e2d");
  EXPECT_EQ(request["lifetime_hours"], 5);
  EXPECT_EQ(server_.Requests()[0].Header("content-type"), "application/json");
}

TEST_F(SupportctlSendTest, MembersThatWereNotNamedAreLeftToTheService) {
  Expect({{TicketJson(), SuccessfulTicket()}});
  EXPECT_EQ(Run({"send", "SN1", "--apps", ""}).status, 0);
  const Json::Value request = server_.Requests()[0].Json();
  EXPECT_EQ(request.getMemberNames(), (std::vector<std::string>{"apps", "device"}));
  EXPECT_TRUE(request["apps"].isArray());
}

TEST_F(SupportctlSendTest, TicketWhoseDeviceIsNotNamedGoesToTheOneThatIsConnected) {
  Expect({{TicketJson(), SuccessfulTicket()}});
  const std::string devices = "/devices?connected=true&limit=2";
  server_.On("GET", devices, {Answers(ListJson("devices", {DeviceJson("SN7")}))});
  EXPECT_EQ(Run({"send", "--apps", "a"}).status, 0);
  EXPECT_EQ(server_.Requests().back().Json()["device"], "SN7");
  server_.On("GET", devices, {Answers(ListJson("devices", {}))});
  const Outcome nobody = Run({"send", "--apps", "a"});
  EXPECT_EQ(nobody.status, 1);
  EXPECT_THAT(nobody.err, HasSubstr("no device is connected"));
  server_.On("GET", devices, {Answers(ListJson("devices", {DeviceJson("SN7"), DeviceJson("SN8")}))});
  const Outcome either = Run({"send", "--apps", "a"});
  EXPECT_EQ(either.status, 1);
  EXPECT_THAT(either.err, HasSubstr("several devices are connected"));
}

TEST_F(SupportctlSendTest, RefusalForOneDeviceDoesNotKeepTheOthersFromTheirs) {
  server_.On(
      "POST", "/tickets",
      {Refuses(409, "conflict", "SN1 is blocked."), Answers(TicketJson("queued", kOtherId, "SN2"), 201)});
  const Outcome outcome = Run({"send", "SN1", "SN2", "--apps", "a"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, std::string(kOtherId) + "\n");
  EXPECT_EQ(outcome.err, "supportctl: SN1: SN1 is blocked.\n");
}

TEST_F(SupportctlSendTest, BeginningOfASerialNumberIsEnough) {
  server_.On("POST", "/tickets", {Refuses(404, "not_found", "not enrolled"), Answers(TicketJson(), 201)});
  server_.On("GET", "/devices/S%2f", {Answers(DeviceJson("S/N1"))});
  const Outcome outcome = Run({"send", "S/", "--apps", "a"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(server_.Requests().back().Json()["device"], "S/N1");
  server_.On("POST", "/tickets", {Refuses(404, "not_found", "not enrolled")});
  server_.On("GET", "/devices/S%2f", {Refuses(409, "ambiguous", "several devices")});
  EXPECT_THAT(Run({"send", "S/", "--apps", "a"}).err, HasSubstr("several devices"));
}

TEST_F(SupportctlSendTest, WhoMayNotSendIsToldOnce) {
  server_.On("POST", "/tickets", {Refuses(403, "forbidden", "Needs support.")});
  const Outcome outcome = Run({"send", "SN1", "SN2", "--apps", "a"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_EQ(outcome.err, "supportctl: Needs support.\n");
  EXPECT_EQ(server_.Requests().size(), 1U);
}

TEST_F(SupportctlSendTest, WaitEndsWithTheSuccessOfAll) {
  Expect({{TicketJson(), SuccessfulTicket()},
          {TicketJson("queued", kOtherId, "SN2"), SuccessfulTicket(kOtherId, "SN2")}});
  const Outcome outcome = Run({"send", "SN1", "SN2", "--apps", "a", "--wait"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "3f9a000000000001\nb200000000000002\n");
  EXPECT_EQ(outcome.err, "") << "nobody looks at it";
}

TEST_F(SupportctlSendTest, ProgressIsForTerminals) {
  Expect({{TicketJson(), SuccessfulTicket()}});
  err_is_terminal_ = true;
  const Outcome outcome = Run({"send", "SN1", "--apps", "a", "--wait"});
  EXPECT_EQ(outcome.out, "3f9a000000000001\n");
  EXPECT_EQ(outcome.err,
            "2026-11-23 14:05:07  3f9a000000000001  SN1  created\n"
            "2026-11-23 14:05:07  3f9a000000000001  SN1  reported: Success\n");
}

TEST_F(SupportctlSendTest, AnyOtherEndIsStatus1AndExplained) {
  Json::Value failed = SuccessfulTicket(kOtherId, "SN2");
  failed["outcome"] = "nothing_uploaded";
  failed["report"] = "Failed to upload debug file to server";
  Expect({{TicketJson(), SuccessfulTicket()}, {TicketJson("queued", kOtherId, "SN2"), failed}});
  const Outcome outcome = Run({"send", "SN1", "SN2", "--apps", "a", "--wait"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err,
              HasSubstr("ticket b200000000000002 of SN2: reported: Failed to upload debug file to server"));
  EXPECT_THAT(outcome.err, HasSubstr("debug_dat_check"));
}

TEST_F(SupportctlSendTest, WaitEndsAtItsTime) {
  Expect({{TicketJson(), SuccessfulTicket()}});
  server_.On("GET", StreamOf(kTicketId), {StreamsOn(SentEvent(1, "accepted", TicketJson("accepted")))});
  const Outcome outcome = Run({"send", "SN1", "--apps", "a", "--wait", "1"});
  EXPECT_EQ(outcome.status, 5);
  EXPECT_EQ(outcome.err.rfind("ticket 3f9a000000000001 of SN1: no report within 1 s; it is still ", 0), 0U);
  EXPECT_EQ(outcome.out, "3f9a000000000001\n");
}

TEST_F(SupportctlSendTest, WaitSurvivesTheServicesRestart) {
  Expect({{TicketJson(), SuccessfulTicket()}});
  server_.On("GET", "/tickets/3f9a000000000001", {Answers(TicketJson())});
  server_.On("GET", StreamOf(kTicketId),
             {Streams(SentEvent(1, "created", TicketJson())), Sends(""),
              Streams(SentEvent(2, "reported", SuccessfulTicket()))});
  EXPECT_EQ(Run({"send", "SN1", "--apps", "a", "--wait"}).status, 0);
}

TEST_F(SupportctlSendTest, JsonIsOneDocumentAlsoOfWhatFailed) {
  Expect({{TicketJson(), SuccessfulTicket()}});
  const Outcome sent = Run({"send", "SN1", "--apps", "a", "--json"});
  EXPECT_EQ(sent.Json()["tickets"][0]["state"], "queued");
  Expect({{TicketJson(), SuccessfulTicket()}});
  const Outcome waited = Run({"send", "SN1", "--apps", "a", "--json", "--wait"});
  EXPECT_EQ(waited.Json()["tickets"][0]["state"], "reported");
  server_.On("POST", "/tickets", {Answers(TicketJson(), 201), Sends("")});
  const Outcome broken = Run({"send", "SN1", "SN2", "--apps", "a", "--json"});
  EXPECT_EQ(broken.status, 3);
  EXPECT_EQ(broken.Json()["tickets"].size(), 1U) << "the first one was sent";
}

TEST_F(SupportctlSendTest, FetchBringsTheArchivesOfEachTicket) {
  Json::Value ended = SuccessfulTicket();
  ended["archives"].append(ArchiveJson(1, "archive"));
  Json::Value deleted = ArchiveJson(2, "gone");
  deleted["deleted"]["cause"] = "age";
  ended["archives"].append(deleted);
  Expect({{TicketJson(), ended}});
  server_.On("GET", "/tickets/3f9a000000000001/archives/1", {SendsBytes("archive")});
  const Outcome outcome = Run({"send", "SN1", "--apps", "a", "--fetch", temp_.File("out")});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "3f9a000000000001\n");
  EXPECT_EQ(outcome.err, temp_.File("out/3f9a000000000001-1.dat") + "\n");
  EXPECT_EQ(ReadFile(temp_.File("out/3f9a000000000001-1.dat")), "archive");
}

TEST_F(SupportctlSendTest, ArchiveThatCannotBeFetchedIsStatus1) {
  Json::Value ended = SuccessfulTicket();
  ended["archives"].append(ArchiveJson(1, "archive"));
  ended["archives"].append(ArchiveJson(2, "another"));
  Expect({{TicketJson(), ended}});
  server_.On("GET", "/tickets/3f9a000000000001/archives/1", {Refuses(410, "gone", "It was deleted.")});
  server_.On("GET", "/tickets/3f9a000000000001/archives/2", {SendsBytes("another")});
  const Outcome outcome = Run({"send", "SN1", "--apps", "a", "--fetch", temp_.File("out")});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("supportctl: It was deleted.\n"));
  EXPECT_EQ(ReadFile(temp_.File("out/3f9a000000000001-2.dat")), "another") << "the other one came";
}

}  // namespace
}  // namespace TarvoOrvane::Supportctl
