/// What GET /health tells of the service.
#include <gmock/gmock.h>

#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

using ::testing::HasSubstr;

class HealthTest : public ServiceTest {
 protected:
  Json::Value Health() {
    const ReceivedAnswer answer = AskApi(service().control_socket(), "GET", "/health");
    EXPECT_EQ(answer.status, 200) << answer.body;
    return ParseJson(answer.body);
  }
};

TEST_F(HealthTest, TicketsThatWaitAreToldOldestFirst) {
  Start();
  EXPECT_FALSE(Health()["tickets"].isMember("oldest_queued"));
  const std::string oldest = CreateTicket({"a"}, "SN2");
  CreateTicket({"a"}, "SN3");
  const Json::Value tickets = Health()["tickets"];
  EXPECT_EQ(tickets["open"].asInt(), 2);
  EXPECT_EQ(tickets["overdue"].asInt(), 0);
  EXPECT_EQ(tickets["oldest_queued"]["id"].asString(), oldest);
  EXPECT_EQ(tickets["oldest_queued"]["device"].asString(), "SN2");
}

TEST_F(HealthTest, OverdueTicketsAreCounted) {
  settings_.tickets.overdue_after = std::chrono::minutes(0);
  Start();
  const Delivered ticket = AcceptTicket();
  EXPECT_TRUE(Eventually([&] { return Health()["tickets"]["overdue"].asInt() == 1; }));
}

TEST_F(HealthTest, MissingArchivesAreNamedAndDeletedOnesNot) {
  Start();
  std::vector<std::string> ids;
  for (int i = 0; i < 3; ++i) {
    const Delivered ticket = AcceptTicket();
    WriteFile(temp_.path() / "debug.dat", "archive");
    const std::vector<std::string> auth = {"AUTH-TOKEN: " + ticket.token};
    ASSERT_EQ(PostForm(UploadUrl(), auth, DeviceForm(temp_.path() / "debug.dat", "SN1", {"a"})).status, 200);
    ASSERT_EQ(Request("POST", ReportUrl(), auth, R"({"status":"Success","serial_number":"SN1"})").status,
              200);
    own_device_.reset();
    ids.push_back(ticket.id);
  }
  ASSERT_EQ(AskApi(service().control_socket(), "DELETE", "/tickets/" + ids[0] + "/archives/1").status, 204);
  std::filesystem::remove(ArchiveOf(ids[1]));
  const Json::Value archives = Health()["archives"];
  EXPECT_EQ(archives["known"].asInt(), 2);
  EXPECT_EQ(archives["missing_count"].asInt(), 1);
  ASSERT_EQ(archives["missing"].size(), 1U);
  EXPECT_EQ(archives["missing"][0].asString(), ids[1] + "-1.dat");
}

TEST_F(HealthTest, ConnectedDevicesAndTwinsAreTold) {
  settings_.tickets.takeovers_in_window = 0;
  Start();
  ScriptedDevice first(service().grpc_url());
  first.Hello("SN1");
  ScriptedDevice other(service().grpc_url());
  other.Hello("SN2");
  EXPECT_TRUE(Eventually([&] { return Health()["devices"]["connected"].asInt() == 2; }));
  EXPECT_TRUE(Health()["devices"]["twins"].empty());
  ScriptedDevice twin(service().grpc_url());
  twin.Hello("SN1");
  EXPECT_TRUE(Eventually([&] { return Health()["devices"]["twins"].size() == 1; }));
  EXPECT_EQ(Health()["devices"]["twins"][0].asString(), "SN1");
}

TEST_F(HealthTest, DiskAndCertificateAreTold) {
  settings_.disk_stays_free = 4711;
  Start();
  Json::Value health = Health();
  EXPECT_EQ(health["disk"]["stays_free_bytes"].asInt(), 4711);
  EXPECT_GE(health["disk"]["size_bytes"].asUInt64(), health["disk"]["free_bytes"].asUInt64());
  EXPECT_FALSE(health["uses_tls"].asBool());
  EXPECT_FALSE(health.isMember("certificate_until")) << "nothing is encrypted here";
  EXPECT_FALSE(health.isMember("webhook")) << "there is none";
  service_.reset();
  settings_.tickets.trust = Trust::kOwnAuthority;
  service_ = std::make_unique<SupportService>(settings_, events_.sink());
  health = Health();
  EXPECT_TRUE(health["uses_tls"].asBool());
  EXPECT_GT(health["certificate_until"].asString(), health["time"].asString());
  std::filesystem::remove(settings_.data_folder / "server" / "server.pem");
  health = Health();
  EXPECT_TRUE(health["uses_tls"].asBool()) << "and its certificate can't be read";
  EXPECT_FALSE(health.isMember("certificate_until"));
}

TEST_F(HealthTest, NobodyButAdministratorsMayAsk) {
  settings_.api_address = "127.0.0.1:0";
  Start();
  const NewApiToken token = service().dispatcher().Call([](TicketBook& book) {
    return book.registry().AddApiToken("monitor", Role::kSupport, std::chrono::hours(1), "test");
  });
  for (const char* path : {"/api/v1/health", "/api/v1/backup"}) {
    const ReceivedAnswer answer =
        Request("GET", service().api_url() + path, {"Authorization: Bearer " + token.secret}, std::nullopt);
    EXPECT_EQ(answer.status, 403) << path;
    EXPECT_THAT(answer.body, HasSubstr("needs the role admin"));
  }
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
