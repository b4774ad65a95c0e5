#include "ticket_client.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "client_errors.h"
#include "scoped_fd.h"
#include "scripted_server.h"
#include "syslog_recorder.h"
#include "temp_dir.h"

namespace TarvoOrvane::Internal {
namespace {

using FastSupport::CallStatus;
using FastSupport::FastSupportClient;
using FastSupport::ReceiveResult;
using tarvo::support::v1::CLIENT_STATUS_ACCEPTED;
using tarvo::support::v1::CLIENT_STATUS_REJECTED;
using testing::ElementsAre;
using testing::HasSubstr;
using Testing::kDeadline;
using testing::Not;
using Testing::ScriptedServer;
using Testing::ServerOptions;
using Testing::Session;

std::string TicketJson(const std::string& token) {
  return R"({"token": ")" + token + R"(", "apps": ["a", "b"]})";
}

/// What a Receive() brought, in a word: the token, or "failed NUMBER".
std::string Summary(const ReceiveResult& result) {
  if (result.request) return result.request->token;
  return (result.status.hasFail ? "failed " : "nothing ") + std::to_string(result.status.error);
}

std::string Failed(ClientError error) { return "failed " + std::to_string(static_cast<int>(error)); }

/// Receive() in another thread, so that a test that would block for ever fails instead.
template <typename Client>
class PendingReceive {
 public:
  explicit PendingReceive(Client& client)
      : future_(std::async(std::launch::async, [&client] { return client.Receive(); })) {}

  ReceiveResult Await() {
    if (future_.wait_for(kDeadline) != std::future_status::ready) {
      ADD_FAILURE() << "Receive() does not return";
      std::abort();
    }
    return future_.get();
  }

 private:
  std::future<ReceiveResult> future_;
};

template <typename Client>
PendingReceive<Client> StartReceive(Client& client) {
  return PendingReceive<Client>(client);
}

template <typename Client>
ReceiveResult ReceiveInTime(Client& client) {
  return StartReceive(client).Await();
}

class TicketClientTest : public testing::Test {
 protected:
  TicketClientTest() { Testing::TakeSyslogLines(); }

  /// Opens the first stream of `client`; the Receive() that does it waits for a ticket.
  std::shared_ptr<Session> Connect(FastSupportClient& client) {
    receive_.emplace(client);
    auto session = server_.AwaitSession();
    EXPECT_NE(session, nullptr);
    return session;
  }
  ReceiveResult Received() { return receive_->Await(); }

  ScriptedServer server_;
  std::optional<PendingReceive<FastSupportClient>> receive_;
};

TEST_F(TicketClientTest, TheFirstMessageTellsTheSerialNumberAndTheProtocol) {
  FastSupportClient client(server_.url());
  const auto session = Connect(client);
  const auto serial = Utils::GetSerialNumber();
  EXPECT_EQ(session->hello().serial_number(), serial ? *serial : "");
  EXPECT_EQ(session->hello().protocol(), 1u);
  session->End(grpc::Status::OK);
  Received();
}

TEST_F(TicketClientTest, ATicketIsReceivedAndAnsweredOnce) {
  FastSupportClient client(server_.url());
  const auto session = Connect(client);
  session->Deliver("id-1", TicketJson("t1"));
  const auto result = Received();
  ASSERT_TRUE(result.request);
  EXPECT_FALSE(result.status.hasFail);
  EXPECT_EQ(result.request->token, "t1");
  EXPECT_THAT(result.request->apps, ElementsAre("a", "b"));

  EXPECT_FALSE(client.Send(FastSupportClient::kAccepted).hasFail);
  const auto answer = session->AwaitAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->ticket_id(), "id-1");
  EXPECT_EQ(answer->status(), CLIENT_STATUS_ACCEPTED);

  const auto second = client.Send(FastSupportClient::kAccepted);
  EXPECT_EQ(second.error, static_cast<int>(ClientError::kNothingToAnswer));
  EXPECT_FALSE(session->AwaitAnswer(std::chrono::milliseconds(100)));
}

TEST_F(TicketClientTest, ARefusedTicketIsAnsweredRejected) {
  FastSupportClient client(server_.url());
  const auto session = Connect(client);
  session->Deliver("id-1", TicketJson("t1"));
  Received();
  EXPECT_FALSE(client.Send(FastSupportClient::kRejected).hasFail);
  const auto answer = session->AwaitAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status(), CLIENT_STATUS_REJECTED);
}

TEST_F(TicketClientTest, ManyTicketsOnOneStreamComeInOrder) {
  FastSupportClient client(server_.url());
  const auto session = Connect(client);
  // More than the client queues, and each near the largest message, so that reading pauses and goes on.
  constexpr int kTickets = 40;
  const std::string padding(50'000, 'p');
  for (int i = 0; i < kTickets; ++i)
    session->Deliver(std::to_string(i), TicketJson(std::to_string(i) + padding));
  for (int i = 0; i < kTickets; ++i) {
    const auto result = i == 0 ? Received() : ReceiveInTime(client);
    ASSERT_EQ(Summary(result), std::to_string(i) + padding);
    ASSERT_FALSE(client.Send(FastSupportClient::kAccepted).hasFail);
    const auto answer = session->AwaitAnswer();
    ASSERT_TRUE(answer);
    ASSERT_EQ(answer->ticket_id(), std::to_string(i));
  }
}

TEST_F(TicketClientTest, AMalformedTicketIsRejectedInsideAndTheNextGoodOneIsReturned) {
  FastSupportClient client(server_.url());
  const auto session = Connect(client);
  session->Deliver("bad\n1", R"({"token": 7, "apps": [], "note": "secret"})");
  session->Deliver("bad-2", "secret");
  session->Deliver("good", TicketJson("t1"));
  EXPECT_EQ(Summary(Received()), "t1");
  auto answer = session->AwaitAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->ticket_id(), "bad\n1");
  EXPECT_EQ(answer->status(), CLIENT_STATUS_REJECTED);
  EXPECT_EQ(answer->reason(), "\"token\" is not a string");
  answer = session->AwaitAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->ticket_id(), "bad-2");

  const std::string log = Testing::TakeSyslogText();
  EXPECT_THAT(log, HasSubstr("Rejected the malformed ticket \"bad\\n1\": \"token\" is not a string"));
  EXPECT_THAT(log, HasSubstr("\"bad-2\": the ticket is not valid JSON"));
  EXPECT_THAT(log, Not(HasSubstr("secret")));
}

TEST_F(TicketClientTest, AMessageOfAnUnknownKindIsPassedOver) {
  FastSupportClient client(server_.url());
  const auto session = Connect(client);
  session->SendUnknown();
  session->Deliver("id-1", TicketJson("t1"));
  EXPECT_EQ(Summary(Received()), "t1");
}

TEST_F(TicketClientTest, AStreamEndIsToldOnceWithItsCodeAndTextAndTheNextCallOpensANewOne) {
  FastSupportClient client(server_.url());
  Connect(client)->End(grpc::Status(grpc::StatusCode::RESOURCE_EXHAUSTED, "too\nbusy"));
  const auto failure = Received();
  EXPECT_EQ(Summary(failure), "failed 8");
  EXPECT_EQ(failure.status.errorMsg, "too\\nbusy");

  Connect(client)->Deliver("id-1", TicketJson("t1"));
  EXPECT_EQ(Summary(Received()), "t1");
}

TEST_F(TicketClientTest, AStreamEndedWithoutAnErrorIsAFailureToo) {
  FastSupportClient client(server_.url());
  Connect(client)->End(grpc::Status::OK);
  const auto failure = Received();
  EXPECT_EQ(Summary(failure), Failed(ClientError::kStreamClosed));
  EXPECT_EQ(failure.status.errorMsg, "The server closed the stream");
}

TEST_F(TicketClientTest, AnAnswerAfterTheStreamDiedFailsAndTicketsQueuedFromItAreDropped) {
  FastSupportClient client(server_.url());
  CallStatus sent;
  // The end reaches the client a moment after it left the server; an answer that is quicker still gets out.
  for (int attempt = 0; attempt < 100 && !sent.hasFail; ++attempt) {
    const auto session = Connect(client);
    session->Deliver("id-1", TicketJson("t1"));
    ASSERT_EQ(Summary(Received()), "t1");
    session->Deliver("id-2", TicketJson("t2"));
    session->End(grpc::Status::OK);
    ASSERT_TRUE(session->AwaitEnd());
    sent = client.Send(FastSupportClient::kAccepted);
    while (!sent.hasFail && ReceiveInTime(client).request) continue;
  }
  EXPECT_EQ(sent.error, static_cast<int>(ClientError::kAnswerNotSent));
  EXPECT_EQ(sent.errorMsg, "The stream ended before the answer was written");
  EXPECT_EQ(Summary(ReceiveInTime(client)), Failed(ClientError::kStreamClosed));

  Connect(client)->Deliver("id-2", TicketJson("t2 again"));
  EXPECT_EQ(Summary(Received()), "t2 again");
}

TEST_F(TicketClientTest, AnAnswerWithoutATicketFails) {
  FastSupportClient client(server_.url());
  const auto sent = client.Send(FastSupportClient::kAccepted);
  EXPECT_EQ(sent.error, static_cast<int>(ClientError::kNothingToAnswer));
  EXPECT_NE(sent.errorMsg, "");
}

TEST_F(TicketClientTest, AnUndecodableMessageEndsTheStreamWithAFailureAndTheNextOneWorks) {
  TicketClientOptions options;
  options.limits.status = std::chrono::milliseconds(100);
  TicketClient client(server_.url(), options);
  auto receive = StartReceive(client);
  auto session = server_.AwaitSession();
  ASSERT_NE(session, nullptr);
  session->Deliver("id-1", "\xff\xfe");  // no UTF-8, as protobuf demands of a string
  const auto failure = receive.Await();
  EXPECT_EQ(Summary(failure), Failed(ClientError::kUndecodable));
  EXPECT_EQ(failure.status.errorMsg, "The server sent a message that could not be decoded");
  EXPECT_TRUE(session->AwaitEnd());
  EXPECT_THAT(Testing::TakeSyslogText(),
              HasSubstr("protobuf: String field contains invalid UTF-8 data when parsing"));

  auto next = StartReceive(client);
  session = server_.AwaitSession();
  ASSERT_NE(session, nullptr);
  session->Deliver("id-2", TicketJson("t2"));
  EXPECT_EQ(Summary(next.Await()), "t2");
}

TEST_F(TicketClientTest, AMessageAbove64KiBEndsTheStreamWithAFailure) {
  FastSupportClient client(server_.url());
  Connect(client)->Deliver("id-1", TicketJson(std::string(65UL * 1024, 't')));
  EXPECT_EQ(Summary(Received()), "failed 8");
}

TEST_F(TicketClientTest, DestructionEndsTheStream) {
  std::shared_ptr<Session> session;
  {
    FastSupportClient client(server_.url());
    session = Connect(client);
    session->Deliver("id-1", TicketJson("t1"));
    Received();
  }
  EXPECT_TRUE(session->AwaitEnd());
}

TEST_F(TicketClientTest, DestructionEndsTheThreadOfAStreamWhoseReadingPauses) {
  TicketClientOptions options;
  options.limits.close = std::chrono::hours(1);  // so that a thread that does not end shows
  auto client = std::make_unique<TicketClient>(server_.url(), options);
  auto receive = StartReceive(*client);
  const auto session = server_.AwaitSession();
  ASSERT_NE(session, nullptr);
  for (int i = 0; i < 40; ++i) session->Deliver(std::to_string(i), TicketJson(std::string(50'000, 't')));
  receive.Await();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // for the queue to fill
  auto destruction = std::async(std::launch::async, [&client] { client.reset(); });
  if (destruction.wait_for(kDeadline) != std::future_status::ready) {
    ADD_FAILURE() << "the destructor does not return";
    std::abort();
  }
  EXPECT_TRUE(session->AwaitEnd());
}

TEST(TicketClientConnectionTest, ABadAddressFailsEachReceiveWithWhatIsWrong) {
  FastSupportClient client("http://127.0.0.1:99999");
  for (int i = 0; i < 2; ++i) {
    const auto failure = ReceiveInTime(client);
    EXPECT_EQ(Summary(failure), Failed(ClientError::kBadAddress));
    EXPECT_THAT(failure.status.errorMsg, HasSubstr("the port \"99999\" is no number from 1 to 65535"));
  }
}

TEST(TicketClientConnectionTest, AServerThatIsDownIsAFailureAndTheCallAfterItsReturnSucceeds) {
  const Testing::TempDir folder;
  const std::string address = "unix:" + folder.File("socket");
  FastSupportClient client(address);
  EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 14");
  EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 14");

  ServerOptions options;
  options.listen = address;
  for (const char* token : {"first life", "second life"}) {
    ScriptedServer server(options);
    auto receive = StartReceive(client);
    const auto session = server.AwaitSession();
    ASSERT_NE(session, nullptr);
    session->Deliver("id", TicketJson(token));
    EXPECT_EQ(Summary(receive.Await()), token);
    session->End(grpc::Status(grpc::StatusCode::UNAVAILABLE, "going away"));
    EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 14");
  }
  EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 14");
}

TEST(TicketClientConnectionTest, AnIpv6AddressWorks) {
  ServerOptions options;
  options.listen = "[::1]:0";
  ScriptedServer server(options);
  if (server.port() <= 0) GTEST_SKIP() << "no IPv6 loopback here";
  FastSupportClient client("http://[::1]:" + std::to_string(server.port()));
  auto receive = StartReceive(client);
  const auto session = server.AwaitSession();
  ASSERT_NE(session, nullptr);
  session->Deliver("id", TicketJson("t"));
  EXPECT_EQ(Summary(receive.Await()), "t");
}

TEST(TicketClientConnectionTest, ANameIsLookedUp) {
  ScriptedServer server;
  FastSupportClient client("http://localhost:" + std::to_string(server.port()));
  auto receive = StartReceive(client);
  const auto session = server.AwaitSession();
  ASSERT_NE(session, nullptr);
  session->Deliver("id", TicketJson("t"));
  EXPECT_EQ(Summary(receive.Await()), "t");
}

TEST(TicketClientConnectionTest, AServerThatAcceptsButIsSilentFailsWithinTheConnectLimit) {
  const ScopedFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(listen(listener.get(), 5), 0);
  ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);

  TicketClientOptions options;
  options.limits.connect = std::chrono::milliseconds(200);
  TicketClient client("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)), options);
  EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 14");
}

TEST(TicketClientConnectionTest, AServerThatComplainsOfPingsIsPingedHalfAsOften) {
  ServerOptions server_options;
  server_options.strict_about_pings = true;
  ScriptedServer server(server_options);
  TicketClientOptions options;
  options.limits.keepalive = std::chrono::milliseconds(50);
  TicketClient client(server.url(), options);
  const auto failure = ReceiveInTime(client);
  EXPECT_EQ(Summary(failure), "failed 14");
  EXPECT_THAT(failure.status.errorMsg, HasSubstr("Too many pings"));
  EXPECT_EQ(client.keepalive(), std::chrono::milliseconds(100));
}

class TlsTest : public testing::Test {
 protected:
  TlsTest() {
    ServerOptions options;
    options.certificate = Testing::MakeTestCertificate();
    server_.emplace(options);
    options_.root_certificates_file = folder_.Write("ca.pem", options.certificate->certificate);
  }
  std::string HostAndPort(const std::string& host) const {
    return host + ":" + std::to_string(server_->port());
  }

  const Testing::TempDir folder_;
  std::optional<ScriptedServer> server_;
  TicketClientOptions options_;
};

TEST_F(TlsTest, AServerWithATrustedCertificateIsUsed) {
  for (const std::string& address : {HostAndPort("localhost"), "https://" + HostAndPort("127.0.0.1")}) {
    TicketClient client(address, options_);
    auto receive = StartReceive(client);
    const auto session = server_->AwaitSession();
    ASSERT_NE(session, nullptr);
    session->Deliver("id", TicketJson("t"));
    EXPECT_EQ(Summary(receive.Await()), "t");
  }
}

TEST_F(TlsTest, AServerThatTheSystemsRootsDoNotKnowIsRefused) {
  FastSupportClient client(HostAndPort("localhost"));
  const auto failure = ReceiveInTime(client);
  EXPECT_EQ(Summary(failure), "failed 14");
  EXPECT_THAT(failure.status.errorMsg, HasSubstr("certificate verify failed"));
  EXPECT_EQ(server_->AwaitSession(std::chrono::milliseconds(100)), nullptr);
}

TEST_F(TlsTest, AServerUnderAnotherNameIsRefused) {
  TicketClient client(HostAndPort("127.0.0.2"), options_);
  const auto failure = ReceiveInTime(client);
  EXPECT_TRUE(failure.status.hasFail);
  EXPECT_EQ(server_->AwaitSession(std::chrono::milliseconds(100)), nullptr);
}

TEST_F(TlsTest, APlaintextServerIsRefused) {
  ScriptedServer plaintext;
  TicketClient client("localhost:" + std::to_string(plaintext.port()), options_);
  EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 14");
}

TEST_F(TlsTest, RootCertificatesThatCannotBeReadAreTheirOwnFailureAndAreReadAgain) {
  const std::string good = options_.root_certificates_file;
  options_.root_certificates_file = folder_.File("later.pem");
  TicketClient client(HostAndPort("localhost"), options_);
  auto failure = ReceiveInTime(client);
  EXPECT_EQ(Summary(failure), Failed(ClientError::kBadCertificates));
  EXPECT_THAT(failure.status.errorMsg, HasSubstr("later.pem can't be read: No such file or directory"));

  folder_.Write("later.pem", "");
  failure = ReceiveInTime(client);
  EXPECT_EQ(Summary(failure), Failed(ClientError::kBadCertificates));
  EXPECT_THAT(failure.status.errorMsg, HasSubstr("holds no root certificate"));

  std::filesystem::copy_file(good, folder_.File("later.pem"),
                             std::filesystem::copy_options::overwrite_existing);
  auto receive = StartReceive(client);
  const auto session = server_->AwaitSession();
  ASSERT_NE(session, nullptr);
  session->Deliver("id", TicketJson("t"));
  EXPECT_EQ(Summary(receive.Await()), "t");
}

}  // namespace
}  // namespace TarvoOrvane::Internal
