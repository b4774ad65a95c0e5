/// supportctl check: which of the service's facts are problems.
#include "supportctl_fixture.h"

namespace TarvoOrvane::Supportctl {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class SupportctlCheckTest : public SupportctlFixture {
 protected:
  SupportctlCheckTest() {
    Json::Value service(Json::objectValue);
    service["version"] = "1.2";
    server_.On("GET", "/service", {Answers(service)});
    health_["time"] = "2026-11-23T12:00:00.000Z";
    health_["uses_tls"] = true;
    health_["certificate_until"] = "2027-11-23T12:00:00.000Z";
    health_["disk"]["size_bytes"] = Json::UInt64{100} << 30;
    health_["disk"]["free_bytes"] = Json::UInt64{50} << 30;
    health_["disk"]["stays_free_bytes"] = Json::UInt64{1} << 30;
    health_["devices"]["connected"] = 3;
    health_["devices"]["twins"] = Json::Value(Json::arrayValue);
    health_["tickets"]["open"] = 2;
    health_["tickets"]["overdue"] = 0;
    health_["archives"]["known"] = 7;
    health_["archives"]["missing"] = Json::Value(Json::arrayValue);
    health_["archives"]["missing_count"] = 0;
  }
  Outcome Check(std::vector<std::string> more = {}) {
    server_.On("GET", "/health", {Answers(health_)});
    more.insert(more.begin(), "check");
    return Run(more);
  }

  Json::Value health_{Json::objectValue};
};

TEST_F(SupportctlCheckTest, WellServiceHasNoProblems) {
  const Outcome outcome = Check();
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "ok       service        answers over its control socket, version 1.2\n"
            "ok       store          decides about tickets, and can remember them\n"
            "ok       certificate    ends in 365 days, 2027-11-23 13:00\n"
            "ok       free space     50 GiB of 100 GiB, 1 GiB of that are kept free\n"
            "ok       devices        3 connected\n"
            "ok       tickets        2 open\n"
            "ok       archives       7 archives, none is missing\n"
            "\nno problems, no warnings\n");
}

TEST_F(SupportctlCheckTest, WhatIsWrongIsAProblemWithAdvice) {
  struct Case {
    const char* line;
    void (*change)(Json::Value& health);
  };
  const Case cases[] = {
      {"problem  certificate    has ended, 2026-11-01 13:00\n",
       [](Json::Value& health) { health["certificate_until"] = "2026-11-01T12:00:00.000Z"; }},
      {"problem  free space     1 GiB of 100 GiB, 1 GiB of that are kept free: uploads are refused\n",
       [](Json::Value& health) { health["disk"]["free_bytes"] = health["disk"]["stays_free_bytes"]; }},
      {"problem  free space     the system does not tell it\n",
       [](Json::Value& health) { health["disk"] = Json::Value(Json::objectValue); }},
      {"problem  duplicates     two machines have one serial number: SN1, SN2\n",
       [](Json::Value& health) {
         health["devices"]["twins"].append("SN1");
         health["devices"]["twins"].append("SN2");
       }},
      {"problem  archives       1 of 7 archives missing: x-1.dat\n",
       [](Json::Value& health) {
         health["archives"]["missing"].append("x-1.dat");
         health["archives"]["missing_count"] = 1;
       }},
      {"problem  certificate    can't be read by the service\n",
       [](Json::Value& health) { health.removeMember("certificate_until"); }}};
  const Json::Value well = health_;
  for (const Case& each : cases) {
    health_ = well;
    each.change(health_);
    const Outcome outcome = Check();
    EXPECT_EQ(outcome.status, 1) << each.line;
    EXPECT_THAT(outcome.out, AllOf(HasSubstr(each.line), HasSubstr("\n                        -> "),
                                   HasSubstr("\n1 problem, no warnings\n")));
  }
}

TEST_F(SupportctlCheckTest, WhatMayBecomeWrongIsAWarning) {
  health_["certificate_until"] = "2026-12-03T12:00:00.000Z";
  health_["disk"]["free_bytes"] = (Json::UInt64{3} << 30) / 2;
  health_["tickets"]["overdue"] = 1;
  health_["tickets"]["oldest_queued"]["id"] = kTicketId;
  health_["tickets"]["oldest_queued"]["device"] = "SN1";
  health_["tickets"]["oldest_queued"]["created"] = "2026-11-21T12:00:00.000Z";
  const Outcome outcome = Check();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, AllOf(HasSubstr("warning  certificate    ends in 10 days"),
                                 HasSubstr("warning  undelivered    the oldest is 3f9a000000000001 for SN1"),
                                 HasSubstr("warning  overdue        1 ticket without a report for long\n"),
                                 HasSubstr("no problems, 4 warnings\n")));
}

TEST_F(SupportctlCheckTest, CallOfTheWebhookThatWasGivenUpIsAWarning) {
  health_["webhook"]["waiting"] = health_["webhook"]["failed"] = 0;
  health_["webhook"]["delivered"] = 5;
  health_["webhook"]["given_up"] = 1;
  const Outcome outcome = Check();
  EXPECT_EQ(outcome.status, 0) << "nobody can mend it any more";
  EXPECT_THAT(outcome.out, HasSubstr("warning  webhook        0 calls waiting, 5 delivered, 1 given up\n"));
}

TEST_F(SupportctlCheckTest, ServiceWithoutTlsNeedsNoCertificate) {
  health_["uses_tls"] = false;
  health_.removeMember("certificate_until");
  EXPECT_THAT(Check().out, HasSubstr("ok       certificate    none: no listener speaks TLS\n"));
}

TEST_F(SupportctlCheckTest, JustBelowEachBoundNothingIsSaid) {
  health_["certificate_until"] = "2026-12-23T12:00:00.000Z";
  health_["disk"]["free_bytes"] = Json::UInt64{2} << 30;
  health_["tickets"]["oldest_queued"]["id"] = kTicketId;
  health_["tickets"]["oldest_queued"]["device"] = "SN1";
  health_["tickets"]["oldest_queued"]["created"] = "2026-11-21T12:00:01.000Z";
  EXPECT_THAT(Check().out, HasSubstr("no problems, no warnings\n"));
}

TEST_F(SupportctlCheckTest, ProgramsGetOneDocument) {
  health_["archives"]["missing"].append("x-1.dat");
  health_["archives"]["missing_count"] = 1;
  const Outcome outcome = Check({"--json"});
  EXPECT_EQ(outcome.status, 1);
  const Json::Value report = outcome.Json();
  EXPECT_FALSE(report["ok"].asBool());
  EXPECT_EQ(report["checks"][6]["name"].asString(), "archives");
  EXPECT_EQ(report["checks"][6]["state"].asString(), "problem");
  EXPECT_NE(report["checks"][6]["advice"].asString(), "");
  EXPECT_EQ(report["health"]["archives"]["missing"][0].asString(), "x-1.dat");
}

TEST_F(SupportctlCheckTest, ServiceThatCannotRememberIsAProblem) {
  server_.On("GET", "/health",
             {Refuses(503, "unavailable", "tickets.db can't be written: the disk is full")});
  const Outcome outcome = Run({"check"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out, AllOf(HasSubstr("problem  store"), HasSubstr("the disk is full"),
                                 Not(HasSubstr("certificate"))));
}

TEST_F(SupportctlCheckTest, NobodyThereAndNotAllowedHaveTheirOwnStatus) {
  server_.On("GET", "/health", {Refuses(403, "forbidden", "this needs the role admin")});
  EXPECT_EQ(Run({"check"}).status, 4);
  EXPECT_EQ(RunAsGiven({"--data", temp_.File("nobody"), "check"}).status, 3);
}

}  // namespace
}  // namespace TarvoOrvane::Supportctl
