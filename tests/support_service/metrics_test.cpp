/// The page of metrics as a whole: its form, what it counts, and who gets it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

/// A page in the text format, read strictly: each line has to fit, each metric to be announced, and none to come twice.
class MetricsPage {
 public:
  explicit MetricsPage(const std::string& text) {
    static const std::regex help("# HELP ([a-z_]+) [A-Z].*\\.");
    static const std::regex type("# TYPE ([a-z_]+) (counter|gauge|histogram)");
    static const std::regex sample(
        R"re(([a-z_]+)((?:\{(?:[a-z]+="[^"\\]*"(?:,|(?=\})))+\})?) (\+Inf|-?[0-9.]+(?:e[-+][0-9]+)?))re");
    EXPECT_EQ(text.back(), '\n');
    std::istringstream lines(text);
    std::string helped;
    for (std::string line; std::getline(lines, line);) {
      std::smatch match;
      if (std::regex_match(line, match, help)) {
        helped = match[1];
        EXPECT_EQ(types_.count(helped), 0U) << line;
      } else if (std::regex_match(line, match, type)) {
        EXPECT_EQ(match[1], helped) << "a metric has its help first";
        types_[match[1]] = match[2];
        current_ = match[1];
      } else if (std::regex_match(line, match, sample)) {
        CheckName(match[1], line);
        EXPECT_TRUE(values_.emplace(match[1].str() + match[2].str(), std::stod(match[3])).second) << line;
      } else {
        ADD_FAILURE() << "no line of the format: " << line;
      }
    }
  }

  [[nodiscard]] double operator[](const std::string& name) const {
    const auto found = values_.find(name);
    return found == values_.end() ? -1 : found->second;
  }
  [[nodiscard]] const std::map<std::string, double>& values() const { return values_; }
  [[nodiscard]] const std::map<std::string, std::string>& types() const { return types_; }

 private:
  void CheckName(const std::string& name, const std::string& line) {
    const std::string& kind = types_[current_];
    std::set<std::string> names = {current_};
    if (kind == "histogram") names = {current_ + "_bucket", current_ + "_sum", current_ + "_count"};
    EXPECT_EQ(names.count(name), 1U) << line;
  }

  std::map<std::string, std::string> types_;
  std::map<std::string, double> values_;
  std::string current_;  ///< The metric announced last.
};

class MetricsTest : public ServiceTest {
 protected:
  MetricsPage Page() {
    const ReceivedAnswer page = AskOver(service().control_socket(), "/metrics");
    EXPECT_EQ(page.status, 200);
    text_ = page.body;
    return MetricsPage(page.body);
  }
  std::string text_;  ///< Of the last page.
};

TEST(MetricsListTest, EventKindsAreAllThere) {
  int number = 0;
  for (const EventKind kind : kEventKinds) EXPECT_EQ(static_cast<int>(kind), ++number);
  EXPECT_STREQ(ToText(static_cast<EventKind>(number + 1)), "unknown") << "it is in no list";
  int outcome = 0;
  for (const Outcome each : kOutcomes) EXPECT_EQ(static_cast<int>(each), outcome++);
}

TEST_F(MetricsTest, EveryLimitIsOnThePageInTheSettingsAndInTheGuide) {
  Start();
  const MetricsPage page = Page();
  const Json::Value settings = ParseJson(AskApi(service().control_socket(), "GET", "/settings").body);
  const std::string guide = ReadFile(OPERATORS_GUIDE);
  ASSERT_EQ(settings["limits"].size(), std::size(kLimits));
  Json::ArrayIndex place = 0;
  for (const Limit limit : kLimits) {
    const std::string name = ToText(limit);
    EXPECT_EQ(page.values().count("support_service_limit_met_total{limit=\"" + name + "\"}"), 1U) << name;
    EXPECT_EQ(page.values().count("support_service_limit{limit=\"" + name + "\"}"), 1U) << name;
    EXPECT_EQ(settings["limits"][place++]["name"], name);
    EXPECT_THAT(guide, HasSubstr("\n| `" + name + "` | "));
  }
}

TEST_F(MetricsTest, HoldOfRetentionIsShown) {
  Start();
  const std::string name = "support_service_retention_held_until_timestamp_seconds";
  EXPECT_EQ(Page()[name], -1);
  EXPECT_FALSE(ParseJson(AskApi(service().control_socket(), "GET", "/settings").body)
                   .isMember("retention_held_until"));
  service().dispatcher().Call(
      [](TicketBook& book) { book.registry().HoldRetention(WallTime(std::chrono::seconds(1'795'000'000))); });
  EXPECT_EQ(Page()[name], 1'795'000'000);
  EXPECT_EQ(ParseJson(AskApi(service().control_socket(), "GET", "/settings").body)["retention_held_until"],
            "2026-11-18T11:06:40.000Z");
}

TEST_F(MetricsTest, WhatStandsBesideTheApiTakesGetAlone) {
  Start();
  for (const std::string path : {"/metrics", "/healthz", "/readyz"}) {
    for (const std::string method : {"POST", "DELETE"}) {
      const ReceivedAnswer answer = AskOver(service().control_socket(), path, method);
      EXPECT_EQ(answer.status, 405) << method << " " << path;
      EXPECT_THAT(answer.headers, HasSubstr("Allow: GET"));
    }
  }
}

TEST_F(MetricsTest, NamesFollowTheConventions) {
  Start();
  AcceptTicket();
  const MetricsPage page = Page();
  EXPECT_GT(page.types().size(), 25U);
  for (const auto& [name, type] : page.types()) {
    const bool is_total = name.size() > 6 && name.substr(name.size() - 6) == "_total";
    EXPECT_EQ(is_total, type == "counter") << name;
    EXPECT_TRUE(name.rfind("support_service_", 0) == 0 || name.rfind("process_", 0) == 0) << name;
  }
  for (const auto& [name, value] : page.values()) EXPECT_GE(value, 0) << name;
}

TEST_F(MetricsTest, TicketIsCountedFromItsDeliveryToItsReport) {
  Start();
  EXPECT_EQ(Page()["support_service_devices_connected"], 0);
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const Delivered ticket = AcceptTicket(device);
  CreateTicket({}, "SN2");
  MetricsPage page = Page();
  EXPECT_EQ(page["support_service_devices_connected"], 1);
  EXPECT_EQ(page["support_service_streams{hello=\"true\"}"], 1);
  EXPECT_EQ(page["support_service_streams{hello=\"false\"}"], 0);
  EXPECT_EQ(page["support_service_tickets{state=\"accepted\"}"], 1);
  EXPECT_EQ(page["support_service_tickets{state=\"queued\"}"], 1);
  WriteFile(temp_.path() / "debug.dat", "archive");
  ASSERT_EQ(PostForm(UploadUrl(), {"AUTH-TOKEN: " + ticket.token},
                     DeviceForm(temp_.path() / "debug.dat", "SN1", {"a"}))
                .status,
            200);
  ASSERT_EQ(Request("POST", ReportUrl(), {"AUTH-TOKEN: " + ticket.token},
                    R"({"status":"Success","serial_number":"SN1"})")
                .status,
            200);
  page = Page();
  for (const char* kind : {"delivered", "accepted", "uploaded", "reported"}) {
    EXPECT_EQ(page["support_service_ticket_events_total{kind=\"" + std::string(kind) + "\"}"], 1) << kind;
  }
  EXPECT_EQ(page["support_service_ticket_events_total{kind=\"created\"}"], 2);
  EXPECT_EQ(page["support_service_tickets{state=\"accepted\"}"], 0);
  EXPECT_EQ(page["support_service_reports_total{outcome=\"success\"}"], 1);
  EXPECT_EQ(page["support_service_upload_bytes_total"], 7);
  EXPECT_EQ(page["support_service_archives"], 1);
  EXPECT_EQ(page["support_service_archive_bytes"], 7);
  EXPECT_EQ(page["support_service_limit_used{limit=\"archives_per_device\"}"], 1);
  EXPECT_GT(page["support_service_batch_duration_seconds_count"], 4);
  EXPECT_EQ(page["support_service_batch_inputs_bucket{le=\"+Inf\"}"],
            page["support_service_batch_inputs_count"]);
  // Nothing that tells devices, tickets or clients apart: there would be ever more of them.
  for (const std::string& secret :
       {std::string("SN1"), std::string("SN2"), ticket.id, ticket.token, std::string("127.0.0.1")}) {
    EXPECT_THAT(text_, Not(HasSubstr(secret)));
  }
}

TEST_F(MetricsTest, RequestsAreCountedByOperationAndStatusAndUnknownPathsAsOne) {
  Start();
  const std::string before = "support_service_api_requests_total{operation=";
  EXPECT_EQ(AskApi(service().control_socket(), "GET", "/tickets/abc").status, 404);
  EXPECT_EQ(AskApi(service().control_socket(), "GET", "/tickets/def").status, 404);
  EXPECT_EQ(AskApi(service().control_socket(), "GET", "/elsewhere/1").status, 404);
  EXPECT_EQ(AskApi(service().control_socket(), "GET", "/elsewhere/2").status, 404);
  EXPECT_EQ(AskApi(service().control_socket(), "PATCH", "/tickets").status, 405);
  const MetricsPage page = Page();
  EXPECT_EQ(page[before + "\"GET /tickets/*\",status=\"404\"}"], 2);
  EXPECT_EQ(page[before + "\"none\",status=\"404\"}"], 2);
  EXPECT_EQ(page[before + "\"none\",status=\"405\"}"], 1);
  EXPECT_EQ(Page()[before + "\"GET /metrics\",status=\"200\"}"], 1) << "the page before it";
}

TEST_F(MetricsTest, RefusedSignInsAreCounted) {
  Start();
  Json::Value attempt;
  attempt["name"] = "nobody";
  attempt["password"] = "wrong password";
  EXPECT_EQ(AskApi(service().control_socket(), "POST", "/session", attempt).status, 401);
  EXPECT_EQ(Page()["support_service_sign_ins_refused_total{reason=\"wrong\"}"], 1);
}

TEST_F(MetricsTest, ProcessDiskAndVersionAreThere) {
  Start();
  const MetricsPage page = Page();
  EXPECT_GT(page["process_resident_memory_bytes"], 1'000'000);
  EXPECT_GT(page["process_virtual_memory_bytes"], page["process_resident_memory_bytes"]);
  EXPECT_GT(page["process_cpu_seconds_total"], 0);
  EXPECT_GT(page["process_open_fds"], 10);
  EXPECT_GE(page["process_max_fds"], page["process_open_fds"]);
  EXPECT_GT(page["process_start_time_seconds"], 1.6e9);
  EXPECT_GT(page["support_service_disk_free_bytes"], 0);
  EXPECT_EQ(page["support_service_ready"], 1);
  EXPECT_THAT(text_, HasSubstr("support_service_build_info{version=\""));
}

TEST_F(MetricsTest, CertificatesTellWhenTheyEnd) {
  settings_.tickets.trust = Trust::kOwnAuthority;
  Start();
  const MetricsPage page = Page();
  const double now = std::chrono::duration<double>(Now().wall.time_since_epoch()).count();
  constexpr double kDay = 86'400;
  const std::string metric = "support_service_certificate_expiry_timestamp_seconds{certificate=";
  EXPECT_GT(page[metric + "\"server\"}"], now + 300 * kDay);
  EXPECT_LT(page[metric + "\"server\"}"], now + 400 * kDay);
  EXPECT_GT(page[metric + "\"own_authority\"}"], now + 3000 * kDay);
}

TEST_F(MetricsTest, OverTheNetworkTheyNeedARole) {
  settings_.api_address = "127.0.0.1:0";
  Start();
  const std::string url = service().api_url() + "/metrics";
  EXPECT_EQ(Request("GET", url, {}, std::nullopt).status, 401);
  EXPECT_EQ(Request("GET", url, {"Authorization: Bearer wrong"}, std::nullopt).status, 401);
  Json::Value wanted;
  wanted["name"] = "prometheus";
  wanted["role"] = "viewer";
  const Json::Value token = ParseJson(AskApi(service().control_socket(), "POST", "/tokens", wanted).body);
  const ReceivedAnswer page =
      Request("GET", url, {"Authorization: Bearer " + token["secret"].asString()}, std::nullopt);
  EXPECT_EQ(page.status, 200);
  EXPECT_THAT(page.body, HasSubstr("\nsupport_service_ready 1\n"));
  EXPECT_EQ(Request("POST", url, {"Authorization: Bearer " + token["secret"].asString()}, "").status, 405);
}

TEST_F(MetricsTest, FollowersOfEventsAreCountedWhileTheyFollow) {
  settings_.api_address = "127.0.0.1:0";
  Start();
  Json::Value wanted;
  wanted["name"] = "follower";
  wanted["role"] = "viewer";
  const Json::Value token = ParseJson(AskApi(service().control_socket(), "POST", "/tokens", wanted).body);
  {
    RawHttp follower(service().api_url());
    follower.Send("GET /api/v1/events HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " +
                  token["secret"].asString() + "\r\n\r\n");
    EXPECT_TRUE(Eventually([this] { return Page()["support_service_event_followers"] == 1; }));
  }
  EXPECT_TRUE(Eventually([this] { return Page()["support_service_event_followers"] == 0; }));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
