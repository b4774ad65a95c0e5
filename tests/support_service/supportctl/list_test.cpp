/// What supportctl shows of what the service tells.
#include "supportctl_fixture.h"

namespace TarvoOrvane::Supportctl {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class SupportctlListTest : public SupportctlFixture {};

TEST_F(SupportctlListTest, DevicesAreATable) {
  Json::Value away = DeviceJson("SN2", false);
  away["last_seen"] = kTime;
  away["address"] = "10.0.0.2:4000";
  Json::Value blocked = DeviceJson("SN3", false);
  blocked["blocked"] = true;
  Json::Value twin = DeviceJson("SN4");
  twin["twin"] = "10.0.0.9:1";
  server_.On(
      "GET", "/devices?limit=1000",
      {Answers(ListJson("devices", {DeviceJson("SN1"), away, blocked, twin, DeviceJson("SN5", false)}))});
  const Outcome outcome = Run({"devices"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "SERIAL NUMBER  STATE       LAST SEEN         ADDRESS        OPEN TICKETS  CERTIFICATE UNTIL\n"
            "SN1            connected                                    0\n"
            "SN2            away        2026-11-23 14:05  10.0.0.2:4000  0\n"
            "SN3            blocked                                      0\n"
            "SN4            has a twin                                   0\n"
            "SN5            never seen                                   0\n");
}

TEST_F(SupportctlListTest, FiltersGoIntoTheQueryEscaped) {
  server_.On("GET", "/devices?connected=true&beginning=SN%201%2f&limit=1000",
             {Answers(ListJson("devices", {}))});
  const Outcome devices = Run({"devices", "--connected", "--beginning", "SN 1/"});
  EXPECT_EQ(devices.status, 0) << devices.err;
  EXPECT_EQ(devices.out, "");
  EXPECT_THAT(devices.err, HasSubstr("No such device"));
  server_.On("GET", "/tickets?device=SN1&state=no_result&limit=7", {Answers(ListJson("tickets", {}))});
  EXPECT_EQ(Run({"tickets", "--device", "SN1", "--state", "no_result", "--limit", "7"}).status, 0);
}

TEST_F(SupportctlListTest, PagesAreGoneThroughToTheLimit) {
  Json::Value first = ListJson("tickets", {});
  for (int i = 0; i < 1000; ++i) first["tickets"].append(TicketJson());
  first["next"] = "a b";
  Json::Value second = ListJson("tickets", {SuccessfulTicket("ee")});
  server_.On("GET", "/tickets?limit=1000", {Answers(first)});
  server_.On("GET", "/tickets?limit=200&after=a%20b", {Answers(second)});
  const Outcome all = Run({"tickets", "--limit", "1200", "--json"});
  EXPECT_EQ(all.status, 0) << all.err;
  EXPECT_EQ(all.Json()["tickets"].size(), 1001U);
  EXPECT_FALSE(all.Json().isMember("next"));
  const Outcome some = Run({"tickets", "--limit", "1000"});
  EXPECT_EQ(some.status, 0) << some.err;
  EXPECT_THAT(some.err, HasSubstr("There are more"));
}

TEST_F(SupportctlListTest, ListThatRepeatsItselfIsGivenUp) {
  Json::Value page = ListJson("records", {});
  page["next"] = "same";
  server_.On("GET", "/audit?limit=50", {Answers(page)});
  server_.On("GET", "/audit?limit=50&after=same", {Answers(page)});
  const Outcome outcome = Run({"audit"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("the list does not end"));
}

TEST_F(SupportctlListTest, TicketsAreATableWithNothingCutOff) {
  Json::Value ticket = SuccessfulTicket();
  ticket["note"] = "a note\nof " + std::string(300, 'x');
  server_.On("GET", "/tickets?limit=50",
             {Answers(ListJson("tickets", {ticket, TicketJson("expired", "ab", "SN 2")}))});
  has_colours_ = true;
  const Outcome outcome = Run({"tickets"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(outcome.out,
              HasSubstr("3f9a000000000001  SN1     2026-11-23 14:05  \033[32mreported: success\033[0m  "
                        "2026-11-23 14:05  ada  web, database  a note\\x0aof " +
                        std::string(300, 'x') + "\n"));
  EXPECT_THAT(
      outcome.out,
      HasSubstr("ab                SN 2    2026-11-23 14:05  \033[31mexpired\033[0m            2026"));
}

TEST_F(SupportctlListTest, TicketIsShownWithItsArchivesItsEventsAndWhatToDoNext) {
  Json::Value ticket = SuccessfulTicket();
  ticket["report"] = "Success\\x0a";
  ticket["archives"].append(ArchiveJson(2, std::string(2048, 'x')));
  Json::Value deleted = ArchiveJson(1, "");
  deleted["deleted"]["time"] = kTime;
  deleted["deleted"]["cause"] = "by ada";
  ticket["archives"].append(deleted);
  server_.On("GET", "/tickets/3f", {Answers(ticket)});
  server_.On("GET", "/tickets/3f9a000000000001/events?limit=1000",
             {Answers(ListJson("events", {EventJson(1, "created", "apps"), EventJson(2, "accepted")}))});
  const Outcome outcome = Run({"show", "3f"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("Created       2026-11-23 14:05:07.123 +0100\n"));
  EXPECT_THAT(outcome.out, HasSubstr("State         reported: success\n"));
  EXPECT_THAT(outcome.out, HasSubstr("Report        Success\\x0a\n")) << "escaped once";
  EXPECT_THAT(outcome.out, HasSubstr("\n2        2048   2026-11-23 14:05:07.123 +0100  SN1   " +
                                     ticket["archives"][0]["sha256"].asString() + "\n"));
  EXPECT_THAT(outcome.out, HasSubstr("+0100: by ada\n"));
  EXPECT_THAT(outcome.out, HasSubstr("+0100  created: apps\n"));
  EXPECT_THAT(outcome.out, HasSubstr("+0100  accepted\n"));
  EXPECT_THAT(outcome.out, HasSubstr("\nAll is done. Get what came: supportctl fetch 3f9a000000000001\n"));
  const Json::Value document = Run({"show", "3f", "--json"}).Json();
  EXPECT_EQ(document["ticket"].toStyledString(), ticket.toStyledString());
  EXPECT_EQ(document["events"].size(), 2U);
}

TEST_F(SupportctlListTest, DeviceIsShownExactly) {
  Json::Value device = DeviceJson("SN/1");
  device["connected_since"] = kTime;
  device["twin"] = "10.0.0.9:1";
  server_.On("GET", "/devices/SN%2f", {Answers(device)});
  const Outcome outcome = Run({"device", "show", "SN/"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("Serial number    SN/1\nState            has a twin\n"));
  EXPECT_THAT(outcome.out, HasSubstr("Connected since  2026-11-23 14:05:07.123 +0100\n"));
  EXPECT_THAT(outcome.out, HasSubstr("at 10.0.0.9:1"));
  EXPECT_THAT(outcome.out, Not(HasSubstr("Last seen")));
  EXPECT_EQ(Run({"device", "show", "SN/", "--json"}).Json(), device);
}

TEST_F(SupportctlListTest, WhatIsDoneIsToldInALineOrAsJson) {
  server_.On("POST", "/devices/SN1/block", {Answers(DeviceJson("SN1"))});
  server_.On("POST", "/devices/SN1/unblock", {Answers(DeviceJson("SN1"))});
  server_.On("POST", "/tickets/3f/cancel", {Answers(TicketJson("cancelled"))});
  server_.On("DELETE", "/tickets/3f/archives/2", {Answers(Json::Value(), 204)});
  EXPECT_EQ(Run({"device", "block", "SN1"}).out, "SN1 blocked\n");
  EXPECT_EQ(Run({"device", "unblock", "SN1"}).out, "SN1 unblocked\n");
  EXPECT_EQ(Run({"cancel", "3f"}).out, "3f9a000000000001 cancelled\n");
  EXPECT_EQ(Run({"delete", "3f", "2"}).out, "archive 2 of 3f deleted\n");
  EXPECT_EQ(Run({"cancel", "3f", "--json"}).Json()["state"], "cancelled");
  EXPECT_EQ(Run({"delete", "3f", "2", "--json"}).Json(), Json::Value(Json::objectValue));
  EXPECT_THAT(server_.RequestLines(),
              ElementsAre("POST /devices/SN1/block", "POST /devices/SN1/unblock", "POST /tickets/3f/cancel",
                          "DELETE /tickets/3f/archives/2", "POST /tickets/3f/cancel",
                          "DELETE /tickets/3f/archives/2"));
}

TEST_F(SupportctlListTest, AuditAndServiceAreShown) {
  Json::Value record;
  record["number"] = 1;
  record["time"] = kTime;
  record["who"] = "ada";
  record["from"] = "control socket";
  record["action"] = "send ticket";
  record["object"] = kTicketId;
  record["detail"] = "\033]0;x\007";
  server_.On("GET", "/audit?limit=50", {Answers(ListJson("records", {record}))});
  EXPECT_EQ(Run({"audit"}).out,
            "TIME              WHO  FROM            ACTION       OBJECT            DETAIL\n"
            "2026-11-23 14:05  ada  control socket  send ticket  3f9a000000000001  \\x1b]0;x\\x07\n");
  Json::Value service;
  service["version"] = "1.2.3";
  service["trust"] = "own_authority";
  service["you"]["name"] = "ada";
  service["you"]["role"] = "admin";
  server_.On("GET", "/service", {Answers(service)});
  EXPECT_EQ(Run({"whoami"}).out,
            "Name          ada\nRole          admin\nService       version 1.2.3\n"
            "Devices show  own_authority\n");
  EXPECT_EQ(Run({"whoami", "--json"}).Json(), service);
}

TEST_F(SupportctlListTest, SettingsShowHowMuchOfEachLimitIsUsed) {
  Json::Value settings;
  settings["version"] = "1.2.3";
  settings["started"] = kTime;
  settings["trust"] = "own_authority";
  settings["names"].append("support.example.org");
  settings["grpc_url"] = "https://support.example.org:50051";
  settings["http_url"] = "https://support.example.org:8443";
  settings["retry_seconds"] = 2;
  settings["disk_free_bytes"] = Json::Int64{1} << 31;
  Json::Value limit;
  limit["name"] = "archive_bytes";
  limit["most"] = Json::Int64{1} << 30;
  limit["used"] = 1 << 20;
  limit["met"] = 3;
  settings["limits"].append(limit);
  limit = {};
  limit["name"] = "archive_days";
  limit["met"] = 0;
  settings["limits"].append(limit);
  server_.On("GET", "/settings", {Answers(settings)});
  EXPECT_EQ(Run({"settings"}).out,
            "Version       1.2.3\n"
            "Started       2026-11-23 14:05\n"
            "Devices show  own_authority\n"
            "Names         support.example.org\n"
            "Tickets       https://support.example.org:50051\n"
            "Uploads       https://support.example.org:8443\n"
            "Free on disk  2 GiB\n"
            "\n"
            "LIMIT          USED   OF        TIMES MET\n"
            "archive_bytes  1 MiB  1 GiB     3\n"
            "archive_days   -      no limit  0\n");
  EXPECT_EQ(Run({"settings", "--json"}).Json(), settings);
}

}  // namespace
}  // namespace TarvoOrvane::Supportctl
