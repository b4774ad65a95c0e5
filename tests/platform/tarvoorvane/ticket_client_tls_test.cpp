// TLS on the stream to the notification server, and the files that it needs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>

#include "old_tls_server.h"
#include "receive_in_time.h"
#include "scripted_server.h"
#include "syslog_recorder.h"
#include "temporary_folder.h"
#include "ticket_client.h"

namespace TarvoOrvane::Internal {
namespace {

using FastSupport::FastSupportClient;
using std::chrono::milliseconds;
using Testing::Failed;
using testing::HasSubstr;
using Testing::MakeTestCertificate;
using Testing::ReceiveInTime;
using Testing::ScriptedServer;
using Testing::ServerOptions;
using Testing::StartReceive;
using Testing::Summary;
using Testing::TestCertificate;
using Testing::TicketJson;

class TlsTest : public testing::Test {
 protected:
  TlsTest() {
    Testing::TakeSyslogLines();
    options_.tls_folder = folder_.File("");
  }

  void StartServer(const std::string& client_authorities = "") {
    ServerOptions options;
    options.certificate = certificate_;
    options.client_authorities = client_authorities;
    server_.emplace(options);
  }
  void TrustTheServer() const { folder_.Write("ca.pem", certificate_.certificate); }
  void WriteClientFiles(const TestCertificate& client) const {
    folder_.Write("client.pem", client.certificate);
    std::filesystem::permissions(folder_.Write("client.key", client.key), std::filesystem::perms(0600));
  }
  std::string HostAndPort(const std::string& host) const {
    return host + ":" + std::to_string(server_->port());
  }

  /// Expects that the next Receive() of `client` brings the ticket that the server sends.
  void ExpectTicket(TicketClient& client) { Testing::ExpectTicket(*server_, client); }
  void ExpectNoSession() { EXPECT_EQ(server_->AwaitSession(milliseconds(100)), nullptr); }

  const test_support::TemporaryFolder folder_;
  const TestCertificate certificate_ = MakeTestCertificate();
  std::optional<ScriptedServer> server_;
  TicketClientOptions options_;
};

TEST_F(TlsTest, AServerWithATrustedCertificateIsUsed) {
  StartServer();
  TrustTheServer();
  for (const std::string& address : {HostAndPort("localhost"), "https://" + HostAndPort("127.0.0.1")}) {
    TicketClient client(address, options_);
    ExpectTicket(client);
  }
}

TEST_F(TlsTest, WithoutACaFileTheSystemsRootsAreTrusted) {
  StartServer();
  options_.system_roots_file = folder_.Write("system_roots.pem", certificate_.certificate);
  TicketClient client(HostAndPort("localhost"), options_);
  ExpectTicket(client);
}

TEST_F(TlsTest, WithACaFileTheSystemsRootsAreNot) {
  StartServer();
  options_.system_roots_file = folder_.Write("system_roots.pem", certificate_.certificate);
  folder_.Write("ca.pem", MakeTestCertificate().certificate);
  TicketClient client(HostAndPort("localhost"), options_);
  EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 14");
  ExpectNoSession();
}

TEST_F(TlsTest, AServerThatTheSystemsRootsDoNotKnowIsRefused) {
  StartServer();
  FastSupportClient client(HostAndPort("localhost"));
  const auto failure = ReceiveInTime(client);
  EXPECT_EQ(Summary(failure), "failed 14");
  EXPECT_THAT(failure.status.errorMsg, HasSubstr("certificate verify failed"));
  ExpectNoSession();
}

TEST_F(TlsTest, AServerUnderAnotherNameIsRefused) {
  StartServer();
  TrustTheServer();
  TicketClient client(HostAndPort("127.0.0.2"), options_);
  const auto failure = ReceiveInTime(client);
  EXPECT_TRUE(failure.status.hasFail);
  ExpectNoSession();
}

TEST_F(TlsTest, APlaintextServerIsRefused) {
  ScriptedServer plaintext;
  TrustTheServer();
  TicketClient client("localhost:" + std::to_string(plaintext.port()), options_);
  EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 14");
}

TEST_F(TlsTest, TheClientsCertificateIsShownToAServerThatAsksForIt) {
  const TestCertificate device = MakeTestCertificate();
  StartServer(device.certificate);
  TrustTheServer();
  WriteClientFiles(device);
  TicketClient client(HostAndPort("localhost"), options_);
  ExpectTicket(client);
}

TEST_F(TlsTest, AServerThatAsksForACertificateTakesNoClientWithoutOneOrWithAnother) {
  StartServer(MakeTestCertificate().certificate);
  TrustTheServer();
  TicketClient client(HostAndPort("localhost"), options_);
  EXPECT_TRUE(ReceiveInTime(client).status.hasFail);
  WriteClientFiles(MakeTestCertificate());
  EXPECT_TRUE(ReceiveInTime(client).status.hasFail);
  ExpectNoSession();
}

TEST_F(TlsTest, FilesThatCameOrWereRenewedAreUsedAtTheNextAttempt) {
  const TestCertificate device = MakeTestCertificate();
  StartServer(device.certificate);
  folder_.Write("ca.pem", MakeTestCertificate().certificate);
  WriteClientFiles(MakeTestCertificate());
  TicketClient client(HostAndPort("localhost"), options_);
  ASSERT_TRUE(ReceiveInTime(client).status.hasFail);

  TrustTheServer();
  WriteClientFiles(device);
  ExpectTicket(client);
}

TEST_F(TlsTest, EveryFileProblemIsALogLineAndNoConnectionIsTried) {
  StartServer();
  folder_.Write("ca.pem", "no certificate");
  folder_.Write("client.pem", MakeTestCertificate().certificate);
  TicketClient client(HostAndPort("localhost"), options_);
  const auto failure = ReceiveInTime(client);
  EXPECT_EQ(Summary(failure), Failed(ClientError::kBadTlsFiles));
  EXPECT_THAT(failure.status.errorMsg, HasSubstr("No TLS connection was tried: "));
  EXPECT_THAT(failure.status.errorMsg, HasSubstr("ca.pem"));
  const std::string log = Testing::TakeSyslogText();
  EXPECT_THAT(log, HasSubstr("ca.pem: "));
  EXPECT_THAT(log, HasSubstr("client.key: "));
  ExpectNoSession();
}

TEST_F(TlsTest, SystemRootsThatCannotBeReadAreAFailureOfTheirOwnAndAreReadAgain) {
  StartServer();
  options_.system_roots_file = folder_.File("roots");
  TicketClient client(HostAndPort("localhost"), options_);
  auto failure = ReceiveInTime(client);
  EXPECT_EQ(Summary(failure), Failed(ClientError::kBadTlsFiles));
  EXPECT_THAT(failure.status.errorMsg, HasSubstr("roots can't be read: No such file or directory; install"));
  EXPECT_THAT(Testing::TakeSyslogText(),
              HasSubstr("roots can't be read: No such file or directory; install"));

  folder_.Write("roots", "");
  failure = ReceiveInTime(client);
  EXPECT_EQ(Summary(failure), Failed(ClientError::kBadTlsFiles));
  EXPECT_THAT(failure.status.errorMsg, HasSubstr("roots holds no certificate"));

  folder_.Write("roots", certificate_.certificate);
  ExpectTicket(client);
}

TEST_F(TlsTest, APlaintextAddressNeedsNoTlsFiles) {
  ScriptedServer plaintext;
  folder_.Write("ca.pem", "no certificate");
  TicketClient client(plaintext.url(), options_);
  Testing::ExpectTicket(plaintext, client);
}

TEST_F(TlsTest, NothingOlderThanTls12IsOffered) {
  TrustTheServer();
  Testing::OldTlsServer server(certificate_);
  TicketClient client("localhost:" + std::to_string(server.port()), options_);
  EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 14");
  EXPECT_THAT(server.AwaitOfferedVersions(), testing::UnorderedElementsAre(0x0303, 0x0304));
  EXPECT_FALSE(server.shook_hands()) << "a server that speaks TLS 1.1 at best was taken";
}

}  // namespace
}  // namespace TarvoOrvane::Internal
