/// How supportctl reaches the service, and what it says when it does not.
#include "api_client.h"

#include <sys/stat.h>

#include <cstdlib>
#include <optional>

#include "supportctl_fixture.h"
#include "test_certificate.h"

namespace TarvoOrvane::Supportctl {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kSecret[] = "secret-token-0815";

class SupportctlClientTest : public SupportctlFixture {
 protected:
  Outcome WhoAmIAt(const std::string& url, std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"--url", url, "whoami", "--json"});
    return RunAsGiven(more);
  }
};

Json::Value ServiceJson() {
  Json::Value service;
  service["version"] = "1.2.3";
  service["trust"] = "allow_list";
  service["you"]["name"] = "ada";
  service["you"]["role"] = "viewer";
  return service;
}

TEST_F(SupportctlClientTest, MissingSocketIsExplained) {
  const Outcome outcome = RunAsGiven({"--data", temp_.File("nowhere"), "whoami"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.err, "supportctl: no support service to speak with (there is no " +
                             temp_.File("nowhere") + "/control.sock): start it with support_service --data " +
                             temp_.File("nowhere") + ", or name its folder with --data\n");
}

TEST_F(SupportctlClientTest, SocketThatNobodyServesIsExplained) {
  const std::string folder = temp_.File("dead");
  { const ApiServer killed(std::filesystem::path(folder) / "control.sock"); }
  const Outcome outcome = RunAsGiven({"--data", folder, "whoami"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.err, HasSubstr("the support service does not answer, is it still running?"));
}

TEST_F(SupportctlClientTest, NameThatIsTooLongForASocketIsExplained) {
  const std::string folder = temp_.File(std::string(100, 'x'));
  WriteFile(folder + "/control.sock", "");
  const Outcome outcome = RunAsGiven({"--data", folder, "whoami"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.err, HasSubstr("too long for a socket"));
}

TEST_F(SupportctlClientTest, ProxiesOfTheEnvironmentAreNotForTheSocket) {
  setenv("http_proxy", "http://127.0.0.1:1", 1);
  server_.On("GET", "/service", {Answers(ServiceJson())});
  EXPECT_EQ(Run({"whoami"}).status, 0);
  unsetenv("http_proxy");
}

TEST_F(SupportctlClientTest, RefusalsAreToldInTheServicesWords) {
  struct Row {
    int http_status;
    int exit_status;
  };
  for (const Row& row :
       {Row{400, 1}, Row{401, 4}, Row{403, 4}, Row{404, 1}, Row{409, 1}, Row{429, 1}, Row{503, 1}}) {
    server_.On("GET", "/service", {Refuses(row.http_status, "code", "It is so.\nDo\033[2J that.")});
    const Outcome outcome = Run({"whoami"});
    EXPECT_EQ(outcome.status, row.exit_status) << row.http_status;
    EXPECT_EQ(outcome.err, "supportctl: It is so.\\x0aDo\\x1b[2J that.\n");
    EXPECT_EQ(outcome.out, "");
  }
}

TEST_F(SupportctlClientTest, StrangeAnswersAreFailures) {
  Json::Value no_role = ServiceJson();
  no_role["you"].removeMember("role");
  Json::Value odd_version = ServiceJson();
  odd_version["version"] = 7;
  const std::string head = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n";
  for (const ApiHandler& answer :
       {Answers(no_role), Answers(odd_version), Sends(head), Sends(head + "<html>"), Sends(head + "[]"),
        Sends(head + "{\"version\":\"1\"} x"), Sends(head + std::string(100000, '[')),
        Sends("HTTP/1.1 502 Bad\r\nConnection: close\r\n\r\n<html>")}) {
    server_.On("GET", "/service", {answer});
    const Outcome outcome = Run({"whoami"});
    EXPECT_EQ(outcome.status, 1) << outcome.err;
    EXPECT_THAT(outcome.err,
                ::testing::AnyOf(HasSubstr("may be of different versions, or something else answers"),
                                 HasSubstr("HTTP status 502 and no explanation")));
  }
}

TEST_F(SupportctlClientTest, BrokenConnectionsAreFailuresOfTheService) {
  for (const char* bytes : {"", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{", "nonsense\r\n\r\n"}) {
    server_.On("GET", "/service", {Sends(bytes)});
    EXPECT_EQ(Run({"whoami"}).status, 3) << bytes;
  }
}

TEST_F(SupportctlClientTest, OverHttpsTheTokenIsShown) {
  const Testing::TestCertificate certificate = Testing::MakeTestCertificate();
  ApiServer remote(certificate.certificate, certificate.key);
  remote.On("GET", "/service", {Answers(ServiceJson())});
  const std::string authority = temp_.Write("ca.pem", certificate.certificate);
  const std::string token = temp_.Write("token", std::string(kSecret) + "\n");
  chmod(token.c_str(), 0600);
  const Outcome outcome = WhoAmIAt(remote.Url(), {"--token-file", token, "--ca", authority});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.Json(), ServiceJson());
  ASSERT_EQ(remote.Requests().size(), 1U);
  EXPECT_EQ(remote.Requests()[0].Header("authorization"), std::string("Bearer ") + kSecret);

  setenv("SUPPORTCTL_TOKEN", "of-environment", 1);
  EXPECT_EQ(WhoAmIAt(remote.Url(), {"--ca", authority}).status, 0);
  EXPECT_EQ(remote.Requests().back().Header("authorization"), "Bearer of-environment");
}

TEST_F(SupportctlClientTest, OverTheSocketNoTokenIsShown) {
  setenv("SUPPORTCTL_TOKEN", kSecret, 1);
  server_.On("GET", "/service", {Answers(ServiceJson())});
  EXPECT_EQ(Run({"whoami"}).status, 0);
  EXPECT_EQ(server_.Requests().at(0).Header("authorization"), "");
}

TEST_F(SupportctlClientTest, ServerOfAnUnknownAuthorityGetsNoToken) {
  const Testing::TestCertificate certificate = Testing::MakeTestCertificate();
  ApiServer remote(certificate.certificate, certificate.key);
  setenv("SUPPORTCTL_TOKEN", kSecret, 1);
  const Outcome outcome = WhoAmIAt(remote.Url());
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.err, HasSubstr("can't be reached"));
  EXPECT_THAT(outcome.err, HasSubstr("--ca"));
  EXPECT_THAT(outcome.err, Not(HasSubstr(kSecret)));
  EXPECT_TRUE(remote.Requests().empty());
}

TEST_F(SupportctlClientTest, TokensThatCannotBeAreRefusedAndNeverPrinted) {
  EXPECT_THAT(WhoAmIAt("https://127.0.0.1:1").err, HasSubstr("--url needs a token"));
  EXPECT_THAT(WhoAmIAt("https://127.0.0.1:1", {"--token-file", temp_.File("none")}).err,
              HasSubstr("No such file"));
  for (const std::string& text :
       {std::string(), std::string(kSecret) + " two", std::string(kSecret) + "\rX: y",
        std::string(kSecret) + "\xc3\xa4", std::string(2000, 'x')}) {
    const std::string file = temp_.Write("token", text);
    chmod(file.c_str(), 0600);
    const Outcome outcome = WhoAmIAt("https://127.0.0.1:1", {"--token-file", file});
    EXPECT_EQ(outcome.status, 2) << text;
    EXPECT_THAT(outcome.err, HasSubstr("is no token"));
    EXPECT_THAT(outcome.err, Not(HasSubstr(kSecret)));
  }
  const std::string open_to_all = temp_.Write("open", kSecret);
  chmod(open_to_all.c_str(), 0644);
  const Outcome outcome = WhoAmIAt("https://127.0.0.1:1", {"--token-file", open_to_all});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("chmod 600"));
}

TEST_F(SupportctlClientTest, RedirectsAreNotFollowed) {
  server_.On("GET", "/service",
             {Sends("HTTP/1.1 302 X\r\nLocation: /api/v1/x\r\nContent-Length: 0\r\n\r\n")});
  EXPECT_EQ(Run({"whoami"}).status, 1);
  EXPECT_EQ(server_.Requests().size(), 1U);
}

}  // namespace
}  // namespace TarvoOrvane::Supportctl
